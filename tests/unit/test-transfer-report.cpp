#include "transfer/report.h"

#include <climits>

#include <gtest/gtest.h>
#include <jansson.h>

#include "agent/owners.h"
#include "transfer/exit-statuses.h"
#include "transfer/say.h"
#include "transfer/session.h"
#include "transfer/surroundings.h"
#include "transfer/upload.h"

static transfer_outcome good(void)
{
    transfer_outcome outcome;
    outcome.bytes = 5000;
    outcome.seconds = 3;
    outcome.http_status = 200;
    return outcome;
}

static transfer_outcome bad(const std::string &reason)
{
    transfer_outcome outcome = good();
    outcome.exit_status = TRANSFER_REFUSED;
    outcome.reason = reason;
    return outcome;
}

TEST(transfer_report, a_download_is_reported_by_the_agents_prefixes)
{
    EXPECT_EQ(download_report(good()),
              "{\"msgType\":401,\"status\":\"DownloadComplete\",\"message\":\"5000 bytes in 3 s\"}");
    EXPECT_EQ(download_report(bad("no \"x\"")),
              "{\"msgType\":701,\"code\":\"DownloadFailed\",\"message\":\"no \\\"x\\\"\"}");
}

TEST(transfer_report, an_upload_is_an_event)
{
    EXPECT_EQ(
        upload_event(good(), "a.tgz", 7),
        "{\"msgType\":699,\"eId\":\"TechSupportUpload\",\"eTime\":7,"
        "\"desc\":\"Uploaded a.tgz: 5000 bytes in 3 s\","
        "\"varPayload\":{\"fileName\":\"a.tgz\",\"outcome\":\"Complete\",\"httpStatus\":200,\"bytes\":5000,"
        "\"seconds\":3}}");
    EXPECT_EQ(
        upload_event(bad("no"), "a.tgz", 7),
        "{\"msgType\":699,\"eId\":\"TechSupportUpload\",\"eTime\":7,"
        "\"desc\":\"Upload of a.tgz failed: no\","
        "\"varPayload\":{\"fileName\":\"a.tgz\",\"outcome\":\"Failed\",\"httpStatus\":200,\"bytes\":5000,"
        "\"seconds\":3,\"reason\":\"no\"}}");
}

TEST(transfer_report, no_text_makes_it_too_long_or_no_json)
{
    const std::string evil[] = {std::string(5000, '"'), std::string(5000, '\x01'), std::string(5000, '\xFF'),
                                std::string(5000, '\0'), std::string(4999, 'x') + "\xC3\xA9"};
    for (const std::string &text : evil) {
        transfer_outcome outcome = bad(text);
        outcome.bytes = outcome.seconds = INT64_MAX;
        outcome.http_status = LONG_MAX;
        for (const std::string &report : {download_report(outcome), upload_event(outcome, text, INT64_MAX)}) {
            EXPECT_LE(report.size(), static_cast<size_t>(REPORT_LIMIT));
            json_ptr parsed(json_loads(report.c_str(), JSON_REJECT_DUPLICATES, nullptr));
            EXPECT_TRUE(parsed) << report;
        }
    }
}

TEST(transfer_report, texts_are_made_presentable)
{
    EXPECT_EQ(presentable("plain caf\xC3\xA9", 100), "plain caf\xC3\xA9");
    EXPECT_EQ(presentable("a\x1b[2J\r\n\t\x7f", 100), "a?[2J????");
    EXPECT_EQ(presentable("c1 \xC2\x9B, no c1 \xC2\xA0", 100), "c1 ?, no c1 \xC2\xA0");
    EXPECT_EQ(presentable("\xFF", 100), "\xEF\xBF\xBD");
    EXPECT_EQ(presentable("ab\xC3\xA9", 3), "ab") << "no character is cut in two";
    EXPECT_EQ(presentable("abc", 0), "");
}

/* ---- words of the command line ---- */

TEST(transfer_report, urls)
{
    for (const char *url :
         {"https://x/", "https://x", "HTTPS://x:8443/a?b=c#d", "https://u:p@x/", "https://[::1]/"})
        EXPECT_EQ(url_complaint(url), nullptr) << url;
    for (const char *url : {"", "http://x/", "httpsx://x/", "https:/x", "https:", "-v", "--help",
                            "file:///etc/passwd", "ftp://x/y", " https://x/"})
        EXPECT_STREQ(url_complaint(url), "the URL does not begin with https://") << url;
    for (const char *url : {"https://", "https://a b/", "https://x/\r\nHost: y", "https://[::1",
                            "https://x:99999/", "https://x/\x7f", "https://\x01/"})
        EXPECT_STREQ(url_complaint(url), "the URL is malformed") << url;
    EXPECT_EQ(url_complaint(("https://x/" + std::string(2037, 'y')).c_str()), nullptr);
}

TEST(transfer_report, secrets_of_a_url_are_not_shown)
{
    EXPECT_EQ(url_for_people("https://user:pw@x.example:8443/a/b?token=1#c"), "https://x.example:8443/a/b");
    EXPECT_EQ(url_for_people("https://x.example"), "https://x.example/");
    EXPECT_EQ(url_for_people("nonsense with blanks"), "(a malformed URL)");
}

TEST(transfer_report, content_types)
{
    EXPECT_EQ(content_type_complaint(""), nullptr);
    EXPECT_EQ(content_type_complaint("application/gzip; x=\"y\""), nullptr);
    EXPECT_EQ(content_type_complaint(std::string(255, 'x').c_str()), nullptr);
    EXPECT_NE(content_type_complaint(std::string(256, 'x').c_str()), nullptr);
    for (const char *text : {"a\r\nX: y", "a\nb", "\t", "\x7f", "\xC3\xA9"})
        EXPECT_NE(content_type_complaint(text), nullptr) << text;
}

TEST(transfer_report, the_environment_is_forgotten)
{
    for (const char *name :
         {"http_proxy", "HTTPS_PROXY", "all_proxy", "NO_PROXY", "SSL_CERT_FILE", "SSL_CERT_DIR",
          "SSLKEYLOGFILE", "OPENSSL_CONF", "OPENSSL_MODULES", "CURL_CA_BUNDLE", "CURL_HOME",
          "CURL_SSL_BACKEND", "RES_OPTIONS", "LOCALDOMAIN", "HOSTALIASES"})
        EXPECT_TRUE(steers_a_transfer(name)) << name;
    for (const char *name : {"PATH", "HOME", "LANG", "proxy", "TZ"})
        EXPECT_FALSE(steers_a_transfer(name)) << name;
    setenv("Https_Proxy", "x", 1);
    setenv("SSL_CERT_FILE", "y", 1);
    setenv("CURL_HOME", "z", 1);
    settle_surroundings();
    EXPECT_EQ(getenv("Https_Proxy"), nullptr);
    EXPECT_EQ(getenv("SSL_CERT_FILE"), nullptr);
    EXPECT_EQ(getenv("CURL_HOME"), nullptr);
    EXPECT_NE(getenv("PATH"), nullptr);
}
