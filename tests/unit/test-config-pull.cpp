#include "operations/config-pull.h"

#include <cstring>
#include <filesystem>
#include <functional>

#include <sys/stat.h>

#include "tests/unit/config-test.h"
#include "tests/unit/fake-calloc.h"

/* ---- memory that runs out ---- */

static bool mallocs_fail;
static std::function<void()> before_malloc;

extern "C" void *__real_malloc(size_t size);
extern "C" void *__wrap_malloc(size_t size);

extern "C" void *__wrap_malloc(size_t size)
{
    if (before_malloc)
        before_malloc();
    return mallocs_fail ? nullptr : __real_malloc(size);
}

/* The JSON library has no more than this in one piece. */
static size_t json_piece_limit = SIZE_MAX;
static void *json_malloc(size_t size) { return size < json_piece_limit ? malloc(size) : nullptr; }

class config_pull : public config_test {
protected:
    void SetUp() override
    {
        config_test::SetUp();
        json_set_alloc_funcs(json_malloc, free);
    }
    void TearDown() override
    {
        json_piece_limit = SIZE_MAX;
        mallocs_fail = false;
        before_malloc = nullptr;
        callocs_left = -1;
        config_test::TearDown();
    }
};

/* "config" of the one answer that is queued. */
static std::string pulled(void)
{
    json_ptr answer(json_loads(take_one_told().c_str(), JSON_ALLOW_NUL, nullptr));
    const json_t *config = json_object_get(answer.get(), "config");
    return config ? std::string(json_string_value(config), json_string_length(config)) : "(no answer)";
}

static std::string pull(const std::string &stored)
{
    write_file(CONFIG_FILE, stored);
    EXPECT_EQ(platform_pull_and_send_config(error_string), 0);
    return pulled();
}

/* ---- the answer ---- */

TEST_F(config_pull, three_lines)
{
    write_file(CONFIG_FILE, "hostname ap\nradio 1\nradio 2\n");
    EXPECT_EQ(platform_pull_and_send_config(error_string), 0);
    std::string answer = "{\"msgType\": 407, \"config\": \"hostname ap\\\\nradio 1\\\\nradio 2\\\\n\"}";
    EXPECT_EQ(take_one_told(), answer);
    std::string function = "platform_pull_and_send_config: ";
    EXPECT_TRUE(was_logged(function + "Malloc successful (fsize=28 + escapes=3)"));
    EXPECT_TRUE(was_logged(function + "j_dump_string len " + std::to_string(answer.size())));
    EXPECT_TRUE(was_logged(function + "EXIT ret=0"));
}

struct pull_row {
    const char *name;
    std::string stored, pulled;
};

TEST_F(config_pull, files_of_every_kind)
{
    const std::string bytes510(510, 'x');
    const pull_row rows[] = {
        {"empty", "", ""},
        {"no newline at the end", "a\nb", "a\\nb"},
        {"one newline", "\n", "\\n"},
        {"empty lines", "\n\na\n\n", "\\n\\na\\n\\n"},
        {"quotes, backslashes, carriage returns, tabs", "a \"b\" \\n\r\n\tc\n", "a \"b\" \\n\r\\n\tc\\n"},
        {"percent signs", "100% %s %n\n", "100% %s %n\\n"},
        {"510 and a newline", bytes510 + "\n", bytes510 + "\\n"},
        {"511 and a newline", bytes510 + "y\n", bytes510 + "y\\n"},
        {"512 and a newline", bytes510 + "yz\nq", bytes510 + "yz\\nq"},
        {"a long line", std::string(100000, 'l') + "\nend", std::string(100000, 'l') + "\\nend"},
        {"a character across the read buffer's end", bytes510 + "\u00e4\u00e4\n",
         bytes510 + "\u00e4\u00e4\\n"},
        {"the same, of four bytes", bytes510 + "\U0001F600\n", bytes510 + "\U0001F600\\n"},
        {"Latin-1", "name B\xFCro\n", "name B\uFFFDro\\n"},
        {"a cut character at the end", "a\xC3", "a\uFFFD"},
        {"NUL bytes", std::string("a\0b\0\0\nc", 7), "a\uFFFDb\uFFFD\uFFFD\\nc"},
        {"a NUL where the read buffer ends", bytes510 + std::string("\0\0\n", 3),
         bytes510 + "\uFFFD\uFFFD\\n"},
        {"only NUL", std::string(3, '\0'), "\uFFFD\uFFFD\uFFFD"},
    };
    for (const pull_row &row : rows)
        EXPECT_EQ(pull(row.stored), row.pulled) << row.name;
}

TEST_F(config_pull, a_million_short_lines)
{
    std::string stored, expected;
    for (int i = 0; i < 1000000; i++) {
        stored += "a\n";
        expected += "a\\n";
    }
    write_file(CONFIG_FILE, stored);
    EXPECT_EQ(platform_pull_and_send_config(error_string), 0);
    EXPECT_TRUE(was_logged("platform_pull_and_send_config: Malloc successful (fsize=2000000 + "
                           "escapes=1000000)"));
    EXPECT_EQ(pulled(), expected);
}

