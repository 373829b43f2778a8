/*
 * The image at "/tmp/firmware". It comes into being under no name at all (O_TMPFILE) and gets its name when
 * it is complete and on the medium: whatever ends the program before, the kernel takes the bytes back.
 */
#pragma once

#include <cstddef>
#include <cstdint>

#define IMAGE_PATH "/tmp/firmware"

/* Left free beside an image, for the state files of others. */
enum { IMAGE_RESERVE = 1024 * 1024 };

/* Removes an old image. Returns 0, or -1 with errno when something else is in its place. */
int image_remove(void);

/* Begins an empty one. Returns 0, or -1 with errno. Once per process. */
int image_begin(void);

/* Whether so many further bytes find room beside the reserve. */
bool image_has_room(int64_t bytes);

/* Appends. Returns 0, or -1 with errno: ENOSPC also when only the reserve is left. */
int image_append(const char *bytes, size_t count);

/* How many bytes are there. */
int64_t image_size(void);

/* Drops all bytes. Returns 0, or -1 with errno. */
int image_restart(void);

/* Complete: flushes it to the medium and gives it its name, from one moment to the next. Returns 0, or -1
 * with errno; it has no name then. */
int image_publish(void);

/* Forgets one that is not complete. */
void image_abandon(void);
