/*
 * State files are replaced whole: written beside their place, flushed to the medium and renamed over it, so
 * that a power cut or a kill leaves the old text or the new one, never half of it.
 */
#pragma once

#include <string_view>

#include <sys/types.h>

/*
 * Replaces the file's content. Returns 0, or -1 with errno set and the old file untouched. Never writes
 * through a symbolic link. `mode` is for the new file, less the umask.
 */
int replace_file(const char *path, std::string_view text, mode_t mode = 0644);

/*
 * The second half of it, for a file that somebody else wrote beside the place: flushes it to the medium and
 * renames it to `path`. Returns 0, or -1 with errno set and the old file untouched; the new one then stays
 * where it is. What is no plain file is refused.
 */
int adopt_file(const char *beside, const char *path);
