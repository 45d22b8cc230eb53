// Interface-state cache: per-interface records from the statistics files that "snmpgetcurrent"
// writes.
//
// A refresh runs "sh /usr/bin/snmpgetcurrent" and parses the layer-3
// interface file and the WAN and LAN switch-port files under /tmp/stats (and
// the wireless-port file on wireless models). The cache is refreshed on
// demand, inside the IF-MIB provider's callbacks, when it is older than 10
// seconds. The caller serialises access: a refresh under the write side of
// the interface-state lock, lookups under the read side.
#ifndef LEISOBEK_COLLECT_IFSTATS_H
#define LEISOBEK_COLLECT_IFSTATS_H

#include <cstdint>
#include <sys/time.h>

// An IPv4 address (network order) with its prefix length.
struct IfStateAddress {
    uint32_t addr;
    int32_t prefix_len;
};

// One IPv6 address of an interface; no file fills the list today.
struct IfStateAddress6 {
    uint8_t addr[16];
    int32_t prefix_len;
    IfStateAddress6 *next;
};

// One line of the statistics files. Fields marked "kept" are parsed but no
// IF-MIB object serves them.
struct IfStateRecord {
    int32_t has_counters;         // 1 once the line's counters were read (always for port lines)
    char name[128];               // interface name; also the kind that decides ifType
    char label[100];              // kept
    char type_hint[32];           // no file fills it
    IfStateAddress *ipv4_address; // the line's single address, or null
    uint32_t ipv4_gateway;        // network order
    uint32_t ipv4_dns[2];         // network order
    IfStateAddress6 *ipv6_addresses;
    int32_t port_attr0; // kept
    int32_t if_index;
    int32_t port_attr1; // kept
    int32_t speed;
    int32_t port_attr3, port_attr4;    // kept
    int32_t mtu_hint;                  // kept
    int32_t admin_status, oper_status; // IF-MIB enumeration; below 1 = unknown
    bool link_flag;                    // kept
    char mac_text[128];                // kept
    int32_t has_mac;
    int32_t mac[6]; // octets as parsed (decimal in the file)
    uint32_t in_errors, out_errors;
    uint32_t wlan_in_extra32, wlan_out_extra32; // kept
    uint64_t in_octets, in_ucast_pkts, in_mcast_pkts;
    uint64_t out_octets, out_ucast_pkts, out_mcast_pkts;
    uint64_t in_bcast_pkts, out_bcast_pkts;
    uint64_t wlan_in_extra64, wlan_out_extra64; // kept
    int32_t wan_extra;                          // kept
    IfStateRecord *next;
};

// Capacity of the walk order (lines taken per refresh) and of the running
// counter rows; lines beyond them are ignored (see if_state_refresh).
constexpr int IF_INDEX_TABLE_SIZE = 256;
constexpr int IF_COUNTER_ROWS = 50;

// Number of lines taken at the last complete refresh (ifNumber); 0 before the first.
int if_state_count(void);

// ifIndex of every line taken, ascending after a complete refresh: the walk order.
const int32_t *if_state_index_table(void);

// Head of the records list (null when empty), in file order.
const IfStateRecord *if_state_records(void);

// 1 when a refresh is due: no records, never refreshed, or the last complete
// refresh more than 10 seconds from now (either way); else 0.
int if_state_cache_stale(void);

// Discards the records and re-reads the files after running the statistics
// script. product_id is the router's model identifier: only the wireless
// models ("TX410W", "TX520W", "TX630W") read the wireless-port file.
// Returns 0, or -1 when one of the three files cannot be opened or memory
// runs out; then the count, the refresh time and the sorted order of the
// last complete refresh stay (entries already rewritten excepted).
int if_state_refresh(const char *product_id);

// Frees every record; the list is then empty.
void if_state_clear(void);

// The first record named name, or null.
IfStateRecord *if_state_find(const char *name);

// The first record (in list order) whose if_index is if_index, or null.
const IfStateRecord *if_state_lookup(int32_t if_index);

// Appends rec unless a record of the same name is listed. Returns true when
// it was appended (the list owns it), false when the caller still does.
bool if_state_append(IfStateRecord *rec);

// strtok over text with delimiters, except that empty fields are returned as
// "": null text continues after the last delimiter. Returns null when no
// delimiter is left, so the text after the last delimiter is never returned.
char *if_state_token(char *text, const char *delimiters);

// Replaces the time-of-day source (null restores gettimeofday); for tests.
void if_state_set_clock(int (*clock)(struct timeval *now));

#endif
