// UDP collector: endpoint rows from /proc/net/udp{,6}, the udp scalars from /proc/net/snmp.
#include "udpstats.h"

#include "procfs.h"
#include "scan.h"

#include "core/trace.h"

#include <err.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace
{

// The tables below the proc root, in the order they are read, with the
// address type of their rows.
const struct {
    const char *file;
    int32_t type;
} endpoint_tables[] = {{"net/udp", 1}, {"net/udp6", 2}};

const char endpoint_line_format[] = "%*d: %255s %255s %*x %*x:%*x %*x:%*x %*x %*u %*u %u";

struct free_deleter {
    void operator()(void *p) const { free(p); }
};

// White space as sscanf sees it in the C locale.
inline bool is_space(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The canonical shape of a socket line, as the kernel prints it: every field
// present, separated by white space, numbers without signs or prefixes,
// address texts of at most UDP_ADDR_TEXT_MAX characters. Each step returns
// false as soon as the line departs from it; sscanf then decides.
class canonical_line
{
  public:
    explicit canonical_line(const char *line) : p_(line) {}

    bool skip_space(bool required)
    {
        const char *start = p_;
        while (is_space(*p_))
            p_++;
        return !required || p_ != start;
    }

    bool literal(char c)
    {
        if (*p_ != c) return false;
        p_++;
        return true;
    }

    // Digits of the base, at least one and at most max_digits, ending at a
    // character that is not a digit of the base.
    template <bool Hex> bool number(int max_digits, uint64_t *value = nullptr)
    {
        uint64_t v = 0;
        int n = 0;
        for (;; n++, p_++) {
            int d = Hex ? hex_digit_value(*p_) : (*p_ >= '0' && *p_ <= '9' ? *p_ - '0' : -1);
            if (d < 0) break;
            if (n == max_digits) return false;
            v = v * (Hex ? 16 : 10) + static_cast<uint64_t>(d);
        }
        if (value) *value = v;
        return n > 0;
    }

    // A word of non-space characters followed by white space.
    bool word(char *out)
    {
        size_t n = 0;
        while (p_[n] && !is_space(p_[n]))
            n++;
        if (n == 0 || n > UDP_ADDR_TEXT_MAX || !is_space(p_[n])) return false;
        memcpy(out, p_, n);
        out[n] = '\0';
        p_ += n;
        return true;
    }

    // An address text exactly as the kernel prints it for the file's type:
    // count words of 8 hex digits, ":", 1 to 8 hex digits of port, white
    // space. Anything else is read through parse_addr_port.
    bool address(int count, uint32_t *words, uint32_t *port)
    {
        for (int i = 0; i < count; i++, p_ += 8)
            if (!hex_word(p_, 8, &words[i])) return false;
        if (!literal(':')) return false;
        uint64_t value;
        if (!number<true>(8, &value) || !is_space(*p_)) return false;
        *port = static_cast<uint32_t>(value);
        return true;
    }

    // The fields after the addresses: st, tx_queue:rx_queue, tr:tm->when,
    // retrnsmt, uid, timeout; then the inode.
    bool rest(unsigned *inode)
    {
        uint64_t value;
        if (!(skip_space(true) && number<true>(16) && skip_space(true) && number<true>(16) &&
              literal(':') && number<true>(16) && skip_space(true) && number<true>(16) &&
              literal(':') && number<true>(16) && skip_space(true) && number<true>(16) &&
              skip_space(true) && number<false>(18) && skip_space(true) && number<false>(18) &&
              skip_space(true)))
            return false;
        if (!number<false>(10, &value) || value > UINT32_MAX) return false;
        *inode = static_cast<unsigned>(value);
        return true;
    }

    // The slot number and its ":".
    bool slot() { return skip_space(false) && number<false>(18) && literal(':'); }

  private:
    const char *p_;
};

bool read_canonical_line(const char *line, char *local, char *remote, unsigned *inode)
{
    canonical_line in(line);
    return in.slot() && in.skip_space(false) && in.word(local) && in.skip_space(true) &&
           in.word(remote) && in.rest(inode);
}

// Stores count (1 or 4) words into an address buffer, never past its end.
void store_words(uint8_t *address, const uint32_t *words, int count, int swap)
{
    for (int i = 0; i < count && i < int(stats_addr_size / 4); i++) {
        uint32_t word = swap ? __builtin_bswap32(words[i]) : words[i];
        memcpy(address + 4 * i, &word, sizeof word);
    }
}

// Fills row from a canonical line of the given address type in one pass,
// with exactly what the general reading (udp_scan_endpoint_line, then
// parse_addr_port on both texts) would store. False, with row untouched, for
// any other line.
bool read_canonical_row(const char *line, int32_t type, udp_endpoint_entry *row)
{
    canonical_line in(line);
    int count = type == 1 ? 1 : 4;
    uint32_t local[4], remote[4], local_port, remote_port;
    unsigned inode;
    if (!(in.slot() && in.skip_space(false) && in.address(count, local, &local_port) &&
          in.skip_space(true) && in.address(count, remote, &remote_port) && in.rest(&inode)))
        return false;
    row->inode = inode;
    row->local_type = row->rem_type = type;
    store_words(row->local_addr, local, count, 0);
    row->local_addr_len = static_cast<uint32_t>(4 * count);
    row->local_port = local_port;
    store_words(row->rem_addr, remote, count, 0);
    row->rem_addr_len = static_cast<uint32_t>(4 * count);
    row->rem_port = remote_port;
    return true;
}

// Builds the sort key of a row: the comparator's fields in its order, both
// ends (types compared unsigned), then the inode.
constexpr size_t endpoint_key_size = 2 * stats_key_end_size + 4;

bool endpoint_key(const void *record, unsigned char *key)
{
    const auto *e = static_cast<const udp_endpoint_entry *>(record);
    if (!stats_key_end(key, static_cast<uint32_t>(e->local_type), e->local_addr_len, e->local_addr,
                       e->local_port) ||
        !stats_key_end(key + stats_key_end_size, static_cast<uint32_t>(e->rem_type),
                       e->rem_addr_len, e->rem_addr, e->rem_port))
        return false;
    stats_key_u32(key + 2 * stats_key_end_size, e->inode);
    return true;
}

} // namespace

int udp_endpoint_compare(const void *a, const void *b)
{
    const auto *x = static_cast<const udp_endpoint_entry *>(a);
    const auto *y = static_cast<const udp_endpoint_entry *>(b);
    int c;
    if ((c = stats_num_compare(static_cast<uint32_t>(x->local_type),
                               static_cast<uint32_t>(y->local_type))) != 0)
        return c;
    if ((c = stats_addr_compare(x->local_addr_len, x->local_addr, y->local_addr_len,
                                y->local_addr)) != 0)
        return c;
    if ((c = stats_num_compare(x->local_port, y->local_port)) != 0) return c;
    if ((c = stats_num_compare(static_cast<uint32_t>(x->rem_type),
                               static_cast<uint32_t>(y->rem_type))) != 0)
        return c;
    if ((c = stats_addr_compare(x->rem_addr_len, x->rem_addr, y->rem_addr_len, y->rem_addr)) != 0)
        return c;
    if ((c = stats_num_compare(x->rem_port, y->rem_port)) != 0) return c;
    return stats_num_compare(x->inode, y->inode);
}

void udp_endpoints_init(stats_list *list)
{
    list->count = 0;
    list->cursor = 0;
    list->elem_size = sizeof(udp_endpoint_entry);
    list->compare = udp_endpoint_compare;
}

void parse_hex_addr(uint8_t *address, uint32_t *length, const char *text, int32_t type, int swap)
{
    uint32_t words[4] = {0, 0, 0, 0};
    size_t digits = strlen(text);
    if (type == 1) {
        if (!hex_word(text, digits, &words[0])) {
            unsigned word = 0;
            if (sscanf(text, "%x", &word) == 1) words[0] = word;
        }
        store_words(address, words, 1, swap);
        *length = 4;
        return;
    }
    bool plain = digits == 32;
    for (int i = 0; plain && i < 4; i++)
        plain = hex_word(text + 8 * i, 8, &words[i]);
    if (!plain) {
        unsigned w[4] = {0, 0, 0, 0};
        sscanf(text, "%8x%8x%8x%8x", &w[0], &w[1], &w[2], &w[3]);
        for (int i = 0; i < 4; i++)
            words[i] = w[i];
    }
    store_words(address, words, 4, swap);
    *length = 16;
}

void parse_addr_port(uint8_t *address, uint32_t *length, uint32_t *port, const char *text,
                     int32_t type)
{
    const char *colon = strchr(text, ':');
    if (!colon) return;
    char before[UDP_ADDR_TEXT_MAX + 1];
    size_t n = std::min(static_cast<size_t>(colon - text), sizeof before - 1);
    memcpy(before, text, n);
    before[n] = '\0';
    parse_hex_addr(address, length, before, type, 0);
    const char *after = colon + 1;
    if (!hex_word(after, strlen(after), port)) {
        unsigned value;
        if (sscanf(after, "%x", &value) == 1) *port = value;
    }
}

int udp_scan_endpoint_line(const char *line, char *local, char *remote, unsigned *inode)
{
    if (read_canonical_line(line, local, remote, inode)) return 3;
    return sscanf(line, endpoint_line_format, local, remote, inode);
}

int32_t udp_read_endpoints(FILE *in, stats_list *list, int32_t position, int32_t type)
{
    char line[proc_line_size];
    if (!fgets(line, sizeof line, in)) warn("Couldn't read whole line.");
    char local[UDP_ADDR_TEXT_MAX + 1];
    char remote[UDP_ADDR_TEXT_MAX + 1];
    while (fgets(line, sizeof line, in)) {
        auto *row = static_cast<udp_endpoint_entry *>(stats_list_at(list, position++));
        if (read_canonical_row(line, type, row)) continue;
        unsigned inode;
        if (udp_scan_endpoint_line(line, local, remote, &inode) != 3) continue;
        // Only a converted line touches its record; the others keep what the
        // record held (zeros when fresh, an older row when reused).
        row->inode = inode;
        row->local_type = row->rem_type = type;
        parse_addr_port(row->local_addr, &row->local_addr_len, &row->local_port, local, type);
        parse_addr_port(row->rem_addr, &row->rem_addr_len, &row->rem_port, remote, type);
    }
    return position;
}

int update_udp_endpoints(stats_list *list)
{
    TRACE_ENTER();
    list->count = 0;
    int32_t position = 0;
    for (const auto &table : endpoint_tables) {
        proc_table_ptr in = open_proc_table(table.file);
        if (in) position = udp_read_endpoints(in.get(), list, position, table.type);
    }

    // Owners are looked up for the rows in the order they were read.
    size_t n = static_cast<size_t>(list->count);
    std::unique_ptr<socket_pid_pair, free_deleter> pairs(
        static_cast<socket_pid_pair *>(malloc(std::max<size_t>(n, 1) * sizeof(socket_pid_pair))));
    if (!pairs) return -1; // no owners, no sorting: the rows stay as read
    for (size_t p = 0; p < n; p++) {
        auto *row = static_cast<udp_endpoint_entry *>(stats_list_record(list, int32_t(p)));
        pairs.get()[p] = {row->inode, 0};
    }
    map_socket_pids(pairs.get(), n);
    for (size_t p = 0; p < n; p++)
        static_cast<udp_endpoint_entry *>(stats_list_record(list, int32_t(p)))->process =
            pairs.get()[p].process;
    pairs.reset();

    stats_list_sort_keyed<endpoint_key_size>(list, endpoint_key);
    // Merges a socket listed twice only when the copies sort to the first two
    // positions (the router's duplicate walk, kept as it is).
    stats_list_uniq(list);
    TRACE_EXIT();
    return 0;
}

int update_udp_stats(udp_global_stats *stats)
{
    TRACE_ENTER();
    memset(stats, 0, sizeof *stats);
    char buffer[proc_line_size];
    const char *values = read_snmp_section(buffer, sizeof buffer, "Udp");
    if (!values) {
        TRACE_EXIT();
        return -1;
    }
    unsigned in_datagrams = 0, no_ports = 0, in_errors = 0, out_datagrams = 0;
    sscanf(values, "%u %u %u %u", &in_datagrams, &no_ports, &in_errors, &out_datagrams);
    stats->NoPorts = no_ports;
    stats->InErrors = in_errors;
    // The record was zeroed above, so each total equals its 32-bit counter
    // and wraps with it: what the router reports for the HC counters.
    widen_counter(in_datagrams, &stats->InDatagrams, &stats->HCInDatagrams);
    widen_counter(out_datagrams, &stats->OutDatagrams, &stats->HCOutDatagrams);
    TRACE_EXIT();
    return 0;
}
