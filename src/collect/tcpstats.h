// TCP collector: connection and listener tables from /proc/net/tcp{,6}, the tcp group counters.
#ifndef LEISOBEK_COLLECT_TCPSTATS_H
#define LEISOBEK_COLLECT_TCPSTATS_H

#include "statslist.h"

#include <cstdint>
#include <cstdio>

// One row of tcpConnectionTable. Addresses hold 4 (IPv4) or 16 (IPv6) bytes in
// network byte order; types are InetAddressType, 1 ipv4 and 2 ipv6.
struct tcp_conn_entry {
    int32_t local_type;
    uint8_t local_addr[stats_addr_size];
    uint32_t local_addr_len;
    uint32_t local_port;
    int32_t rem_type;
    uint8_t rem_addr[stats_addr_size];
    uint32_t rem_addr_len;
    uint32_t rem_port;
    uint32_t state;   // kernel TCP state as read: 1 ESTABLISHED ... 11 CLOSING
    uint32_t process; // owning process, 0 when none was found
    uint32_t inode;   // socket inode
};

// One row of tcpListenerTable.
struct tcp_listener_entry {
    int32_t type;
    uint8_t addr[stats_addr_size];
    uint32_t addr_len;
    uint32_t port;
    uint32_t process;
    uint32_t inode;
};

// The two tables, refreshed together by update_tcp_stats.
struct tcp_tables {
    stats_list conns;     // tcp_conn_entry, ordered by tcp_conn_compare
    stats_list listeners; // tcp_listener_entry, ordered by tcp_listener_compare
};

// The tcp group scalars, in the order of the kernel's Tcp line of
// /proc/net/snmp, and the two 64-bit segment counters.
struct tcp_global_stats {
    int32_t RtoAlgorithm;
    int32_t RtoMin;
    int32_t RtoMax;
    int32_t MaxConn; // -1 on Linux: no fixed limit
    uint32_t ActiveOpens;
    uint32_t PassiveOpens;
    uint32_t AttemptFails;
    uint32_t EstabResets;
    uint32_t CurrEstab;
    uint32_t InSegs;
    uint32_t OutSegs;
    uint32_t RetransSegs;
    uint32_t InErrs;
    uint32_t OutRsts;
    uint64_t HCInSegs;
    uint64_t HCOutSegs;
};

// tcpConnectionTable index order: local type, local address, local port,
// remote type, remote address, remote port.
int tcp_conn_compare(const void *a, const void *b);

// tcpListenerTable index order: type, address, port.
int tcp_listener_compare(const void *a, const void *b);

// Empties both tables and gives them their record sizes and comparators.
void tcp_tables_init(tcp_tables *tables);

// Appends the rows of one /proc/net/tcp (v6 = 0) or /proc/net/tcp6 (v6 = 1)
// text to the tables, unsorted and without owners. A socket whose remote end
// is the wildcard address with port 0 is a listener, whatever its state. A
// first line that cannot be read is reported on stderr ("Couldn't read first
// line.") and reading goes on.
void tcp_read_table(FILE *in, tcp_tables *tables, int v6);

// Sorts both tables into index order: the positions stats_list_sort gives
// with the two comparators, computed from compact sort keys.
void tcp_tables_sort(tcp_tables *tables);

// Refresh function of the tables: rebuilds both from /proc/net/tcp and
// /proc/net/tcp6 (a missing file adds no rows), sorts them into index order
// and gives each row the process owning its socket. Storage is reused.
// Returns 0.
int update_tcp_stats(tcp_tables *tables);

// Fills the counters from an open /proc/net/snmp text: the record is zeroed,
// then the second line containing "Tcp" after the first line supplies the
// values, and each 64-bit segment counter equals its 32-bit one. Returns the
// result of the last field scanned (0, or -1 when the line was short), or -1
// when there is no such line (the record stays zero).
int tcp_read_snmp(FILE *in, tcp_global_stats *stats);

// Refresh function of the counters: tcp_read_snmp on /proc/net/snmp. Returns
// its result, or -1 with the record untouched when the file cannot be opened.
int update_tcp_table(tcp_global_stats *stats);

#endif
