// UDP collector: the endpoint table from /proc/net/udp{,6} and the udp group counters.
#ifndef LEISOBEK_COLLECT_UDPSTATS_H
#define LEISOBEK_COLLECT_UDPSTATS_H

#include "statslist.h"

#include <cstdint>
#include <cstdio>

// Longest address or port text kept from a table line (without its NUL).
constexpr int UDP_ADDR_TEXT_MAX = 255;

// One row of udpEndpointTable. Both address types are those of the file the
// row came from (InetAddressType 1 ipv4, 2 ipv6); addresses hold 4 or 16
// bytes in network byte order. The socket inode is the udpEndpointInstance
// index, so sockets sharing an address and port are distinct rows.
struct udp_endpoint_entry {
    int32_t local_type;
    int32_t rem_type;
    uint8_t local_addr[stats_addr_size];
    uint32_t local_addr_len;
    uint8_t rem_addr[stats_addr_size];
    uint32_t rem_addr_len;
    uint32_t local_port;
    uint32_t rem_port;
    uint32_t inode;
    uint32_t process; // owning process, 0 when none was found
};

// The udp group scalars. The raw 32-bit values of the two datagram counters
// are kept beside their 64-bit totals.
struct udp_global_stats {
    uint32_t InDatagrams;
    uint32_t NoPorts;
    uint32_t InErrors;
    uint32_t OutDatagrams;
    uint64_t HCInDatagrams;
    uint64_t HCOutDatagrams;
};

// udpEndpointTable index order: local type, local address, local port,
// remote type, remote address, remote port, inode; numbers unsigned,
// addresses by length first, then bytes.
int udp_endpoint_compare(const void *a, const void *b);

// Empties the endpoint list (its storage is kept) and gives it its record
// size and comparator.
void udp_endpoints_init(stats_list *list);

// Reads the address text of a table line: for type 1 one hex 32-bit word (4
// bytes), for any other type four 8-digit hex words (16 bytes). Each word is
// stored in host byte order, byte-swapped when swap is set; the kernel prints
// the words in host order, so the tables are read with swap off. Sets
// *length to 4 or 16; words the text lacks are stored as 0.
void parse_hex_addr(uint8_t *address, uint32_t *length, const char *text, int32_t type, int swap);

// Splits "ADDRESS:PORT" at its first ":" and fills address and length
// (parse_hex_addr, swap off) and port (hex). Without a ":" nothing is set;
// a port that does not read as hex leaves *port as it was.
void parse_addr_port(uint8_t *address, uint32_t *length, uint32_t *port, const char *text,
                     int32_t type);

// Reads one socket line of /proc/net/udp or udp6:
//   sl: local_address rem_address st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout inode
// into the two address texts (at most UDP_ADDR_TEXT_MAX characters each,
// NUL-terminated) and the inode. Returns the number of fields converted, as
// sscanf with "%*d: %255s %255s %*x %*x:%*x %*x:%*x %*x %*u %*u %u" does (3
// when the line is a socket row); canonical kernel lines are read without
// going through sscanf.
int udp_scan_endpoint_line(const char *line, char *local, char *remote, unsigned *inode);

// Appends the rows of one open table text (first line a header) of address
// type type to list, from position on; every line after the header takes
// one position, and a line that does not read as a socket row keeps what its
// record held. A header that cannot be read is reported on stderr ("Couldn't
// read whole line."). Returns the position after the last row.
int32_t udp_read_endpoints(FILE *in, stats_list *list, int32_t position, int32_t type);

// Refresh function of the endpoint table: rebuilds the list from
// /proc/net/udp then /proc/net/udp6 (a missing file adds no rows), gives
// each row the process owning its socket, sorts the list into index order and
// merges duplicates (stats_list_uniq, with its first-pair rule). Returns 0, or
// -1 when the owner table could not be allocated: the rows are then left
// unsorted and without owners.
int update_udp_endpoints(stats_list *list);

// Refresh function of the counters: zeroes the record, then fills it from the
// "Udp" section of /proc/net/snmp, each 64-bit total equal to its 32-bit
// counter. Returns 0, or -1 when the file or the section is missing (all
// counters then read 0).
int update_udp_stats(udp_global_stats *stats);

#endif
