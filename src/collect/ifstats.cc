// Interface-state cache: runs the statistics script and parses its files into records (see
// ifstats.h).
#include "ifstats.h"

#include "core/fieldcopy.h"
#include "core/sysenv.h"
#include "core/trace.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

namespace
{

const char stats_command[] = "sh /usr/bin/snmpgetcurrent";
const char iface_file[] = "/tmp/stats/snmp_iface_stats";
const char wanport_file[] = "/tmp/stats/snmp_wanport_stats";
const char lanport_file[] = "/tmp/stats/snmp_lanport_stats";
const char wlanport_file[] = "/tmp/stats/snmp_wlan_port_stats";

// Seconds the records are answered from before a request refreshes them.
const long max_age = 10;

// Running totals kept across refreshes. The script's counters start again
// from zero; the daemon adds them up by row, where a row is a position in the
// files (the k-th IPv4 line, then the WAN ports), not an interface name.
struct counter_row {
    uint64_t in_octets, in_ucast, in_mcast, in_bcast;
    uint64_t out_octets, out_ucast, out_mcast, out_bcast;
    uint32_t in_errors, out_errors;
};

IfStateRecord *records = nullptr;
IfStateRecord *records_tail = nullptr;
int record_count = 0;
int if_count = 0;
struct timeval refreshed_at = {0, 0};
int32_t if_index_table[IF_INDEX_TABLE_SIZE];
counter_row counter_rows[IF_COUNTER_ROWS];
// (ifIndex, record) in ifIndex order, equal ones in list order: the first
// match of a scan from the head, found by a binary search.
std::vector<std::pair<int32_t, const IfStateRecord *>> by_index;

int system_clock(struct timeval *now)
{
    return gettimeofday(now, nullptr);
}
int (*clock_now)(struct timeval *) = system_clock;

// What a missing trailing field reads as.
const char *field(const char *token)
{
    return token != nullptr ? token : "";
}

// A counter column: base-10 digits only, anything else (or nothing) reads as 0.
uint64_t counter(const char *token)
{
    const char *text = field(token);
    if (*text == '\0' || strspn(text, "0123456789") != strlen(text)) return 0;
    return strtoull(text, nullptr, 10);
}

// Stores a dotted quad in network order when the column holds one.
void ipv4_column(const char *token, uint32_t *out)
{
    const char *text = field(token);
    if (*text != '\0') inet_pton(AF_INET, text, out);
}

void free_record(IfStateRecord *rec)
{
    free(rec->ipv4_address);
    for (IfStateAddress6 *a = rec->ipv6_addresses; a != nullptr;) {
        IfStateAddress6 *next = a->next;
        free(a);
        a = next;
    }
    free(rec);
}

IfStateRecord *new_record()
{
    return static_cast<IfStateRecord *>(calloc(1, sizeof(IfStateRecord)));
}

// Lists rec's ifIndex at the next position of the walk order.
void take_line(IfStateRecord *rec, int32_t if_index, int *n)
{
    if (!if_state_append(rec)) free_record(rec);
    if_index_table[(*n)++] = if_index;
}

// Columns 3 to 30 of an IPv4 line of snmp_iface_stats (the tokenizer stands
// after column 2). k is the line's counter row. Returns -1 when out of memory.
int parse_ipv4_columns(IfStateRecord *rec, int k)
{
    if (atoi(field(if_state_token(nullptr, ",\n"))) == 1) {
        char text[64];
        int prefix_len = 0;
        uint32_t addr;
        if (sscanf(field(if_state_token(nullptr, ",\n")), "%63s %d", text, &prefix_len) == 2 &&
            inet_pton(AF_INET, text, &addr) == 1) {
            rec->ipv4_address = static_cast<IfStateAddress *>(malloc(sizeof(IfStateAddress)));
            if (rec->ipv4_address == nullptr) return -1;
            rec->ipv4_address->addr = addr;
            rec->ipv4_address->prefix_len = prefix_len;
        }
    } else {
        if_state_token(nullptr, ",\n");
    }
    ipv4_column(if_state_token(nullptr, ",\n"), &rec->ipv4_gateway);
    ipv4_column(if_state_token(nullptr, ",\n"), &rec->ipv4_dns[0]);
    ipv4_column(if_state_token(nullptr, ",\n"), &rec->ipv4_dns[1]);
    rec->mtu_hint = atoi(field(if_state_token(nullptr, ",\n")));
    copy_field_as_format(rec->mac_text, sizeof rec->mac_text,
                         field(if_state_token(nullptr, ",\n")));

    // Six decimal octets, as the script prints them ("0:17:136:1:2:3").
    const char *mac = field(if_state_token(nullptr, ",\n"));
    rec->has_mac = *mac != '\0' && strcmp(mac, "-") != 0;
    if (rec->has_mac)
        sscanf(mac, "%d:%d:%d:%d:%d:%d", &rec->mac[0], &rec->mac[1], &rec->mac[2], &rec->mac[3],
               &rec->mac[4], &rec->mac[5]);
    copy_field_as_format(rec->label, sizeof rec->label, field(if_state_token(nullptr, ",\n")));
    rec->if_index = atoi(field(if_state_token(nullptr, ",\n")));
    rec->port_attr0 = atoi(field(if_state_token(nullptr, ",\n")));
    rec->port_attr1 = atoi(field(if_state_token(nullptr, ",\n")));
    rec->speed = atoi(field(if_state_token(nullptr, ",\n")));
    rec->port_attr3 = atoi(field(if_state_token(nullptr, ",\n")));
    rec->port_attr4 = atoi(field(if_state_token(nullptr, ",\n")));

    rec->in_octets = counter(if_state_token(nullptr, ",\n"));
    rec->has_counters = 1;
    rec->in_ucast_pkts = counter(if_state_token(nullptr, ",\n"));
    rec->in_mcast_pkts = counter(if_state_token(nullptr, ",\n"));
    rec->in_bcast_pkts = counter(if_state_token(nullptr, ",\n"));
    rec->in_errors = static_cast<uint32_t>(counter(if_state_token(nullptr, ",\n")));
    rec->out_octets = counter(if_state_token(nullptr, ",\n"));
    rec->out_ucast_pkts = counter(if_state_token(nullptr, ",\n"));
    rec->out_mcast_pkts = counter(if_state_token(nullptr, ",\n"));
    rec->out_bcast_pkts = counter(if_state_token(nullptr, ",\n"));
    rec->out_errors = static_cast<uint32_t>(counter(if_state_token(nullptr, ",\n")));
    // Only the unicast and multicast packet counts run on from the row's
    // total; a line beyond the last row keeps the file's values.
    if (k < IF_COUNTER_ROWS) {
        counter_row &row = counter_rows[k];
        row.in_ucast = rec->in_ucast_pkts += row.in_ucast;
        row.in_mcast = rec->in_mcast_pkts += row.in_mcast;
        row.out_ucast = rec->out_ucast_pkts += row.out_ucast;
        row.out_mcast = rec->out_mcast_pkts += row.out_mcast;
    }

    rec->link_flag = atoi(field(if_state_token(nullptr, ",\n"))) != 0;
    rec->admin_status = atoi(field(if_state_token(nullptr, ",\n")));
    rec->oper_status = atoi(field(if_state_token(nullptr, ",\n")));
    return 0;
}

// One line of snmp_iface_stats: "v6" lines are skipped, "v4" lines are read
// whole, any other family gives a record with the name only, listed with
// ifIndex 0. Returns -1 when out of memory.
int parse_iface_line(char *line, int *n, int *k)
{
    const char *family = field(if_state_token(line, ",\n"));
    if (strcmp(family, "v6") == 0) return 0;
    const char *name = field(if_state_token(nullptr, ",\n"));
    // A line without a name describes nothing the walk could show.
    if (*name == '\0' || *n >= IF_INDEX_TABLE_SIZE) return 0;

    IfStateRecord *rec = new_record();
    if (rec == nullptr) return -1;
    copy_field_as_format(rec->name, sizeof rec->name, name);
    rec->has_counters = 0;
    bool full = strcmp(family, "v4") == 0;
    if (full) {
        if (parse_ipv4_columns(rec, *k) < 0) {
            free_record(rec);
            return -1;
        }
        (*k)++;
    }
    // A second line of an already listed name adds its ifIndex to the walk
    // but no record: that index then has no instance unless the first has it.
    take_line(rec, full ? rec->if_index : 0, n);
    return 0;
}

// What a switch-port line fills: the WAN file has one column more, the
// wireless file a label and four extra counters.
enum class port_file { wan, lan, wlan };

// sscanf's %llu target for a 64-bit counter (uint64_t is unsigned long on
// 64-bit hosts, unsigned long long on the router).
unsigned long long *ull(uint64_t *counter)
{
    return reinterpret_cast<unsigned long long *>(counter);
}

void parse_port_line(const char *line, IfStateRecord *r, port_file kind)
{
    int link = 0;
    switch (kind) {
    case port_file::wan:
        sscanf(line,
               "%127[^ ,],%d,%d,%d,%d,%d,%llu,%llu,%llu,%llu,%u,%llu,%llu,%llu,%llu,%u,%d,%d,%d,%d,"
               "%d,",
               r->name, &r->port_attr0, &r->port_attr1, &r->speed, &r->port_attr3, &r->port_attr4,
               ull(&r->in_octets), ull(&r->in_ucast_pkts), ull(&r->in_mcast_pkts),
               ull(&r->in_bcast_pkts), &r->in_errors, ull(&r->out_octets), ull(&r->out_ucast_pkts),
               ull(&r->out_mcast_pkts), ull(&r->out_bcast_pkts), &r->out_errors, &link,
               &r->if_index, &r->admin_status, &r->oper_status, &r->wan_extra);
        break;
    case port_file::lan:
        sscanf(
            line,
            "%127[^ ,],%d,%d,%d,%d,%d,%llu,%llu,%llu,%llu,%u,%llu,%llu,%llu,%llu,%u,%d,%d,%d,%d,",
            r->name, &r->port_attr0, &r->port_attr1, &r->speed, &r->port_attr3, &r->port_attr4,
            ull(&r->in_octets), ull(&r->in_ucast_pkts), ull(&r->in_mcast_pkts),
            ull(&r->in_bcast_pkts), &r->in_errors, ull(&r->out_octets), ull(&r->out_ucast_pkts),
            ull(&r->out_mcast_pkts), ull(&r->out_bcast_pkts), &r->out_errors, &link, &r->if_index,
            &r->admin_status, &r->oper_status);
        break;
    case port_file::wlan: {
        // The label column may be up to 127 characters; the record keeps 99.
        char label[128] = "";
        sscanf(line,
               "%127[^ ,],%127[^ ,],%d,%d,%d,%d,%d,%llu,%llu,%llu,%llu,%u,%llu,%u,%llu,%llu,%llu,"
               "%llu,%u,%llu,%u,%d,%d,%d,%d,",
               r->name, label, &r->port_attr0, &r->port_attr1, &r->speed, &r->port_attr3,
               &r->port_attr4, ull(&r->in_octets), ull(&r->in_ucast_pkts), ull(&r->in_mcast_pkts),
               ull(&r->in_bcast_pkts), &r->in_errors, ull(&r->wlan_in_extra64), &r->wlan_in_extra32,
               ull(&r->out_octets), ull(&r->out_ucast_pkts), ull(&r->out_mcast_pkts),
               ull(&r->out_bcast_pkts), &r->out_errors, ull(&r->wlan_out_extra64),
               &r->wlan_out_extra32, &link, &r->if_index, &r->admin_status, &r->oper_status);
        snprintf(r->label, sizeof r->label, "%s", label);
        break;
    }
    }
    r->link_flag = link != 0;
}

// A getline buffer and a file, released on every path out of a refresh.
struct line_reader {
    FILE *file = nullptr;
    char *line = nullptr;
    size_t size = 0;
    ~line_reader()
    {
        if (file != nullptr) fclose(file);
        free(line);
    }
    bool open(const char *path)
    {
        if (file != nullptr) fclose(file);
        file = sys_fopen(path, "r");
        return file != nullptr;
    }
    // The next line, or null at the end of the file.
    char *next() { return getline(&line, &size, file) < 0 ? nullptr : line; }
};

bool blank_line(const char *line)
{
    return line[strspn(line, " \t\r\n")] == '\0';
}

// Reads every line of an open port file into a new record. j counts the lines
// from 0; WAN lines overwrite the counter rows from first_row on. Returns -1
// when out of memory (the records list is then cleared).
int read_port_file(line_reader &in, port_file kind, int first_row, int *n)
{
    int j = 0;
    for (char *line; (line = in.next()) != nullptr;) {
        if (blank_line(line) || *n >= IF_INDEX_TABLE_SIZE) continue;
        IfStateRecord *rec = new_record();
        if (rec == nullptr) {
            if_state_clear();
            return -1;
        }
        parse_port_line(line, rec, kind);
        rec->has_counters = 1;
        if (kind == port_file::wan && first_row + j < IF_COUNTER_ROWS) {
            counter_rows[first_row + j] = {
                rec->in_octets,  rec->in_ucast_pkts,  rec->in_mcast_pkts,  rec->in_bcast_pkts,
                rec->out_octets, rec->out_ucast_pkts, rec->out_mcast_pkts, rec->out_bcast_pkts,
                rec->in_errors,  rec->out_errors};
        }
        j++;
        take_line(rec, rec->if_index, n);
    }
    return 0;
}

bool wireless_model(const char *product_id)
{
    for (const char *model : {"TX410W", "TX520W", "TX630W"})
        if (strncmp(product_id, model, 6) == 0) return true;
    return false;
}

int refresh_files(const char *product_id)
{
    if_state_clear();
    int n = 0, k = 0;
    // The script's exit status says nothing useful: stale files are read as they are.
    sys_system(stats_command);

    line_reader in;
    if (!in.open(iface_file)) return -1;
    for (char *line; (line = in.next()) != nullptr;) {
        if (parse_iface_line(line, &n, &k) < 0) {
            if_state_clear();
            return -1;
        }
    }
    if (!in.open(wanport_file) || read_port_file(in, port_file::wan, k, &n) < 0) return -1;
    if (!in.open(lanport_file) || read_port_file(in, port_file::lan, 0, &n) < 0) return -1;
    // A wireless model without the file is no failure; and out of memory
    // there, the refresh still completes, with an empty list.
    if (wireless_model(product_id) && in.open(wlanport_file))
        read_port_file(in, port_file::wlan, 0, &n);

    clock_now(&refreshed_at);
    if_count = n;
    // The walk order; duplicates stay.
    std::sort(if_index_table, if_index_table + n);
    return 0;
}

void index_records()
{
    by_index.clear();
    for (const IfStateRecord *r = records; r != nullptr; r = r->next)
        by_index.emplace_back(r->if_index, r);
    std::stable_sort(by_index.begin(), by_index.end(),
                     [](const auto &a, const auto &b) { return a.first < b.first; });
}

} // namespace

