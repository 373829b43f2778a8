#include "transfer/image-file.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#define IMAGE_FOLDER "/tmp"
/* Where the file system knows no files without a name. */
#define NAMED_PART IMAGE_PATH ".new"

enum { ROOM_STEP = 1024 * 1024 }; /* bytes between two looks at the room left */

static int image_fd = -1;
static bool named;        /* it lies at NAMED_PART */
static int64_t size;      /* bytes written */
static int64_t next_look; /* the size at which the room left is looked at again */

/* Takes away what has this name: a file, a link (never what it points to), an empty folder. */
static int clear_place(const char *path)
{
    if (unlink(path) == 0 || errno == ENOENT)
        return 0;
    return errno == EISDIR || errno == EPERM ? rmdir(path) : -1;
}

int image_remove(void) { return clear_place(IMAGE_PATH); }

int image_begin(void)
{
    (void)clear_place(NAMED_PART); /* of a run that was killed */
    named = false;
    size = next_look = 0;
    image_fd = open(IMAGE_FOLDER, O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (image_fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == ENOENT)) {
        image_fd = open(NAMED_PART, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR);
        named = image_fd >= 0;
    }
    return image_fd < 0 ? -1 : 0;
}

bool image_has_room(int64_t bytes)
{
    struct statvfs medium;
    if (fstatvfs(image_fd, &medium) != 0 || medium.f_blocks == 0) /* a tmpfs without a limit has no blocks */
        return true;
    auto room = static_cast<int64_t>(medium.f_bavail) * static_cast<int64_t>(medium.f_frsize);
    return room - IMAGE_RESERVE >= bytes;
}

int image_append(const char *bytes, size_t count)
{
    if (size >= next_look) {
        if (!image_has_room(static_cast<int64_t>(count))) {
            errno = ENOSPC;
            return -1;
        }
        next_look = size + ROOM_STEP;
    }
    while (count > 0) {
        ssize_t written = pwrite(image_fd, bytes, count, size);
        if (written < 0 && errno != EINTR)
            return -1;
        if (written > 0) {
            bytes += written;
            count -= static_cast<size_t>(written);
            size += written;
        }
    }
    return 0;
}

int64_t image_size(void) { return size; }

int image_restart(void)
{
    size = next_look = 0;
    return ftruncate(image_fd, 0);
}

/* The name for a file without one. linkat replaces nothing, so whatever has come to the place goes first. */
static int give_name(void)
{
    enum { TRIES = 3 };
    char source[64];
    snprintf(source, sizeof(source), "/proc/self/fd/%d", image_fd);
    for (int tries = 0; tries < TRIES; tries++) {
        if (clear_place(IMAGE_PATH) != 0)
            return -1;
        if (linkat(AT_FDCWD, source, AT_FDCWD, IMAGE_PATH, AT_SYMLINK_FOLLOW) == 0)
            return 0;
        if (errno != EEXIST)
            return -1;
    }
    return -1;
}

/* A name is on the medium only when its folder is. */
static void sync_folder(void)
{
    int folder = open(IMAGE_FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder >= 0) {
        (void)fsync(folder);
        close(folder);
    }
}

int image_publish(void)
{
    if (fsync(image_fd) != 0)
        return -1;
    if ((named ? rename(NAMED_PART, IMAGE_PATH) : give_name()) != 0)
        return -1;
    named = false;
    sync_folder();
    close(image_fd);
    image_fd = -1;
    return 0;
}

void image_abandon(void)
{
    if (named)
        (void)unlink(NAMED_PART);
    named = false;
    if (image_fd >= 0)
        close(image_fd);
    image_fd = -1;
    size = 0;
}
