#include "agent/local-socket.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/local-sender.h"
#include "tests/unit/support.h"

#define PLACE "/var/tmp/agent-test-socket"

enum { STRANGER = 4321, TOOLS_GROUP = 987 };

class local_socket : public testing::Test {
protected:
    void SetUp() override
    {
        groups = file_text("/etc/group");
        free_place(PLACE);
    }
    void TearDown() override
    {
        write_file("/etc/group", groups);
        free_place(PLACE);
        umask(022);
    }

    /* Writes the group file, with the group or without it. */
    void with_group(bool there) const
    {
        write_file("/etc/group", "root:x:0:\n" + std::string(there ? "device-agent:x:987:\n" : ""));
    }

    static int fresh_socket(void) { return socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

    static struct stat status_of(const char *path)
    {
        struct stat status = {};
        EXPECT_EQ(lstat(path, &status), 0);
        return status;
    }

    std::string groups;
};

TEST_F(local_socket, is_for_root_and_the_group)
{
    with_group(true);
    fd_guard end(fresh_socket());
    ASSERT_EQ(bind_local_socket(end.fd, PLACE), 0);
    struct stat status = status_of(PLACE);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0660u);
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_gid, gid_t{TOOLS_GROUP});
    EXPECT_EQ(send_datagram_to(PLACE, "root"), 0);
    EXPECT_EQ(send_datagram_as(STRANGER, TOOLS_GROUP, PLACE, "a tool"), 0);
    EXPECT_EQ(send_datagram_as(STRANGER, STRANGER, PLACE, "a stranger"), EACCES);
}

TEST_F(local_socket, is_for_root_alone_without_the_group)
{
    with_group(false);
    umask(0);
    fd_guard end(fresh_socket());
    ASSERT_EQ(bind_local_socket(end.fd, PLACE), 0);
    EXPECT_EQ(status_of(PLACE).st_mode, S_IFSOCK | 0660u) << "whatever the umask is";
    EXPECT_EQ(umask(022), 0u) << "and that stays as it was";
    EXPECT_EQ(status_of(PLACE).st_gid, 0u);
    EXPECT_EQ(send_datagram_as(STRANGER, TOOLS_GROUP, PLACE, "a stranger"), EACCES);
}

TEST_F(local_socket, replaces_what_an_earlier_run_left)
{
    fd_guard first(fresh_socket());
    ASSERT_EQ(bind_local_socket(first.fd, PLACE), 0);
    fd_guard second(fresh_socket());
    ASSERT_EQ(bind_local_socket(second.fd, PLACE), 0);
    ASSERT_EQ(send_datagram_to(PLACE, "for the second"), 0);
    char text[32] = "";
    EXPECT_EQ(recv(first.fd, text, sizeof(text), 0), -1);
    EXPECT_EQ(recv(second.fd, text, sizeof(text), 0), 14);
}

TEST_F(local_socket, a_link_in_its_place_is_not_followed)
{
    write_file("/var/tmp/agent-test-target", "precious");
    std::filesystem::create_symlink("/var/tmp/agent-test-target", PLACE);
    fd_guard end(fresh_socket());
    ASSERT_EQ(bind_local_socket(end.fd, PLACE), 0);
    EXPECT_EQ(file_text("/var/tmp/agent-test-target"), "precious");
    EXPECT_TRUE(S_ISSOCK(status_of(PLACE).st_mode));
}

TEST_F(local_socket, a_folder_in_its_place_stands_aside)
{
    std::filesystem::create_directories(PLACE);
    fd_guard first(fresh_socket());
    EXPECT_EQ(bind_local_socket(first.fd, PLACE), 0) << "an empty one just goes";
    EXPECT_FALSE(path_exists(PLACE ".aside"));
    std::filesystem::remove(PLACE);
    write_file(PLACE "/file", "precious");
    fd_guard second(fresh_socket());
    EXPECT_EQ(bind_local_socket(second.fd, PLACE), 0);
    EXPECT_EQ(file_text(PLACE ".aside/file"), "precious");
    EXPECT_TRUE(was_logged("A folder at " PLACE " has been moved to " PLACE ".aside"));
}

TEST_F(local_socket, fails_where_it_cannot_be)
{
    block_place(PLACE);
    fd_guard end(fresh_socket());
    EXPECT_EQ(bind_local_socket(end.fd, PLACE), -1);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(bind_local_socket(end.fd, ("/var/tmp/" + std::string(100, 'p')).c_str()), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(bind_local_socket(-1, PLACE "-2"), -1);
    EXPECT_EQ(errno, EBADF);
}
