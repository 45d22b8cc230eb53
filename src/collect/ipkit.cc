// The IP collectors' toolkit (see ipkit.h).
#include "ipkit.h"

#include "procfs.h"
#include "scan.h"

#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace
{

const uint32_t line_size = 1024;  // a line item: up to 1023 characters and the NUL
const uint32_t name_size = 64;    // a field name of a section header
const uint32_t section_room = 64; // fields expected per section

// An item_list freed when it goes out of scope.
struct scoped_items {
    item_list list{};
    ~scoped_items() { item_list_free(&list); }
};

const char *line_at(const item_list *lines, uint32_t i)
{
    return static_cast<const char *>(item_list_get(lines, i));
}

// Appends a pair named name with value to out.
void append_pair(item_list *out, const char *name, uint64_t value)
{
    stat_pair pair;
    memset(&pair, 0, sizeof pair);
    snprintf(pair.name, sizeof pair.name, "%s", name ? name : "");
    pair.value = value;
    item_list_append(out, &pair);
}

// Pairs up the names of the header text with the values of the value text.
int pair_section(const char *header, const char *values, item_list *out)
{
    scoped_items names, numbers;
    item_list_init(&names.list, name_size, section_room);
    item_list_init(&numbers.list, sizeof(uint64_t), section_room);
    char name[name_size];
    while (scan_ident(&header, name, sizeof name) == 0)
        item_list_append(&names.list, name);
    uint64_t number;
    while (scan_dec_u64(&values, &number) == 0)
        item_list_append(&numbers.list, &number);
    if (names.list.count != numbers.list.count || names.list.count == 0) return -1;
    for (uint32_t i = 0; i < names.list.count; i++) {
        uint64_t value;
        memcpy(&value, item_list_get(&numbers.list, i), sizeof value);
        append_pair(out, line_at(&names.list, i), value);
    }
    return 0;
}

} // namespace

void item_list_init(item_list *list, uint32_t item_size, uint32_t initial_items)
{
    memset(list, 0, sizeof *list);
    list->item_size = item_size;
    list->capacity = item_size * initial_items;
    list->storage = static_cast<unsigned char *>(calloc(list->capacity ? list->capacity : 1, 1));
}

void *item_list_append(item_list *list, const void *item)
{
    list->count++;
    if (static_cast<uint64_t>(list->count) * list->item_size > list->capacity) {
        uint32_t capacity = list->capacity ? list->capacity * 2 : list->item_size;
        auto *storage = static_cast<unsigned char *>(calloc(capacity, 1));
        if (storage && list->storage) memcpy(storage, list->storage, list->capacity);
        free(list->storage);
        list->storage = storage;
        if (!storage) return nullptr;
        list->capacity = capacity;
    }
    if (!list->storage) return nullptr;
    void *slot = list->storage + static_cast<size_t>(list->count - 1) * list->item_size;
    memcpy(slot, item, list->item_size);
    return slot;
}

void *item_list_get(const item_list *list, uint32_t position)
{
    if (position >= list->count || !list->storage) return nullptr;
    return list->storage + static_cast<size_t>(position) * list->item_size;
}

void item_list_clear(item_list *list)
{
    if (list->storage) memset(list->storage, 0, list->capacity);
    list->count = 0;
}

void item_list_free(item_list *list)
{
    free(list->storage);
    memset(list, 0, sizeof *list);
}

void read_lines_from(FILE *in, item_list *list)
{
    item_list_init(list, line_size, 256);
    char line[line_size];
    while (fgets(line, sizeof line, in))
        if (!is_blank(line)) {
            // The item is copied whole: pad the line so that nothing past its NUL is read.
            size_t used = strlen(line) + 1;
            memset(line + used, 0, sizeof line - used);
            item_list_append(list, line);
        }
}

int read_lines(const char *path, item_list *list)
{
    if (!path || !list) {
        perror("file = NULL || list = NULL");
        return -1;
    }
    file_ptr in(fopen(path, "r"));
    if (!in) {
        item_list_init(list, line_size, 256);
        return -1;
    }
    read_lines_from(in.get(), list);
    return 0;
}

namespace
{

int stat_pairs_of(const item_list *lines, item_list *out)
{
    if (lines->count == 0) return -1;
    for (uint32_t i = 0; i < lines->count; i++) {
        const char *cursor = line_at(lines, i);
        stat_pair pair;
        memset(&pair, 0, sizeof pair);
        if (scan_ident(&cursor, pair.name, sizeof pair.name) != 0) continue;
        if (scan_dec_u64(&cursor, &pair.value) != 0) continue;
        item_list_append(out, &pair);
    }
    return 0;
}

int stat_section_of(const item_list *lines, item_list *out, const char *section)
{
    if (lines->count < 2) return -1;
    if (!section) {
        if (lines->count != 2) return -1;
        return pair_section(line_at(lines, 0), line_at(lines, 1), out);
    }
    size_t skip = strlen(section);
    for (uint32_t h = 0; h < lines->count; h++) {
        const char *header = strstr(line_at(lines, h), section);
        if (!header) continue;
        for (uint32_t v = h + 1; v < lines->count; v++) {
            const char *values = strstr(line_at(lines, v), section);
            if (values) return pair_section(header + skip, values + skip, out);
        }
        return -1;
    }
    return -1;
}

} // namespace

int read_stat_pairs_from(FILE *in, item_list *out)
{
    scoped_items lines;
    read_lines_from(in, &lines.list);
    return stat_pairs_of(&lines.list, out);
}

int read_stat_pairs(const char *path, item_list *out)
{
    scoped_items lines;
    if (read_lines(path, &lines.list) != 0) return -1;
    return stat_pairs_of(&lines.list, out);
}

int read_stat_section_from(FILE *in, item_list *out, const char *section)
{
    scoped_items lines;
    read_lines_from(in, &lines.list);
    return stat_section_of(&lines.list, out, section);
}

int read_stat_section(const char *path, item_list *out, const char *section)
{
    scoped_items lines;
    if (read_lines(path, &lines.list) != 0) return -1;
    return stat_section_of(&lines.list, out, section);
}

int find_stat(const item_list *list, const char *name, uint64_t *value)
{
    for (uint32_t i = 0; i < list->count; i++) {
        const auto *pair = static_cast<const stat_pair *>(item_list_get(list, i));
        if (strcasecmp(pair->name, name) == 0) {
            *value = pair->value;
            return 0;
        }
    }
    *value = 0;
    return -1;
}

int mask_prefix(ip_addr_value *address, int prefix_len)
{
    if (!address) return -1;
    uint32_t length =
        address->length < sizeof address->bytes ? address->length : sizeof address->bytes;
    // A length from a corrupt source acts as its nearer bound, so that the arithmetic below
    // cannot overflow.
    int most = 8 * static_cast<int>(length);
    int bits = prefix_len < 0 ? 0 : prefix_len > most ? most : prefix_len;
    for (uint32_t i = 0; i < length; i++) {
        int rest = bits - 8 * static_cast<int>(i);
        if (rest < 1)
            address->bytes[i] = 0;
        else if (rest < 8)
            address->bytes[i] &= static_cast<uint8_t>(0xff << (8 - rest));
    }
    return 0;
}
