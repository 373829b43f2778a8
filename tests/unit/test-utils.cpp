#include "agent/utils.h"

#include <cerrno>
#include <filesystem>
#include <set>

#include <gtest/gtest.h>
#include <openssl/rand.h>
#include <sys/stat.h>
#include <unistd.h>

#include "agent/owners.h"
#include "tests/unit/support.h"

/* Stands in for the library's: a number of the test's choice, a failure, or a real draw. */
static enum { DRAW, FIXED, FAIL } random_source = DRAW;
static uint32_t fixed_number;

extern "C" int RAND_bytes(unsigned char *buffer, int count)
{
    if (random_source == FAIL)
        return 0;
    if (random_source == DRAW)
        return RAND_priv_bytes(buffer, count);
    memcpy(buffer, &fixed_number, static_cast<size_t>(count));
    return 1;
}

class utils : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        random_source = DRAW;
    }
};

/* ---- file_exists ---- */

TEST_F(utils, an_existing_file_exists)
{
    write_file("/tmp/exists", "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_exists("/tmp/exists"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(utils, a_missing_file_is_told_on_standard_error)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(file_exists("/tmp/absent"), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "File /tmp/absent  does not exist\n");
}

TEST_F(utils, under_a_folder_without_permission_it_counts_as_existing)
{
    std::filesystem::create_directories("/tmp/closed");
    ASSERT_EQ(chmod("/tmp/closed", 0700), 0);
    ASSERT_EQ(seteuid(65534), 0);
    int result = file_exists("/tmp/closed/absent");
    ASSERT_EQ(seteuid(0), 0);
    EXPECT_EQ(result, 0);
}

TEST_F(utils, any_reason_but_a_missing_file_counts_as_existing)
{
    write_file("/tmp/a-file", "");
    EXPECT_EQ(file_exists("/tmp/a-file/below"), 0) << "not a folder";
    EXPECT_EQ(file_exists(("/tmp/" + std::string(300, 'n')).c_str()), 0) << "name too long";
}

/* ---- hostname_to_ip ---- */

class host_names : public utils {
protected:
    static void SetUpTestSuite()
    {
        write_file("/etc/nsswitch.conf", "hosts: files\n");
        write_file("/etc/hosts", "127.0.0.1 localhost\n"
                                 "192.0.2.7 four.example alias.example\n"
                                 "2001:db8::6 six.example\n"
                                 "2001:db8::4 both.example\n"
                                 "192.0.2.4 both.example\n");
    }
};

TEST_F(host_names, an_ipv4_address_is_found_with_its_canonical_name)
{
    char address[ADDRESS_TEXT_SIZE] = "";
    EXPECT_EQ(hostname_to_ip("alias.example", address), 0);
    EXPECT_STREQ(address, "192.0.2.7");
    EXPECT_TRUE(was_logged("IPv4 address: 192.0.2.7 (four.example)\n") ||
                was_logged("IPv4 address: 192.0.2.7 (alias.example)\n"))
        << file_text("/var/log/device-agent.log");
}

TEST_F(host_names, a_dotted_text_is_itself)
{
    char address[ADDRESS_TEXT_SIZE] = "";
    EXPECT_EQ(hostname_to_ip("198.51.100.23", address), 0);
    EXPECT_STREQ(address, "198.51.100.23");
}

TEST_F(host_names, the_ipv4_address_is_taken_where_there_are_both)
{
    char address[ADDRESS_TEXT_SIZE] = "";
    EXPECT_EQ(hostname_to_ip("both.example", address), 0);
    EXPECT_STREQ(address, "192.0.2.4");
}

TEST_F(host_names, an_ipv6_only_host_is_not_usable)
{
    char address[ADDRESS_TEXT_SIZE] = "";
    EXPECT_EQ(hostname_to_ip("six.example", address), -1);
    EXPECT_TRUE(was_logged("No IPv4 address resolved"));
    EXPECT_TRUE(was_logged("Not able to resolve six.example"));
}

TEST_F(host_names, an_unknown_host_fails_with_the_resolvers_code)
{
    char address[ADDRESS_TEXT_SIZE] = "";
    EXPECT_EQ(hostname_to_ip("nobody.example", address), -1);
    EXPECT_TRUE(was_logged("getaddrinfo failed with error_code=" + std::to_string(EAI_NONAME)))
        << file_text("/var/log/device-agent.log");
    EXPECT_TRUE(was_logged("Not able to resolve nobody.example"));
}

/* ---- random_number ---- */

TEST_F(utils, a_delay_of_15_and_up_to_15_more_lies_in_15_to_29)
{
    std::set<uint32_t> seen;
    for (int i = 0; i < 2000; i++)
        seen.insert(random_number(15) + 15);
    EXPECT_EQ(*seen.begin(), 15u);
    EXPECT_EQ(*seen.rbegin(), 29u);
    EXPECT_EQ(seen.size(), 15u) << "2000 draws see every one of 15 values";
}

TEST_F(utils, random_numbers_are_the_remainder_of_32_bits)
{
    random_source = FIXED;
    fixed_number = 0xFFFFFFFF;
    EXPECT_EQ(random_number(10), 5u); /* 4294967295 */
    fixed_number = 40;
    EXPECT_EQ(random_number(20), 0u);
    EXPECT_EQ(random_number(1), 0u);
    EXPECT_EQ(random_number(0x7fffffff), 40u);
}

TEST_F(utils, a_failing_random_source_gives_1)
{
    random_source = FAIL;
    EXPECT_EQ(random_number(20), 1u);
    EXPECT_TRUE(was_logged("Rand_bytes failed, error code : 0 ")) << file_text("/var/log/device-agent.log");
}

TEST_F(utils, zero_is_the_only_number_below_nothing) { EXPECT_EQ(random_number(0), 0u); }

/* ---- read_file ---- */

static std::string read_back(const std::string &content, size_t n)
{
    write_file("/tmp/value", content);
    std::string buffer(n + 1, '?');
    EXPECT_EQ(read_value_file("/tmp/value", buffer.data(), n), 0);
    return buffer.c_str();
}

TEST_F(utils, a_pipe_in_the_place_of_a_value_does_not_stop_the_agent)
{
    char buffer[16] = "before";
    unlink("/tmp/pipe");
    ASSERT_EQ(mkfifo("/tmp/pipe", 0666), 0);
    EXPECT_EQ(read_value_file("/tmp/pipe", buffer, 15), -1);
    EXPECT_STREQ(buffer, "");
}

TEST_F(utils, a_value_loses_one_newline)
{
    EXPECT_EQ(read_back("12\n", 15), "12");
    EXPECT_EQ(read_back("12\n\n", 15), "12\n");
    EXPECT_EQ(read_back("12", 15), "12");
    EXPECT_EQ(read_back("\n", 15), "");
    EXPECT_EQ(read_back("", 15), "");
}

TEST_F(utils, a_value_is_cut_to_n_bytes)
{
    EXPECT_EQ(read_back("abcdef", 6), "abcdef");
    EXPECT_EQ(read_back("abcdef", 3), "abc");
    EXPECT_EQ(read_back("abc\ndef", 4), "abc") << "a newline that happens to be the last byte read goes too";
}

TEST_F(utils, a_missing_value_file_gives_an_empty_text)
{
    char buffer[4] = "old";
    EXPECT_EQ(read_value_file("/tmp/absent", buffer, 3), -1);
    EXPECT_STREQ(buffer, "");
}
