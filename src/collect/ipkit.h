// The IP collectors' own small toolkit: item lists, statistics-file readers, prefix masks (counter
// widening is the collectors' shared one, in procfs.h).
//
// Parsing is kept apart from opening: every reader has a form that takes an
// open stream (tests feed it fixture text) beside the one that opens a path.
#ifndef LEISOBEK_COLLECT_IPKIT_H
#define LEISOBEK_COLLECT_IPKIT_H

#include "procfs.h"

#include <cstdint>
#include <cstdio>

// A growable array of fixed-size items (lines of a file, parsed counters). No
// order index and no comparator: items stay in the order they were appended.
struct item_list {
    unsigned char *storage; // owned
    uint32_t count;         // items in use
    uint32_t item_size;     // bytes per item
    uint32_t capacity;      // bytes of storage (not items)
};

// Zeroes the list and allocates room for initial items, zero-filled. An
// allocation failure leaves storage null and is not reported.
void item_list_init(item_list *list, uint32_t item_size, uint32_t initial_items);

// Copies item into a new last slot and returns it. When the storage must
// double and cannot, the storage is freed and null is returned; the count
// stays raised, so the list is unusable and must be freed.
void *item_list_append(item_list *list, const void *item);

// The item at position, or null when position >= count.
void *item_list_get(const item_list *list, uint32_t position);

// Zeroes the storage and sets count to 0; the storage is kept for reuse.
void item_list_clear(item_list *list);

// Frees the storage and zeroes all four fields.
void item_list_free(item_list *list);

// One counter of a statistics file.
struct stat_pair {
    char name[256];
    uint64_t value;
};

// Reads every non-blank line of in (at most 1023 characters each, line end
// kept) into list, which is initialised here (1024-byte items, room for 256).
void read_lines_from(FILE *in, item_list *list);

// Opens path and reads it with read_lines_from. Returns 0; -1 when path or
// list is null ("file = NULL || list = NULL" through perror) or the file cannot
// be opened (the list is then initialised and must still be freed).
int read_lines(const char *path, item_list *list);

// Counter-name/value lines (/proc/net/snmp6, /proc/net/dev_snmp6/<if>) into
// stat_pairs appended to out (initialised by the caller for stat_pair items);
// lines without a name or a value are skipped. Returns 0, or -1 when there is
// no non-blank line (or, for the path form, the file cannot be read).
int read_stat_pairs_from(FILE *in, item_list *out);
int read_stat_pairs(const char *path, item_list *out);

// Header-line/value-line files (/proc/net/snmp, /proc/net/netstat). With a
// section name, the first line containing it is the header and the next line
// containing it the values, each read from just after the name; without one,
// the file must be exactly those two lines. One stat_pair per field is
// appended to out in file order. Returns 0, or -1 when the file has fewer than
// two lines, the section has no value line, there is no field, or the field
// and value counts differ.
int read_stat_section_from(FILE *in, item_list *out, const char *section);
int read_stat_section(const char *path, item_list *out, const char *section);

// Looks name up (ignoring case) among the stat_pairs of list: stores the first
// match's value and returns 0, or stores 0 and returns -1.
int find_stat(const item_list *list, const char *name, uint64_t *value);

// An address value of the IP tables: its bytes in network order and their
// number, 4 (IPv4) or 16 (IPv6).
struct ip_addr_value {
    uint8_t bytes[16];
    uint32_t length;
};

// Keeps the first prefix_len bits of the address and clears the rest.
// Returns -1 for a null address, else 0.
int mask_prefix(ip_addr_value *address, int prefix_len);

#endif
