#include "protocol/managed-info.h"

#include <cstring>
#include <string>

#include <unistd.h>

#include "agent/owners.h"
#include "protocol/error-codes.h"
#include "tests/unit/connection-test.h"

class managed_info_test : public connection_test {
protected:
    void SetUp() override
    {
        connection_test::SetUp();
        (void)unlink(ACCOUNT_ID_FILE);
    }
    void TearDown() override
    {
        (void)unlink(ACCOUNT_ID_FILE);
        connection_test::TearDown();
    }
};

static int apply(const std::string &text)
{
    json_ptr obj(json_loads(text.c_str(), 0, nullptr));
    EXPECT_NE(obj, nullptr) << text;
    return parse_managed_info(obj.get(), error_string);
}

TEST_F(managed_info_test, managed_is_a_boolean)
{
    EXPECT_EQ(apply("{\"managed\": true}"), 0);
    EXPECT_EQ(da.mgmt_flag, 1);
    for (const char *other : {"\"yes\"", "1", "0", "null", "\"false\"", "[]"}) {
        EXPECT_EQ(apply(std::string("{\"managed\": ") + other + "}"), 0);
        EXPECT_EQ(da.mgmt_flag, 1) << other;
    }
    EXPECT_EQ(apply("{\"managed\": false}"), 0);
    EXPECT_EQ(da.mgmt_flag, 0);
    EXPECT_EQ(apply("{\"managed\": \"yes\"}"), 0);
    EXPECT_EQ(da.mgmt_flag, 0);
}

TEST_F(managed_info_test, an_account_id_is_kept_and_saved)
{
    EXPECT_EQ(apply("{\"accountId\": \"acct-1\"}"), 0);
    EXPECT_STREQ(da.dev_info.account_id, "acct-1");
    EXPECT_EQ(file_text(ACCOUNT_ID_FILE), "acct-1");
}

TEST_F(managed_info_test, an_empty_account_id_clears)
{
    apply("{\"accountId\": \"acct-1\"}");
    EXPECT_EQ(apply("{\"accountId\": \"\"}"), 0);
    EXPECT_STREQ(da.dev_info.account_id, "");
    EXPECT_FALSE(path_exists(ACCOUNT_ID_FILE));
    EXPECT_TRUE(was_logged("Clear account_id file")) << "saving is asked for in either case";
}

TEST_F(managed_info_test, an_account_id_of_another_type_saves_nothing)
{
    apply("{\"accountId\": \"acct-1\"}");
    write_file(ACCOUNT_ID_FILE, "changed by hand");
    clear_log();
    for (const char *other : {"5", "true", "null", "{}"}) {
        EXPECT_EQ(apply(std::string("{\"accountId\": ") + other + "}"), 0);
        EXPECT_STREQ(da.dev_info.account_id, "acct-1") << other;
        EXPECT_EQ(file_text(ACCOUNT_ID_FILE), "changed by hand") << other;
    }
    EXPECT_FALSE(was_logged_beginning("set account_id"));
}

TEST_F(managed_info_test, texts_are_cut_to_127_characters)
{
    std::string text(300, 'a');
    EXPECT_EQ(apply("{\"accountId\": \"" + text + "\", \"hwExpiryDate\": \"" + text + "\"}"), 0);
    EXPECT_EQ(std::string(da.dev_info.account_id), std::string(127, 'a'));
    EXPECT_EQ(std::string(da.dev_info.hw_expiry_date), std::string(127, 'a'));
    EXPECT_EQ(file_text(ACCOUNT_ID_FILE), std::string(127, 'a'));
}

struct percent_row {
    const char *received, *kept;
};

TEST_F(managed_info_test, percent_signs_are_interpreted)
{
    static const percent_row rows[] = {
        {"100%%", "100%"}, {"a%db", "a0b"}, {"a%sb", "ab"}, {"a%nb", "ab"}, {"%08x-%p", "0-0"}, {"%", ""},
    };
    for (const percent_row &row : rows) {
        std::string text = row.received;
        apply("{\"accountId\": \"" + text + "\", \"hwExpiryDate\": \"" + text + "\"}");
        EXPECT_STREQ(da.dev_info.account_id, row.kept) << row.received;
        EXPECT_STREQ(da.dev_info.hw_expiry_date, row.kept) << row.received;
    }
}

TEST_F(managed_info_test, the_expiry_date_is_a_text)
{
    EXPECT_EQ(apply("{\"hwExpiryDate\": \"2031-12-31\"}"), 0);
    EXPECT_STREQ(da.dev_info.hw_expiry_date, "2031-12-31");
    EXPECT_EQ(apply("{\"hwExpiryDate\": 20311231}"), 0);
    EXPECT_STREQ(da.dev_info.hw_expiry_date, "2031-12-31");
    EXPECT_EQ(apply("{\"hwExpiryDate\": \"\"}"), 0);
    EXPECT_STREQ(da.dev_info.hw_expiry_date, "");
}

TEST_F(managed_info_test, without_an_object)
{
    EXPECT_EQ(parse_managed_info(nullptr, error_string), 7);
    EXPECT_STREQ(error_string, "jobj is NULL, ideally this should never happen");
}
