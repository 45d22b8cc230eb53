// TCP collector: connection and listener rows from /proc/net/tcp{,6}, scalars from /proc/net/snmp.
#include "tcpstats.h"

#include "procfs.h"
#include "scan.h"

#include "core/trace.h"

#include <err.h>

#include <cstring>
#include <memory>
#include <vector>

namespace
{

// The kernel's files, below the proc root.
const char tcp_file[] = "net/tcp";
const char tcp6_file[] = "net/tcp6";
const char snmp_file[] = "net/snmp";

// Owner lookup pairs, kept for the life of the process and reused by every
// refresh.
std::vector<socket_pid_pair> socket_pairs;

// Parses one socket line of /proc/net/tcp or /proc/net/tcp6 into entry:
//   sl local_address:port rem_address:port st tx_queue:rx_queue tr:tm->when retrnsmt uid timeout
//   inode ...
// Fields the line lacks keep the zero they start with. Returns the all-zero
// flag of the last address scanned: normally the remote one; 1 when the line
// holds no address at all.
bool parse_socket_line(const char *line, int v6, tcp_conn_entry *entry)
{
    const char *p = line;
    int all_zero = 1;
    int32_t skipped_int;
    uint32_t skipped_hex;
    int length;

    scan_dec_int(&p, &skipped_int); // slot number
    length = scan_hex_addr(&p, entry->local_addr, &entry->local_type, &all_zero, 0);
    if (length > 0) entry->local_addr_len = static_cast<uint32_t>(length);
    scan_hex_u32(&p, &entry->local_port);
    length = scan_hex_addr(&p, entry->rem_addr, &entry->rem_type, &all_zero, 0);
    if (length > 0) entry->rem_addr_len = static_cast<uint32_t>(length);
    scan_hex_u32(&p, &entry->rem_port);
    scan_hex_u32(&p, &entry->state);
    if (v6) {
        // The IPv6 reader skips the queue, timer and retransmit fields with
        // the decimal scanner, which stops at the letters a-f: a hex field
        // such as 000001A4 reads as two numbers, and the inode read below is
        // then taken from the field before it. Kept as the router has
        // always read it.
        for (int i = 0; i < 7; i++)
            scan_dec_int(&p, &skipped_int);
    } else {
        for (int i = 0; i < 5; i++) // tx_queue, rx_queue, tr, tm->when, retrnsmt
            scan_hex_u32(&p, &skipped_hex);
        scan_dec_int(&p, &skipped_int); // uid
        scan_dec_int(&p, &skipped_int); // timeout
    }
    scan_dec_u32(&p, &entry->inode);
    if (v6) entry->local_type = entry->rem_type = 2;
    return all_zero != 0;
}

void append_listener(stats_list *listeners, const tcp_conn_entry &entry)
{
    auto *row = static_cast<tcp_listener_entry *>(stats_list_at(listeners, listeners->count));
    row->type = entry.local_type;
    memcpy(row->addr, entry.local_addr, sizeof row->addr);
    row->addr_len = entry.local_addr_len;
    row->port = entry.local_port;
    row->process = 0;
    row->inode = entry.inode;
}

// Sort keys in the comparators' order: type (signed), address, port; twice
// for a connection.
constexpr size_t conn_key_size = 2 * stats_key_end_size;
constexpr size_t listener_key_size = stats_key_end_size;

bool conn_key(const void *record, unsigned char *key)
{
    const auto *e = static_cast<const tcp_conn_entry *>(record);
    return stats_key_end(key, stats_signed_order(e->local_type), e->local_addr_len, e->local_addr,
                         e->local_port) &&
           stats_key_end(key + stats_key_end_size, stats_signed_order(e->rem_type), e->rem_addr_len,
                         e->rem_addr, e->rem_port);
}

bool listener_key(const void *record, unsigned char *key)
{
    const auto *e = static_cast<const tcp_listener_entry *>(record);
    return stats_key_end(key, stats_signed_order(e->type), e->addr_len, e->addr, e->port);
}

// Scans one decimal field into a counter; an absent field leaves it as is.
int scan_counter(const char **p, uint32_t *counter)
{
    int32_t value = static_cast<int32_t>(*counter);
    int result = scan_dec_int(p, &value);
    *counter = static_cast<uint32_t>(value);
    return result;
}

} // namespace

int tcp_conn_compare(const void *a, const void *b)
{
    const auto *x = static_cast<const tcp_conn_entry *>(a);
    const auto *y = static_cast<const tcp_conn_entry *>(b);
    int c;
    if ((c = stats_num_compare(x->local_type, y->local_type)) != 0) return c;
    if ((c = stats_addr_compare(x->local_addr_len, x->local_addr, y->local_addr_len,
                                y->local_addr)))
        return c;
    if ((c = stats_num_compare(x->local_port, y->local_port)) != 0) return c;
    if ((c = stats_num_compare(x->rem_type, y->rem_type)) != 0) return c;
    if ((c = stats_addr_compare(x->rem_addr_len, x->rem_addr, y->rem_addr_len, y->rem_addr)))
        return c;
    return stats_num_compare(x->rem_port, y->rem_port);
}

int tcp_listener_compare(const void *a, const void *b)
{
    const auto *x = static_cast<const tcp_listener_entry *>(a);
    const auto *y = static_cast<const tcp_listener_entry *>(b);
    int c;
    if ((c = stats_num_compare(x->type, y->type)) != 0) return c;
    if ((c = stats_addr_compare(x->addr_len, x->addr, y->addr_len, y->addr)) != 0) return c;
    return stats_num_compare(x->port, y->port);
}

