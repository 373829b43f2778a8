#include "transfer/session.h"

#include <algorithm>

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <strings.h>

#include "agent/da.h"
#include "transfer/exit-statuses.h"
#include "transfer/say.h"
#include "transfer/stop.h"

#define TRUSTED_CERTIFICATES "/etc/ssl/certs/"

using multi_ptr = std::unique_ptr<CURLM, freed_by<curl_multi_cleanup>>;
using curl_url_ptr = std::unique_ptr<CURLU, freed_by<curl_url_cleanup>>;
using curl_text = std::unique_ptr<char, freed_by<curl_free>>;

int session_init(void)
{
    /* First, so that libcurl's own start finds it done: no configuration file of OpenSSL's steers us. */
    OPENSSL_init_ssl(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
    return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK ? 0 : -1;
}

void session_exit(void) { curl_global_cleanup(); }

/* ---- certificates ---- */

/*
 * Called by the chain check for each finding. "Not yet valid" lets it go on, and is forgotten, since libcurl
 * looks at the last finding once more; signatures are checked from the root down together with the dates, so
 * whatever else is wrong is still found.
 */
static int tolerate_not_yet_valid(int ok, X509_STORE_CTX *store)
{
    if (ok)
        return 1;
    if (X509_STORE_CTX_get_error(store) != X509_V_ERR_CERT_NOT_YET_VALID) {
        /* What a bad signature leaves in the queue would hide from libcurl that it is the certificate. */
        ERR_clear_error();
        return 0;
    }
    say("the server's certificate is not valid yet; the clock of this device may not be set");
    X509_STORE_CTX_set_error(store, X509_V_OK);
    return 1;
}

static CURLcode adjust_tls(CURL *, void *context, void *)
{
    SSL_CTX_set_verify(static_cast<SSL_CTX *>(context), SSL_VERIFY_PEER, tolerate_not_yet_valid);
    return CURLE_OK;
}

static bool set_trust(CURL *transfer)
{
    return curl_easy_setopt(transfer, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2)) ==
               CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_SSL_VERIFYPEER, 1L) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_SSL_VERIFYHOST, 2L) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_CAINFO, nullptr) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_CAPATH, TRUSTED_CERTIFICATES) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_SSL_OPTIONS, static_cast<long>(CURLSSLOPT_NO_PARTIALCHAIN)) ==
               CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_SSL_CTX_FUNCTION, adjust_tls) == CURLE_OK;
}

/* ---- the transfer ---- */

static bool set_way(CURL *transfer)
{
    return curl_easy_setopt(transfer, CURLOPT_PROTOCOLS_STR, "https") == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_REDIR_PROTOCOLS_STR, "https") == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_MAXREDIRS, static_cast<long>(REDIRECTS_LIMIT)) == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_PROXY, "") == CURLE_OK &&
           curl_easy_setopt(transfer, CURLOPT_PATH_AS_IS, 1L) == CURLE_OK; /* what is signed is not changed */
}

