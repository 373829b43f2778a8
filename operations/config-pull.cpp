#include "operations/config-pull.h"

#include <cstring>
#include <new>
#include <string>

#include "agent/debug-log.h"
#include "agent/text.h"
#include "agent/utils.h"
#include "operations/config-files.h"
#include "protocol/error-codes.h"
#include "protocol/message.h"

#define MODULE "wifi.c"

enum {
    LINE_SIZE = 512,     /* a read buffer: 511 characters and NUL */
    CHUNK_MARGIN = 5,    /* what a chunk gets beyond its length: a line feed becomes two characters */
    NEVER_IN_UTF8 = 0xFF /* stands for a NUL, which would end the text */
};

static const char function[] = "platform_pull_and_send_config";

/* Null, with a log line, when there is none. */
static file_ptr open_config(void)
{
    file_ptr file = open_plain_file(CONFIG_FILE);
    if (!file)
        LOG(LOG_FAILURE, "Failed to open file for reading");
    return file;
}

/* ---- escaping ---- */

malloc_text escape_chunk(const char *line)
{
    malloc_text chunk(static_cast<char *>(malloc(strlen(line) + CHUNK_MARGIN)));
    if (!chunk) {
        LOG(LOG_FAILURE, "%s: Malloc failed", "escape_chunk");
        return chunk;
    }
    char *end = chunk.get();
    for (; *line && *line != '\n'; line++)
        *end++ = *line;
    if (*line == '\n') {
        *end++ = '\\';
        *end++ = 'n';
    }
    *end = '\0';
    return chunk;
}

/* fgets(3) that gets along with NUL bytes. False at the end of the file. */
static bool read_line(FILE *file, char (&line)[LINE_SIZE])
{
    size_t length = 0;
    int c = 0;
    while (length < LINE_SIZE - 1 && c != '\n' && (c = getc_unlocked(file)) != EOF)
        line[length++] = static_cast<char>(c ? c : NEVER_IN_UTF8);
    line[length] = '\0';
    return length > 0;
}

int escape_config(char *out_buffer, size_t size)
{
    file_ptr file = open_config();
    if (!file)
        return -1;
    char line[LINE_SIZE];
    size_t used = 0;
    while (read_line(file.get(), line)) {
        malloc_text chunk = escape_chunk(line);
        size_t length = chunk ? strlen(chunk.get()) : size;
        if (length >= size - used)
            return -1;
        memcpy(out_buffer + used, chunk.get(), length + 1);
        used += length;
    }
    return ferror(file.get()) ? -1 : 0;
}

/* ---- the answer ---- */

struct config_size {
    size_t bytes, line_feeds;
};

/* False when there is no configuration. Reading stops beyond the limit. */
static bool measure_config(config_size *size)
{
    file_ptr file = open_config();
    if (!file)
        return false;
    *size = {0, 0};
    for (int c; size->bytes <= PULL_CONFIG_LIMIT && (c = getc_unlocked(file.get())) != EOF; size->bytes++)
        size->line_feeds += c == '\n' ? 1 : 0;
    return true;
}

static int fail(char *message_buffer, const char *text)
{
    LOG(LOG_FAILURE, "%s", text);
    set_error_text(message_buffer, "%s", text);
    return INTERNAL_ERROR;
}

/* The escaped configuration, or null with the message set. */
static malloc_text escaped_config(const config_size &size, char *message_buffer)
{
    malloc_text buffer;
    if (size.bytes <= PULL_CONFIG_LIMIT)
        buffer.reset(static_cast<char *>(calloc(1, size.bytes + size.line_feeds + 1)));
    if (!buffer) {
        LOG(LOG_FAILURE, "%s: Malloc failed", function);
        set_error_text(message_buffer, "Malloc failed");
        return buffer;
    }
    LOG(LOG_TRACE, "%s: Malloc successful (fsize=%d + escapes=%d)", function, static_cast<int>(size.bytes),
        static_cast<int>(size.line_feeds));
    if (escape_config(buffer.get(), size.bytes + size.line_feeds + 1) != 0) {
        (void)fail(message_buffer, "Config processing failed");
        buffer.reset();
    }
    return buffer;
}

/* A text of any bytes as JSON. Null when memory is short. */
static json_t *json_text(const char *text)
{
    json_t *value = json_string(text);
    if (value)
        return value;
    try {
        return json_string(valid_utf8(text, strlen(text)).c_str());
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

/* Each form of the text is freed when the next one is made: a large configuration exists three times at most.
 */
static malloc_text config_message(malloc_text escaped)
{
    json_ptr message = new_message(MSG_CONFIG_PULL_RSP);
    int added = json_object_set_new(message.get(), "config", json_text(escaped.get()));
    escaped.reset();
    return malloc_text(added == 0 ? json_dumps(message.get(), JSON_PRESERVE_ORDER) : nullptr);
}

int platform_pull_and_send_config(char *message_buffer)
{
    config_size size;
    if (!measure_config(&size))
        return -1;
    malloc_text escaped = escaped_config(size, message_buffer);
    if (!escaped)
        return INTERNAL_ERROR;
    malloc_text text = config_message(std::move(escaped));
    if (!text)
        return fail(message_buffer, "json dump failed");
    LOG(LOG_TRACE, "%s: j_dump_string len %d", function, static_cast<int>(strlen(text.get())));
    int result = queue_text(text);
    LOG(LOG_TRACE, "%s: EXIT ret=%d", function, result);
    return result;
}
