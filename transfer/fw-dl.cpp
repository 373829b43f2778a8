/*
 * fw_dl: fetches a firmware image for the device agent. See fw_dl.8.
 */
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "agent/da.h"
#include "transfer/download.h"
#include "transfer/exit-statuses.h"
#include "transfer/image-file.h"
#include "transfer/report.h"
#include "transfer/retry.h"
#include "transfer/say.h"
#include "transfer/session.h"
#include "transfer/stop.h"
#include "transfer/surroundings.h"

static const char help[] =
    "Usage: fw_dl URL EVENT_SOCKET\n"
    "\n"
    "Downloads a firmware image over HTTPS to " IMAGE_PATH " and reports the outcome to the\n"
    "device agent by one datagram to EVENT_SOCKET. An interrupted download is resumed.\n"
    "\n"
    "Exit status: 0 complete, 1 given up, 2 refused by the server, 3 the server's\n"
    "certificate is no good, 4 no space or another failure of this device, 64 wrong\n"
    "usage, 75 the report was not taken, 128+N stopped by signal N. See fw_dl(8).\n";

/* What is wrong with the command line, or null. */
static const char *usage_complaint(int argc, char **argv)
{
    if (argc != 3)
        return argc < 3 ? "a URL and the event socket are wanted" : "there are too many arguments";
    return url_complaint(argv[1]);
}

static transfer_outcome run(int argc, char **argv)
{
    transfer_outcome outcome;
    if (stop_listen() != 0 || session_init() != 0)
        end_with(&outcome, TRANSFER_LOCAL, "the system refuses what it always gives");
    else if (image_remove() != 0)
        end_with(&outcome, TRANSFER_LOCAL,
                 std::string("something is in the way at " IMAGE_PATH ": ") + strerror(errno));
    else if (const char *complaint = usage_complaint(argc, argv))
        end_with(&outcome, TRANSFER_USAGE, complaint);
    else
        outcome = download_image(argv[1]);
    return outcome;
}

/* Tells the log and the agent. Returns the exit status. */
static int tell(const transfer_outcome &outcome, const char *socket_path)
{
    if (outcome.exit_status == TRANSFER_DONE)
        say("complete: %lld bytes in %lld s", static_cast<long long>(outcome.bytes),
            static_cast<long long>(outcome.seconds));
    else
        say("failed: %s", outcome.reason.c_str());
    if (send_report(socket_path, download_report(outcome)) == 0)
        return outcome.exit_status;
    say("nobody took the report at %s: %s", socket_path, strerror(errno));
    (void)image_remove(); /* nobody will come for it */
    return stop_signal() != 0 ? TRANSFER_STOPPED + stop_signal() : TRANSFER_UNREPORTED;
}

int main(int argc, char **argv)
{
    if (argc == 2 && (strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0)) {
        fputs(help, stdout);
        return TRANSFER_DONE;
    }
    if (argc == 2 && strcmp(argv[1], "--version") == 0) {
        printf("fw_dl %s\n", DA_VERSION);
        return TRANSFER_DONE;
    }
    if (argc < 3) {
        fprintf(stderr, "fw_dl: %s\nTry: fw_dl --help\n", usage_complaint(argc, argv));
        return TRANSFER_USAGE;
    }
    settle_surroundings();
    int exit_status = tell(run(argc, argv), argv[2]);
    session_exit();
    return exit_status;
}