int if_state_count(void)
{
    return if_count;
}

const int32_t *if_state_index_table(void)
{
    return if_index_table;
}

const IfStateRecord *if_state_records(void)
{
    return records;
}

void if_state_set_clock(int (*clock)(struct timeval *))
{
    clock_now = clock ? clock : system_clock;
}

int if_state_cache_stale(void)
{
    if (records == nullptr || refreshed_at.tv_sec == 0) return 1;
    struct timeval now;
    clock_now(&now);
    // A clock set back counts like one run forward.
    return labs(static_cast<long>(now.tv_sec - refreshed_at.tv_sec)) > max_age ? 1 : 0;
}

int if_state_refresh(const char *product_id)
{
    TRACE_ENTER();
    int ret = refresh_files(product_id);
    index_records();
    TRACE_EXIT();
    return ret;
}

void if_state_clear(void)
{
    for (IfStateRecord *r = records; r != nullptr;) {
        IfStateRecord *next = r->next;
        free_record(r);
        r = next;
    }
    records = records_tail = nullptr;
    record_count = 0;
    by_index.clear();
}

IfStateRecord *if_state_find(const char *name)
{
    for (IfStateRecord *r = records; r != nullptr; r = r->next)
        if (strcmp(r->name, name) == 0) return r;
    return nullptr;
}

const IfStateRecord *if_state_lookup(int32_t if_index)
{
    auto it = std::lower_bound(by_index.begin(), by_index.end(), if_index,
                               [](const auto &entry, int32_t key) { return entry.first < key; });
    return it != by_index.end() && it->first == if_index ? it->second : nullptr;
}

bool if_state_append(IfStateRecord *rec)
{
    if (if_state_find(rec->name) != nullptr) return false;
    rec->next = nullptr;
    if (records_tail != nullptr)
        records_tail->next = rec;
    else
        records = rec;
    records_tail = rec;
    record_count++;
    return true;
}

char *if_state_token(char *text, const char *delimiters)
{
    static char *rest = nullptr;
    if (text != nullptr) rest = text;
    if (rest == nullptr) return nullptr;
    char *end = strpbrk(rest, delimiters);
    if (end == nullptr) {
        rest = nullptr;
        return nullptr;
    }
    *end = '\0';
    char *token = rest;
    rest = end + 1;
    return token;
}