static void set_manners(CURL *transfer)
{
    curl_easy_setopt(transfer, CURLOPT_USERAGENT, "device-agent/" DA_VERSION);
    curl_easy_setopt(transfer, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(transfer, CURLOPT_HTTP09_ALLOWED, 0L);
    curl_easy_setopt(transfer, CURLOPT_HTTP_CONTENT_DECODING, 0L); /* the bytes as they come */
    curl_easy_setopt(transfer, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(transfer, CURLOPT_QUICK_EXIT, 1L); /* a name look-up under way does not hold us up */
    curl_easy_setopt(transfer, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(transfer, CURLOPT_CONNECTTIMEOUT, static_cast<long>(CONNECT_SECONDS));
    curl_easy_setopt(transfer, CURLOPT_LOW_SPEED_TIME, static_cast<long>(STALL_SECONDS));
    curl_easy_setopt(transfer, CURLOPT_LOW_SPEED_LIMIT, static_cast<long>(STALL_RATE));
}

curl_ptr session_make(const char *url, char *error)
{
    *error = '\0';
    curl_ptr transfer(curl_easy_init());
    if (!transfer || curl_easy_setopt(transfer.get(), CURLOPT_URL, url) != CURLE_OK ||
        curl_easy_setopt(transfer.get(), CURLOPT_ERRORBUFFER, error) != CURLE_OK ||
        !set_trust(transfer.get()) || !set_way(transfer.get()))
        return nullptr;
    set_manners(transfer.get());
    return transfer;
}

static CURLcode result_of(CURLM *multi)
{
    int left = 0;
    const CURLMsg *message = curl_multi_info_read(multi, &left);
    return message && message->msg == CURLMSG_DONE ? message->data.result : CURLE_FAILED_INIT;
}

/* Drives the transfer until it is over; false when it has to be broken off with `*why`. */
static bool drive(CURLM *multi, int64_t deadline, CURLcode *why)
{
    enum { LOOK_AROUND_MS = 1000 };
    for (int running = 1;;) {
        if (curl_multi_perform(multi, &running) != CURLM_OK)
            return *why = CURLE_FAILED_INIT, false;
        if (running == 0)
            return true;
        if (stop_signal() != 0)
            return *why = CURLE_ABORTED_BY_CALLBACK, false;
        int64_t left = deadline - monotonic_ms();
        if (left <= 0)
            return *why = CURLE_OPERATION_TIMEDOUT, false;
        struct curl_waitfd stop = {stop_fd(), CURL_WAIT_POLLIN, 0};
        int wait = static_cast<int>(std::min<int64_t>(left, LOOK_AROUND_MS));
        if (curl_multi_poll(multi, &stop, 1, wait, nullptr) != CURLM_OK)
            return *why = CURLE_FAILED_INIT, false;
    }
}

CURLcode session_run(CURL *transfer, int64_t deadline)
{
    multi_ptr multi(curl_multi_init());
    if (!multi || curl_multi_add_handle(multi.get(), transfer) != CURLM_OK)
        return CURLE_OUT_OF_MEMORY;
    CURLcode result = CURLE_OK;
    if (drive(multi.get(), deadline, &result))
        result = result_of(multi.get());
    curl_multi_remove_handle(multi.get(), transfer);
    return result;
}

int session_header(curl_list_ptr *list, const std::string &line)
{
    struct curl_slist *longer = curl_slist_append(list->get(), line.c_str());
    if (!longer)
        return -1;
    (void)list->release();
    list->reset(longer);
    return 0;
}

/* ---- failures ---- */

/* Failures that another try would only repeat. */
static const struct {
    CURLcode result;
    int exit_status;
    const char *words; /* null: libcurl's */
} final_failures[] = {
    {CURLE_UNSUPPORTED_PROTOCOL, TRANSFER_REFUSED, nullptr},
    {CURLE_TOO_MANY_REDIRECTS, TRANSFER_REFUSED, "the server redirects again and again"},
    {CURLE_FILESIZE_EXCEEDED, TRANSFER_REFUSED, nullptr},
    {CURLE_URL_MALFORMAT, TRANSFER_REFUSED, nullptr},
    {CURLE_PEER_FAILED_VERIFICATION, TRANSFER_UNTRUSTED, nullptr},
    {CURLE_SSL_CACERT_BADFILE, TRANSFER_UNTRUSTED, nullptr},
    {CURLE_OUT_OF_MEMORY, TRANSFER_LOCAL, "out of memory, or the server sends a line without end"},
    {CURLE_FAILED_INIT, TRANSFER_LOCAL, nullptr},
};

int session_final_status(CURLcode result)
{
    for (const auto &failure : final_failures)
        if (failure.result == result)
            return failure.exit_status;
    return 0;
}

std::string session_reason(CURLcode result, const char *error, bool redirected)
{
    if (result == CURLE_UNSUPPORTED_PROTOCOL && redirected)
        return "the server redirects to something other than https";
    for (const auto &failure : final_failures)
        if (failure.result == result && failure.words)
            return failure.words;
    if (result == CURLE_PARTIAL_FILE || result == CURLE_GOT_NOTHING)
        return "the server ended the connection early";
    return *error ? error : curl_easy_strerror(result);
}

/* ---- URLs ---- */

const char *url_complaint(const char *url)
{
    static const char scheme[] = "https://";
    if (strncasecmp(url, scheme, sizeof(scheme) - 1) != 0)
        return "the URL does not begin with https://";
    curl_url_ptr parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url, CURLU_PATH_AS_IS) != CURLUE_OK)
        return "the URL is malformed";
    return nullptr;
}

static std::string url_part(const curl_url_ptr &parsed, CURLUPart part)
{
    char *text = nullptr;
    if (curl_url_get(parsed.get(), part, &text, 0) != CURLUE_OK)
        return "";
    curl_text owner(text);
    return text;
}

std::string url_for_people(const char *url)
{
    curl_url_ptr parsed(curl_url());
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, url, CURLU_PATH_AS_IS) != CURLUE_OK)
        return "(a malformed URL)";
    std::string port = url_part(parsed, CURLUPART_PORT);
    return url_part(parsed, CURLUPART_SCHEME) + "://" + url_part(parsed, CURLUPART_HOST) +
           (port.empty() ? "" : ":" + port) + url_part(parsed, CURLUPART_PATH);
}
