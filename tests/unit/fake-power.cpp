#include "tests/unit/fake-power.h"

#include <set>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

int calls_until_power_cut = -1;
std::vector<std::string> renamed_unsynced;
static std::set<ino_t> synced;

bool power_goes_now(void) { return calls_until_power_cut >= 0 && calls_until_power_cut-- == 0; }

void cut_power(void)
{
    kill(getpid(), SIGKILL);
    for (;;)
        pause();
}

extern "C" {

ssize_t __real_write(int fd, const void *bytes, size_t count);
int __real_fsync(int fd);
int __real_rename(const char *from, const char *to);
int __real_unlink(const char *path);
ssize_t __wrap_write(int fd, const void *bytes, size_t count);
int __wrap_fsync(int fd);
int __wrap_rename(const char *from, const char *to);
int __wrap_unlink(const char *path);

ssize_t __wrap_write(int fd, const void *bytes, size_t count)
{
    struct stat status;
    if (fstat(fd, &status) == 0)
        synced.erase(status.st_ino);
    if (power_goes_now()) {
        (void)!__real_write(fd, bytes, count / 2);
        cut_power();
    }
    return __real_write(fd, bytes, count);
}

int __wrap_fsync(int fd)
{
    if (power_goes_now())
        cut_power();
    struct stat status;
    if (fstat(fd, &status) == 0)
        synced.insert(status.st_ino);
    return __real_fsync(fd);
}

int __wrap_rename(const char *from, const char *to)
{
    struct stat status;
    if (stat(from, &status) == 0 && synced.count(status.st_ino) == 0)
        renamed_unsynced.push_back(to);
    if (power_goes_now())
        cut_power();
    return __real_rename(from, to);
}

int __wrap_unlink(const char *path)
{
    if (power_goes_now())
        cut_power();
    return __real_unlink(path);
}
}
