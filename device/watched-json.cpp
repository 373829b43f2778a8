#include "device/watched-json.h"

#include <fcntl.h>
#include <unistd.h>

#include "device/tavosutils.h"

enum { SEVERITY_ERROR = 3 };

/* The mark is taken from the descriptor that is read: a replacement in between is seen at the next call. */
static void read_again(watched_json *file)
{
    json_decref(file->content);
    file->content = nullptr;
    file->mark = {};
    int fd = open(file->path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    file->mark = file_mark_of(fd);
    json_error_t error;
    file->content = json_loadfd(fd, 0, &error);
    file->times_read++;
    close(fd);
    if (!file->content)
        clog_print(SEVERITY_ERROR, "%s:%d: %s", file->path, error.line, error.text);
}

const json_t *watched_json_get(watched_json *file)
{
    if (!same_mark(file->mark, file_mark_of(file->path)))
        read_again(file);
    return file->content;
}