TEST_F(config_pull, only_newlines)
{
    std::string expected;
    for (int i = 0; i < 5000; i++)
        expected += "\\n";
    EXPECT_EQ(pull(std::string(5000, '\n')), expected);
}

/* ---- what can fail ---- */

TEST_F(config_pull, without_a_configuration)
{
    std::filesystem::remove(CONFIG_FILE);
    EXPECT_EQ(platform_pull_and_send_config(error_string), -1);
    EXPECT_TRUE(was_logged("Failed to open file for reading"));
    clear_log();
    char buffer[8] = "";
    EXPECT_EQ(escape_config(buffer, sizeof(buffer)), -1);
    EXPECT_TRUE(was_logged("Failed to open file for reading"));
    ASSERT_EQ(mkfifo(CONFIG_FILE, 0600), 0);
    EXPECT_EQ(platform_pull_and_send_config(error_string), -1) << "a pipe without a writer";
    std::filesystem::remove(CONFIG_FILE);
    std::filesystem::create_directories(CONFIG_FILE);
    EXPECT_EQ(platform_pull_and_send_config(error_string), -1);
    EXPECT_EQ(take_told(), texts{});
}

TEST_F(config_pull, without_memory_for_the_text)
{
    callocs_left = 0;
    EXPECT_EQ(platform_pull_and_send_config(error_string), 7);
    callocs_left = -1;
    EXPECT_STREQ(error_string, "Malloc failed");
    EXPECT_TRUE(was_logged("platform_pull_and_send_config: Malloc failed"));
    EXPECT_EQ(take_told(), texts{});
}

TEST_F(config_pull, without_memory_for_a_line)
{
    mallocs_fail = true;
    int status = platform_pull_and_send_config(error_string);
    mallocs_fail = false;
    EXPECT_EQ(status, 7);
    EXPECT_STREQ(error_string, "Config processing failed");
    EXPECT_TRUE(was_logged("escape_chunk: Malloc failed"));
    EXPECT_TRUE(was_logged("Config processing failed"));
    EXPECT_EQ(take_told(), texts{});
}

TEST_F(config_pull, without_memory_for_the_message)
{
    write_file(CONFIG_FILE, std::string(100000, 'x'));
    for (size_t limit : {100000u, 100005u, 150000u}) { /* the text, the message, the serialiser's buffer */
        clear_log();
        error_string[0] = '\0';
        json_piece_limit = limit;
        EXPECT_EQ(platform_pull_and_send_config(error_string), 7) << limit;
        EXPECT_STREQ(error_string, "json dump failed") << limit;
        EXPECT_TRUE(was_logged("json dump failed")) << limit;
        EXPECT_EQ(take_told(), texts{}) << limit;
    }
}

TEST_F(config_pull, a_file_that_grows_meanwhile)
{
    write_file(CONFIG_FILE, std::string(20000, 'x'));
    before_malloc = [] {
        before_malloc = nullptr;
        write_file(CONFIG_FILE, std::string(30000, 'y'));
    };
    EXPECT_EQ(platform_pull_and_send_config(error_string), 7);
    EXPECT_STREQ(error_string, "Config processing failed");
    EXPECT_EQ(take_told(), texts{});
}

TEST_F(config_pull, a_file_beyond_the_limit)
{
    write_file(CONFIG_FILE, "");
    std::filesystem::resize_file(CONFIG_FILE, uintmax_t{PULL_CONFIG_LIMIT} + 1);
    EXPECT_EQ(platform_pull_and_send_config(error_string), 7);
    EXPECT_STREQ(error_string, "Malloc failed");
    EXPECT_EQ(take_told(), texts{});
}

TEST_F(config_pull, without_a_connection)
{
    da.state = DA_STATE_IDLE;
    EXPECT_EQ(platform_pull_and_send_config(error_string), -1);
    EXPECT_TRUE(was_logged("platform_pull_and_send_config: EXIT ret=-1"));
    da.state = DA_STATE_CONNECTED;
}

/* ---- the pieces ---- */

TEST_F(config_pull, a_chunk_ends_at_its_line_feed)
{
    EXPECT_STREQ(escape_chunk("").get(), "");
    EXPECT_STREQ(escape_chunk("\n").get(), "\\n");
    EXPECT_STREQ(escape_chunk("ab").get(), "ab");
    EXPECT_STREQ(escape_chunk("a\\\"\r\nafter").get(), "a\\\"\r\\n");
}

TEST_F(config_pull, the_buffer_is_not_overrun)
{
    write_file(CONFIG_FILE, "ab\ncd\n");
    for (size_t size = 0; size <= 9; size++) {
        std::vector<char> buffer(size + 1, '#');
        EXPECT_EQ(escape_config(buffer.data(), size), size == 9 ? 0 : -1) << size;
        EXPECT_EQ(buffer[size], '#') << size;
        if (size == 9) {
            EXPECT_STREQ(buffer.data(), "ab\\ncd\\n");
        }
    }
}
