#include "agentctl/certificate-look.h"

#include <ctime>

#include "agent/text.h"
#include "agentctl/check-step.h"
#include "discovery/cert-verify.h"

static const int64_t DAY = 86400;

static certificate_look *current;
static const char *meant_host;

/* The common name, or all of the name where it has none. */
static std::string name_text(const X509_NAME *name)
{
    char text[256] = "";
    if (X509_NAME_get_text_by_NID(name, NID_commonName, text, sizeof(text)) < 0)
        X509_NAME_oneline(name, text, sizeof(text));
    return text;
}

static int64_t seconds_of(const ASN1_TIME *time)
{
    struct tm parts = {};
    return ASN1_TIME_to_tm(time, &parts) == 1 ? timegm(&parts) : 0;
}

static int look_and_check(X509_STORE_CTX *store, void *)
{
    const X509 *certificate = X509_STORE_CTX_get0_cert(store);
    if (certificate) {
        current->seen = true;
        current->subject = name_text(X509_get_subject_name(certificate));
        current->issuer = name_text(X509_get_issuer_name(certificate));
        current->valid_from = seconds_of(X509_get0_notBefore(certificate));
        current->valid_to = seconds_of(X509_get0_notAfter(certificate));
        current->not_yet_valid = current->valid_from > time(nullptr);
    }
    char host[256];
    copy_text(host, meant_host);
    int accepted = ssl_cert_verify_callback(store, host);
    current->refused = accepted != 1;
    current->error = X509_STORE_CTX_get_error(store);
    return accepted;
}

void watch_certificate(SSL_CTX *context, const char *host, certificate_look *look)
{
    current = look;
    meant_host = host;
    SSL_CTX_set_cert_verify_callback(context, look_and_check, nullptr);
}

static std::string days_text(int64_t valid_to)
{
    int64_t left = valid_to - time(nullptr);
    int64_t days = (left < 0 ? -left : left) / DAY;
    return std::to_string(days) + (days == 1 ? " day" : " days") + (left < 0 ? " over" : " left");
}

std::string certificate_text(const certificate_look &look)
{
    if (!look.seen)
        return "none shown";
    return "issued by " + look.issuer + ", " +
           (look.not_yet_valid ? "not yet valid by this clock" : days_text(look.valid_to));
}

std::string refusal_text(const certificate_look &look, const std::string &host)
{
    std::string why = look.error == X509_V_ERR_SUBJECT_ISSUER_MISMATCH
                          ? "it does not name " + host + " (it is for " + look.subject + ")"
                          : X509_verify_cert_error_string(look.error);
    return "refused: " + why + "; " + certificate_text(look);
}

json_t *certificate_data(const certificate_look &look, certificate_rule rule)
{
    if (!look.seen)
        return nullptr;
    return json_pack("{s:s, s:s, s:I, s:I, s:I, s:b, s:b}", "subject",
                     valid_utf8(look.subject.data(), look.subject.size()).c_str(), "issuer",
                     valid_utf8(look.issuer.data(), look.issuer.size()).c_str(), DATA_VALID_FROM,
                     static_cast<json_int_t>(look.valid_from), DATA_VALID_TO,
                     static_cast<json_int_t>(look.valid_to), "daysLeft",
                     static_cast<json_int_t>((look.valid_to - time(nullptr)) / DAY), "checked",
                     rule == CERTIFICATE_CHECKED, "accepted", !look.refused);
}
