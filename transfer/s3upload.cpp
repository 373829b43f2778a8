/*
 * s3upload: puts a file to a pre-signed URL for the device agent. See s3upload.8.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "agent/da.h"
#include "transfer/exit-statuses.h"
#include "transfer/report.h"
#include "transfer/retry.h"
#include "transfer/say.h"
#include "transfer/session.h"
#include "transfer/stop.h"
#include "transfer/surroundings.h"
#include "transfer/upload.h"

static const char help[] =
    "Usage: s3upload URL FILE CONTENT_TYPE NAME EVENT_SOCKET\n"
    "\n"
    "Uploads FILE by PUT to a pre-signed HTTPS URL and reports the outcome, under NAME, by\n"
    "one event to EVENT_SOCKET, which the device agent passes on to the controller.\n"
    "\n"
    "Exit status: 0 uploaded, 1 given up, 2 refused by the server, 3 the server's\n"
    "certificate is no good, 4 the file cannot be read or another failure of this\n"
    "device, 64 wrong usage, 75 the event was not taken, 128+N stopped by signal N.\n"
    "See s3upload(8).\n";

enum { ARG_URL = 1, ARG_FILE, ARG_CONTENT_TYPE, ARG_NAME, ARG_SOCKET, ARG_COUNT };

/* What is wrong with the command line, or null. */
static const char *usage_complaint(int argc, char **argv)
{
    if (argc != ARG_COUNT)
        return argc < ARG_COUNT ? "an argument is missing" : "there are too many arguments";
    if (const char *complaint = url_complaint(argv[ARG_URL]))
        return complaint;
    return content_type_complaint(argv[ARG_CONTENT_TYPE]);
}

static transfer_outcome run(int argc, char **argv)
{
    transfer_outcome outcome;
    if (stop_listen() != 0 || session_init() != 0)
        end_with(&outcome, TRANSFER_LOCAL, "the system refuses what it always gives");
    else if (const char *complaint = usage_complaint(argc, argv))
        end_with(&outcome, TRANSFER_USAGE, complaint);
    else
        outcome = upload_file({argv[ARG_URL], argv[ARG_FILE], argv[ARG_CONTENT_TYPE]});
    return outcome;
}

/* Tells the log and the controller. Returns the exit status. */
static int tell(const transfer_outcome &outcome, const char *name, const char *socket_path)
{
    if (outcome.exit_status == TRANSFER_DONE)
        say("uploaded: %lld bytes in %lld s", static_cast<long long>(outcome.bytes),
            static_cast<long long>(outcome.seconds));
    else
        say("failed: %s", outcome.reason.c_str());
    if (send_report(socket_path, upload_event(outcome, name, time(nullptr))) == 0)
        return outcome.exit_status;
    say("nobody took the event at %s: %s", socket_path, strerror(errno));
    return stop_signal() != 0 ? TRANSFER_STOPPED + stop_signal() : TRANSFER_UNREPORTED;
}

int main(int argc, char **argv)
{
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(help, stdout);
        return TRANSFER_DONE;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("s3upload %s\n", DA_VERSION);
        return TRANSFER_DONE;
    }
    if (argc < ARG_COUNT) {
        fprintf(stderr, "s3upload: %s\nTry: s3upload --help\n", usage_complaint(argc, argv));
        return TRANSFER_USAGE;
    }
    settle_surroundings();
    int exit_status = tell(run(argc, argv), argv[ARG_NAME], argv[ARG_SOCKET]);
    session_exit();
    return exit_status;
}
