// Growable record list with a sorted order index (see statslist.h).
#include "statslist.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

[[noreturn]] void out_of_memory()
{
    fputs("insufficient memory\n", stderr);
    exit(1);
}

unsigned char *record_of(const stats_list *list, uint32_t record_number)
{
    return list->storage + static_cast<size_t>(list->elem_size) * record_number;
}

// Makes room for the record at the cursor: the capacity starts at 4 and
// doubles until it exceeds the cursor; the new part of the storage is zeroed
// so that records appended into it start clean.
void stats_list_grow(stats_list *list)
{
    if (list->cursor < list->capacity) return;
    int64_t capacity = list->capacity ? list->capacity : 4;
    while (capacity <= list->cursor)
        capacity *= 2;
    if (capacity > INT32_MAX || static_cast<uint64_t>(capacity) > SIZE_MAX / sizeof(uint32_t) ||
        (list->elem_size && static_cast<uint64_t>(capacity) > SIZE_MAX / list->elem_size))
        out_of_memory();

    size_t old_bytes = static_cast<size_t>(list->capacity) * list->elem_size;
    size_t new_bytes = static_cast<size_t>(capacity) * list->elem_size;
    void *storage = realloc(list->storage, new_bytes ? new_bytes : 1);
    if (!storage) out_of_memory();
    list->storage = static_cast<unsigned char *>(storage);
    void *order = realloc(list->order, static_cast<size_t>(capacity) * sizeof(uint32_t));
    if (!order) out_of_memory();
    list->order = static_cast<uint32_t *>(order);
    memset(list->storage + old_bytes, 0, new_bytes - old_bytes);
    list->capacity = static_cast<int32_t>(capacity);
}

} // namespace

void *stats_list_at(stats_list *list, int32_t position)
{
    if (position < 0) return nullptr;
    list->cursor = position;
    stats_list_grow(list);
    if (position >= list->count) {
        for (int32_t i = list->count; i <= position; i++)
            list->order[i] = static_cast<uint32_t>(i);
        list->count = position + 1;
    }
    return record_of(list, list->order[position]);
}

void *stats_list_record(const stats_list *list, int32_t position)
{
    if (position < 0 || position >= list->count) return nullptr;
    return record_of(list, list->order[position]);
}

void stats_list_sort(stats_list *list)
{
    if (list->count < 2) return;
    // Equal records are ordered by record number, i.e. by when they were
    // appended, so that a refresh of unchanged input gives unchanged positions.
    std::sort(list->order, list->order + list->count, [list](uint32_t a, uint32_t b) {
        int c = list->compare(record_of(list, a), record_of(list, b));
        return c != 0 ? c < 0 : a < b;
    });
}

void stats_list_uniq(stats_list *list)
{
    int32_t keep = 0;
    int32_t duplicates = 0;
    for (int32_t i = 1; i < list->count; i++) {
        if (list->compare(record_of(list, list->order[i]), record_of(list, list->order[keep])) ==
            0) {
            duplicates++;
        } else if (duplicates > 0) {
            keep++;
            list->order[keep] = list->order[i];
        }
        // Unequal with no duplicate seen yet: keep stays at 0 (kept behaviour).
    }
    list->count -= duplicates;
}

int32_t stats_list_find(const stats_list *list, const void *key, stats_compare_fn cmp)
{
    if (!cmp) cmp = list->compare;
    int32_t low = 0;
    int32_t high = list->count; // first position not below key is in [low, high]
    while (low < high) {
        int32_t mid = low + (high - low) / 2;
        if (cmp(key, record_of(list, list->order[mid])) > 0)
            low = mid + 1;
        else
            high = mid;
    }
    if (low < list->count && cmp(key, record_of(list, list->order[low])) == 0) return low;
    return -1;
}

void stats_list_free(stats_list *list)
{
    free(list->storage);
    free(list->order);
    list->storage = nullptr;
    list->order = nullptr;
    list->count = list->capacity = list->cursor = 0;
}

bool stats_key_addr(unsigned char *key, uint32_t length, const uint8_t *addr)
{
    if (length > stats_addr_size) return false;
    stats_key_u32(key, length);
    memcpy(key + 4, addr, length);
    memset(key + 4 + length, 0, stats_addr_size - length);
    return true;
}

int stats_addr_compare(uint32_t len1, const uint8_t *addr1, uint32_t len2, const uint8_t *addr2)
{
    if (len1 != len2) {
        int64_t difference = static_cast<int64_t>(len1) - static_cast<int64_t>(len2);
        return static_cast<int>(std::clamp<int64_t>(difference, INT_MIN, INT_MAX));
    }
    return memcmp(addr1, addr2, std::min(len1, stats_addr_size));
}