void tcp_tables_init(tcp_tables *tables)
{
    memset(tables, 0, sizeof *tables);
    tables->conns.elem_size = sizeof(tcp_conn_entry);
    tables->conns.compare = tcp_conn_compare;
    tables->listeners.elem_size = sizeof(tcp_listener_entry);
    tables->listeners.compare = tcp_listener_compare;
}

void tcp_read_table(FILE *in, tcp_tables *tables, int v6)
{
    char line[proc_line_size];
    if (!fgets(line, sizeof line, in)) warn("Couldn't read first line.");
    tcp_conn_entry entry;
    while (fgets(line, sizeof line, in)) {
        memset(&entry, 0, sizeof entry);
        bool remote_wildcard = parse_socket_line(line, v6, &entry);
        // Split on the remote end only, not on the state: a socket bound
        // to a port whose peer is 0.0.0.0:0 (or [::]:0) is a listener even
        // in state CLOSE.
        if (remote_wildcard && entry.rem_port == 0) {
            append_listener(&tables->listeners, entry);
        } else {
            memcpy(stats_list_at(&tables->conns, tables->conns.count), &entry, sizeof entry);
        }
    }
}

void tcp_tables_sort(tcp_tables *tables)
{
    stats_list_sort_keyed<conn_key_size>(&tables->conns, conn_key);
    stats_list_sort_keyed<listener_key_size>(&tables->listeners, listener_key);
}

int update_tcp_stats(tcp_tables *tables)
{
    TRACE_ENTER();
    tables->conns.count = 0;
    tables->listeners.count = 0;
    static const struct {
        const char *file;
        int v6;
    } sources[] = {{tcp_file, 0}, {tcp6_file, 1}};
    for (const auto &source : sources) {
        proc_table_ptr in = open_proc_table(source.file);
        if (in) tcp_read_table(in.get(), tables, source.v6);
    }
    tcp_tables_sort(tables);

    // One owner lookup for all sockets: connections, then listeners, each in
    // sorted order.
    int32_t conns = tables->conns.count;
    int32_t listeners = tables->listeners.count;
    socket_pairs.resize(static_cast<size_t>(conns) + static_cast<size_t>(listeners));
    for (int32_t p = 0; p < conns; p++)
        socket_pairs[p] = {
            static_cast<tcp_conn_entry *>(stats_list_record(&tables->conns, p))->inode, 0};
    for (int32_t p = 0; p < listeners; p++)
        socket_pairs[conns + p] = {
            static_cast<tcp_listener_entry *>(stats_list_record(&tables->listeners, p))->inode, 0};
    map_socket_pids(socket_pairs.data(), socket_pairs.size());
    for (int32_t p = 0; p < conns; p++)
        static_cast<tcp_conn_entry *>(stats_list_record(&tables->conns, p))->process =
            socket_pairs[p].process;
    for (int32_t p = 0; p < listeners; p++)
        static_cast<tcp_listener_entry *>(stats_list_record(&tables->listeners, p))->process =
            socket_pairs[conns + p].process;
    TRACE_EXIT();
    return 0;
}

int tcp_read_snmp(FILE *in, tcp_global_stats *stats)
{
    memset(stats, 0, sizeof *stats);
    char line[proc_line_size];
    if (!fgets(line, sizeof line, in)) warn("Couldn't read first line.");
    // The header line is the first one mentioning Tcp, the values line the
    // next one that does.
    bool header_seen = false;
    bool values_found = false;
    while (!values_found && fgets(line, sizeof line, in)) {
        if (!strstr(line, "Tcp")) continue;
        if (header_seen) values_found = true;
        header_seen = true;
    }
    if (!values_found) return -1;

    const char *p = line;
    uint32_t in_segs = 0;
    uint32_t out_segs = 0;
    scan_dec_int(&p, &stats->RtoAlgorithm);
    scan_dec_int(&p, &stats->RtoMin);
    scan_dec_int(&p, &stats->RtoMax);
    scan_dec_int(&p, &stats->MaxConn);
    scan_counter(&p, &stats->ActiveOpens);
    scan_counter(&p, &stats->PassiveOpens);
    scan_counter(&p, &stats->AttemptFails);
    scan_counter(&p, &stats->EstabResets);
    scan_counter(&p, &stats->CurrEstab);
    scan_counter(&p, &in_segs);
    scan_counter(&p, &out_segs);
    scan_counter(&p, &stats->RetransSegs);
    scan_counter(&p, &stats->InErrs);
    int result = scan_counter(&p, &stats->OutRsts);
    // The record was zeroed above, so each total comes out equal to the
    // current 32-bit counter and wraps with it: what the router reports.
    widen_counter(in_segs, &stats->InSegs, &stats->HCInSegs);
    widen_counter(out_segs, &stats->OutSegs, &stats->HCOutSegs);
    return result;
}

int update_tcp_table(tcp_global_stats *stats)
{
    TRACE_ENTER();
    file_ptr in(fopen(collect_proc_path(snmp_file).c_str(), "r"));
    if (!in) {
        TRACE_EXIT();
        return -1;
    }
    int result = tcp_read_snmp(in.get(), stats);
    TRACE_EXIT();
    return result;
}
