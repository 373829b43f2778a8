#include "device/tavosmac2name.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "device/file-mark.h"

/*
 * The lists have some 47,000 blocks in 9 MB. What is kept in memory of each is where its name stands: 16
 * bytes. The lists are read at the first call and again when one of them has changed.
 *
 * A block takes two lines, with tabs or blanks between the columns; the second gives the range within the
 * first one's 24 bits, or repeats them for a whole block:
 *
 *     70-B3-D5   (hex)            Example Works
 *     F2F000-F2FFFF     (base 16)            Example Works
 */

struct registry_list {
    const char *path;
    file_mark mark;
};

static registry_list lists[] = {
    {REGISTRY_FOLDER "oui.txt", {}},
    {REGISTRY_FOLDER "mam.txt", {}},
    {REGISTRY_FOLDER "oui36.txt", {}},
    {REGISTRY_FOLDER "iab.txt", {}},
};

enum { LIST_COUNT = sizeof(lists) / sizeof(lists[0]) };

struct registry_block {
    uint64_t first : 48; /* the block's first address */
    uint64_t bits : 8;   /* how many leading bits name it */
    uint64_t list : 8;
    uint32_t name_at; /* offset of the line that ends with the name */
};

static std::vector<registry_block> blocks; /* sorted by before() */

static bool before(const registry_block &a, const registry_block &b)
{
    return a.first != b.first ? a.first < b.first : a.bits < b.bits;
}

/* The name in a line: what follows `column` and blanks. Null when the column is not there. */
static char *name_after(char *line, const char *column)
{
    char *at = strstr(line, column);
    if (!at)
        return nullptr;
    at += strlen(column);
    at += strspn(at, " \t");
    for (char *end = at + strlen(at); end > at && isspace(static_cast<unsigned char>(end[-1])); end--)
        end[-1] = '\0';
    return at;
}

/* "70-B3-D5   (hex)": the 24 bits as the upper half of an address. */
static bool parse_hex_line(const char *line, uint64_t *prefix)
{
    unsigned int bytes[3];
    if (!strstr(line, "(hex)") || sscanf(line, "%2x-%2x-%2x", &bytes[0], &bytes[1], &bytes[2]) != 3)
        return false;
    *prefix = (uint64_t{bytes[0]} << 16 | bytes[1] << 8 | bytes[2]) << 24;
    return true;
}

/* "F2F000-F2FFFF     (base 16)": how many bits below the prefix name the block, and which. */
static bool parse_range_line(const char *line, uint64_t prefix, registry_block *block)
{
    unsigned int first, last;
    if (!strstr(line, "(base 16)"))
        return false;
    if (sscanf(line, "%6x-%6x", &first, &last) != 2) { /* a whole block repeats its prefix */
        first = 0;
        last = 0xFFFFFF;
    }
    unsigned int size = last - first + 1;
    if (last < first || (size & (size - 1)) != 0 || (first & (size - 1)) != 0)
        return false;
    block->first = (prefix | first) & 0xFFFFFFFFFFFF;
    block->bits = (48 - static_cast<unsigned int>(__builtin_ctz(size))) & 0xFF;
    return true;
}

static void read_list(unsigned int number)
{
    lists[number].mark = {};
    FILE *file = fopen(lists[number].path, "re");
    if (!file)
        return;
    lists[number].mark = file_mark_of(fileno(file));
    char line[512];
    uint64_t prefix = 0;
    bool has_prefix = false;
    uint32_t offset = 0; /* of the line after this one */
    while (fgets(line, sizeof(line), file)) {
        uint32_t line_at = offset;
        offset += static_cast<uint32_t>(strlen(line));
        if (parse_hex_line(line, &prefix)) {
            has_prefix = true;
            continue;
        }
        registry_block block = {};
        block.list = number & 0xFF;
        block.name_at = line_at;
        if (has_prefix && parse_range_line(line, prefix, &block)) {
            blocks.push_back(block);
            has_prefix = false;
        }
    }
    fclose(file);
}

static void read_changed_lists(void)
{
    bool changed = false;
    for (const registry_list &list : lists)
        changed = changed || !same_mark(list.mark, file_mark_of(list.path));
    if (!changed)
        return;
    blocks.clear();
    for (unsigned int number = 0; number < LIST_COUNT; number++)
        read_list(number);
    /* Stable: of two lists that name the same block, the one read first wins. */
    std::stable_sort(blocks.begin(), blocks.end(), before);
    blocks.shrink_to_fit();
}

static const registry_block *find_block(uint64_t address, unsigned int bits)
{
    registry_block wanted = {};
    wanted.first = (address >> (48 - bits) << (48 - bits)) & 0xFFFFFFFFFFFF;
    wanted.bits = bits & 0xFF;
    auto found = std::lower_bound(blocks.begin(), blocks.end(), wanted, before);
    return found != blocks.end() && !before(wanted, *found) ? &*found : nullptr;
}

static const char *name_of(const registry_block &block)
{
    static char line[512];
    const char *name = nullptr;
    FILE *file = fopen(lists[block.list].path, "re");
    if (!file)
        return nullptr;
    if (fseek(file, static_cast<long>(block.name_at), SEEK_SET) == 0 && fgets(line, sizeof(line), file))
        name = name_after(line, "(base 16)");
    fclose(file);
    return name && name[0] ? name : nullptr;
}

const char *mac2name(const unsigned char *mac)
{
    /* The smallest block that holds the address names it. */
    static const unsigned int block_sizes[] = {36, 28, 24};
    read_changed_lists();
    uint64_t address = 0;
    for (int i = 0; i < 6; i++)
        address = address << 8 | mac[i];
    for (unsigned int bits : block_sizes)
        if (const registry_block *block = find_block(address, bits))
            if (const char *name = name_of(*block))
                return name;
    return "Unknown";
}
