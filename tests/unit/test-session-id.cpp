#include "protocol/session-id.h"

#include <cerrno>
#include <filesystem>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agent/da.h"
#include "tests/unit/support.h"

/* The C library's own, replaced: a file system that has become read-only. */
static bool read_only;

extern "C" int rename(const char *from, const char *to) noexcept
{
    if (read_only) {
        errno = EROFS;
        return -1;
    }
    return static_cast<int>(syscall(SYS_rename, from, to));
}

class session_id_test : public testing::Test {
protected:
    void SetUp() override
    {
        std::filesystem::remove_all(SESSION_ID_FILE);
        fresh_agent();
    }
    void TearDown() override { SetUp(); }
};

TEST_F(session_id_test, one_is_drawn_and_kept)
{
    int32_t id = get_session_id();
    EXPECT_GE(id, 0);
    EXPECT_TRUE(was_logged("SessionID unavailable, regenerating"));
    EXPECT_EQ(file_text(SESSION_ID_FILE), std::to_string(id));
    clear_log();
    EXPECT_EQ(get_session_id(), id);
    EXPECT_EQ(logged().size(), 0u);
}

TEST_F(session_id_test, a_new_one_is_drawn_after_the_file_was_deleted)
{
    std::set<int32_t> ids;
    for (int i = 0; i < 5; i++) {
        ids.insert(get_session_id());
        unlink(SESSION_ID_FILE);
    }
    EXPECT_GT(ids.size(), 1u);
}

struct stored_row {
    const char *text;
    int32_t id;
};

TEST_F(session_id_test, the_stored_one_is_read_afresh)
{
    static const stored_row rows[] = {
        {"12345", 12345},
        {"12345\n", 12345},
        {"2147483646", 2147483646},
        {"", 0},
        {"no number", 0},
        {"0000000000000012345", 1}, /* fifteen bytes are read */
        {"999999999999999", INT32_MAX},
    };
    for (const stored_row &row : rows) {
        write_file(SESSION_ID_FILE, row.text);
        EXPECT_EQ(get_session_id(), row.id) << row.text;
    }
}

TEST_F(session_id_test, a_file_that_cannot_be_opened)
{
    ASSERT_EQ(symlink(SESSION_ID_FILE, SESSION_ID_FILE), 0); /* a loop: it is there, and cannot be opened */
    EXPECT_EQ(get_session_id(), -1);
    EXPECT_TRUE(was_logged("Failed to open file /tmp/session_id"));
}

TEST_F(session_id_test, a_file_that_cannot_be_made)
{
    read_only = true;
    int32_t id = get_session_id();
    read_only = false;
    EXPECT_EQ(id, -1);
    EXPECT_TRUE(was_logged("Failed to open file /tmp/session_id for writing"));
    EXPECT_FALSE(path_exists(SESSION_ID_FILE));
}

TEST_F(session_id_test, a_link_is_replaced_and_not_followed)
{
    write_file("/tmp/session-target", "untouched");
    unlink("/tmp/session-target");
    ASSERT_EQ(symlink("/tmp/session-target", SESSION_ID_FILE), 0);
    int32_t id = get_session_id();
    EXPECT_GE(id, 0);
    EXPECT_FALSE(path_exists("/tmp/session-target"));
    EXPECT_EQ(file_text(SESSION_ID_FILE), std::to_string(id));
}
