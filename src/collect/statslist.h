// Growable record list with a sorted order index: the storage of every collected MIB table.
//
// Records are fixed-size and never move once stored; sorting and duplicate
// removal only permute the order index, whose entry p names the record that
// stands at position p. A walk in position order after stats_list_sort is a
// walk in the table's SNMP index order.
#ifndef LEISOBEK_COLLECT_STATSLIST_H
#define LEISOBEK_COLLECT_STATSLIST_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

// Orders two records of one list: negative, zero or positive.
typedef int (*stats_compare_fn)(const void *a, const void *b);

struct stats_list {
    int32_t count;            // positions in use
    int32_t capacity;         // records the storage holds
    int32_t cursor;           // position last selected with stats_list_at
    uint32_t elem_size;       // bytes per record, set by the owner before first use
    unsigned char *storage;   // capacity * elem_size bytes, grown with realloc, never shrunk
    uint32_t *order;          // capacity entries: record number at each position
    stats_compare_fn compare; // the list's index order
};

// Selects position: sets the cursor, grows the storage when the position is
// past the capacity and, when it is past the count, extends the list up to it
// (each new position names the record of the same number). Collectors append
// with position = count; readers select a sorted position. Returns the record
// at the cursor, or null (list untouched) for a negative position. Running out
// of memory ends the process with "insufficient memory\n" and status 1.
void *stats_list_at(stats_list *list, int32_t position);

// Returns the record at a position below count without moving the cursor, or
// null when the position is out of range.
void *stats_list_record(const stats_list *list, int32_t position);

// Sorts the positions in use by the list's comparator. Records that compare
// equal keep the order in which they were appended.
void stats_list_sort(stats_list *list);

// Orders two sort keys as memcmp does, comparing eight bytes at a time.
template <size_t KeySize>
inline int stats_key_compare(const unsigned char *a, const unsigned char *b)
{
    size_t i = 0;
    for (; i + 8 <= KeySize; i += 8) {
        uint64_t x, y;
        memcpy(&x, a + i, 8);
        memcpy(&y, b + i, 8);
        if (x != y) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
            x = __builtin_bswap64(x);
            y = __builtin_bswap64(y);
#endif
            return x < y ? -1 : 1;
        }
    }
    return KeySize > i ? memcmp(a + i, b + i, KeySize - i) : 0;
}

// Writes the sort key of a record into key (see stats_list_sort_keyed).
// Returns false when the record has no such key.
typedef bool (*stats_key_fn)(const void *record, unsigned char *key);

// Sorts exactly as stats_list_sort does (same positions, equal records in
// append order), but orders compact keys built once per record instead of
// calling the comparator on the records: for tens of thousands of large
// records this is several times faster, as the keys stay in the CPU caches.
// make_key must write KeySize bytes whose byte order (memcmp) is the
// comparator's order; if it declines any record the comparator sort is used.
template <size_t KeySize> void stats_list_sort_keyed(stats_list *list, stats_key_fn make_key)
{
    struct keyed {
        unsigned char key[KeySize];
        uint32_t record;
    };
    static std::vector<keyed> keys; // kept so that a refresh does not allocate again
    if (list->count < 2) return;
    keys.resize(static_cast<size_t>(list->count));
    for (int32_t p = 0; p < list->count; p++) {
        if (!make_key(stats_list_record(list, p), keys[p].key)) {
            stats_list_sort(list);
            return;
        }
        keys[p].record = list->order[p];
    }
    std::sort(keys.begin(), keys.end(), [](const keyed &a, const keyed &b) {
        int c = stats_key_compare<KeySize>(a.key, b.key);
        return c != 0 ? c < 0 : a.record < b.record;
    });
    for (int32_t p = 0; p < list->count; p++)
        list->order[p] = keys[p].record;
}

// Duplicate removal on a sorted list, walking exactly as the router always
// has: position i (from 1) is compared with a keep-position k that only starts
// to advance once a first duplicate was seen. When the first two positions
// differ, every later one is compared with position 0 and nothing is removed;
// when they are equal, every run of equal records shrinks to its first one.
void stats_list_uniq(stats_list *list);

// Binary search over the sorted positions. cmp(key, record) orders the key
// against a record consistently with the list's order (it may compare a
// prefix of the index only); null means the list's own comparator. Returns the
// first position whose record compares equal to key, or -1. This gives the
// same answer as scanning the positions from 0 for the first match.
int32_t stats_list_find(const stats_list *list, const void *key, stats_compare_fn cmp);

// Releases storage and order index and resets the list to empty (element
// size and comparator are kept). The daemon keeps its lists for its whole
// run; tests and tools free theirs.
void stats_list_free(stats_list *list);

// InetAddress index order: a shorter address sorts first (the result is the
// difference of the lengths); equal lengths compare bytes with memcmp, at
// most stats_addr_size of them whatever length a damaged record claims.
int stats_addr_compare(uint32_t len1, const uint8_t *addr1, uint32_t len2, const uint8_t *addr2);

// Stores value big-endian, so that byte order is numeric order; a signed
// value is biased first so that negative numbers sort before positive ones.
inline void stats_key_u32(unsigned char *key, uint32_t value)
{
    key[0] = static_cast<unsigned char>(value >> 24);
    key[1] = static_cast<unsigned char>(value >> 16);
    key[2] = static_cast<unsigned char>(value >> 8);
    key[3] = static_cast<unsigned char>(value);
}
inline uint32_t stats_signed_order(int32_t value)
{
    return static_cast<uint32_t>(value) ^ 0x80000000u;
}
inline void stats_key_i32(unsigned char *key, int32_t value)
{
    stats_key_u32(key, stats_signed_order(value));
}

// Bytes of the address buffers of the collectors' records: an InetAddress of
// the socket tables is 4 (IPv4) or 16 (IPv6) bytes long.
constexpr uint32_t stats_addr_size = 16;

// Copies an address given by a request (bytes and length) into a record's
// address buffer, to look the record up. Returns false, copying nothing, when
// it is longer than the buffer: no row can then match.
inline bool stats_copy_addr(uint8_t *addr, uint32_t *length, const uint8_t *bytes,
                            uint32_t bytes_length)
{
    if (bytes_length > stats_addr_size) return false;
    if (bytes_length > 0) memcpy(addr, bytes, bytes_length);
    *length = bytes_length;
    return true;
}

// Bytes stats_key_addr writes: the length, then an address buffer.
constexpr size_t stats_key_addr_size = 4 + stats_addr_size;

// Writes the key of an address in the order of stats_addr_compare: its
// length, then its bytes padded with zeros to stats_addr_size. Returns false
// when the address is longer than that.
bool stats_key_addr(unsigned char *key, uint32_t length, const uint8_t *addr);

// Bytes stats_key_end writes: type, address key, port.
constexpr size_t stats_key_end_size = 4 + stats_key_addr_size + 4;

// Writes the key of one end of a socket (the index columns type, address and
// port that every socket table has): type_order is the type as an unsigned
// number in the comparator's order (a signed type through
// stats_signed_order). Returns false when the address is longer than stats_addr_size.
inline bool stats_key_end(unsigned char *key, uint32_t type_order, uint32_t length,
                          const uint8_t *addr, uint32_t port)
{
    stats_key_u32(key, type_order);
    if (!stats_key_addr(key + 4, length, addr)) return false;
    stats_key_u32(key + 4 + stats_key_addr_size, port);
    return true;
}

// Three-way comparison of two integers, for the comparators of record lists.
template <typename T> inline int stats_num_compare(T a, T b)
{
    return (a > b) - (a < b);
}

#endif
