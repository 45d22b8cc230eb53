// Unit tests of the IP collector's routing netlink readers, on messages built as the kernel sends
// them.
#include "fake_proc.h"
#include "ipstats.h"

#include <gtest/gtest.h>

#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include <cstring>
#include <string>
#include <vector>

namespace
{

using bytes = std::vector<unsigned char>;

bytes attr(uint16_t type, const bytes &value)
{
    bytes out(RTA_ALIGN(RTA_LENGTH(value.size())));
    rtattr a{static_cast<uint16_t>(RTA_LENGTH(value.size())), type};
    memcpy(out.data(), &a, sizeof a);
    std::copy(value.begin(), value.end(), out.begin() + RTA_LENGTH(0));
    return out;
}

template <typename Body> bytes message(uint16_t type, const Body &body, std::vector<bytes> attrs)
{
    bytes out(NLMSG_LENGTH(sizeof body));
    memcpy(out.data() + NLMSG_HDRLEN, &body, sizeof body);
    for (const bytes &a : attrs)
        out.insert(out.end(), a.begin(), a.end());
    nlmsghdr h{static_cast<uint32_t>(out.size()), type, 0, 0, 0};
    memcpy(out.data(), &h, sizeof h);
    return out;
}

// A message cut n bytes short, its header saying so: an attribute then runs past the datagram.
bytes cut_short(bytes msg, size_t n)
{
    msg.resize(msg.size() - n);
    uint32_t length = static_cast<uint32_t>(msg.size());
    memcpy(msg.data(), &length, sizeof length);
    return msg;
}

bytes join(std::vector<bytes> parts)
{
    bytes out;
    for (const bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The bytes of a value, as an attribute carries it.
template <typename T> bytes raw(const T &v)
{
    bytes out(sizeof v);
    memcpy(out.data(), &v, sizeof v);
    return out;
}

std::string hex(const unsigned char *p, size_t n)
{
    return hex_text(p, static_cast<uint32_t>(n));
}

// A record list freed at the end; its first `zeroed` slots exist and hold zeroes, so that a reader
// reuses them.
struct owned_list {
    stats_list list{};
    owned_list(uint32_t size, stats_compare_fn compare, int32_t zeroed = 0)
    {
        list.elem_size = size;
        list.compare = compare;
        if (zeroed == 0) return;
        stats_list_at(&list, zeroed - 1);
        memset(list.storage, 0, size_t(zeroed) * size);
        list.count = 0;
    }
    ~owned_list() { stats_list_free(&list); }
    template <typename Row> const Row &at(int32_t i)
    {
        return *static_cast<const Row *>(stats_list_record(&list, i));
    }
};

bytes neigh(uint8_t family, int ifindex, uint16_t state, uint8_t flags, std::vector<bytes> attrs)
{
    ndmsg nd{};
    nd.ndm_family = family;
    nd.ndm_ifindex = ifindex;
    nd.ndm_state = state;
    nd.ndm_flags = flags;
    return message(RTM_NEWNEIGH, nd, attrs);
}

const bytes mac = {0x02, 0, 0, 0, 0, 0x2a};
const bytes v4 = {192, 168, 1, 2};
const bytes v6 = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

// Verifies the neighbour dump walk over three datagrams: another family skipped, the type and
// state mapping, an attribute past the datagram's edge ignored, an error message ending it with -1.
TEST(IpNetlink, NeighbourDump)
{
    owned_list rows(sizeof(ip_net_phys_entry), ip_net_phys_compare, 16);
    struct {
        uint16_t state;
        const char *want; // type state
    } states[] = {
        {NUD_PERMANENT, "4 1"}, {NUD_NOARP, "4 1"},      {NUD_REACHABLE, "3 1"},
        {NUD_FAILED, "3 1"},    {NUD_INCOMPLETE, "3 7"}, {NUD_STALE, "3 2"},
        {NUD_DELAY, "3 3"},     {NUD_PROBE, "3 4"},      {NUD_STALE | NUD_PROBE, "3 2"},
    };
    bytes first, second;
    for (size_t i = 0; i < std::size(states); i++) {
        bytes &datagram = i < 4 ? first : second;
        datagram = join({datagram, neigh(AF_INET, int(i + 1), states[i].state, 0,
                                         {attr(NDA_DST, v4), attr(NDA_LLADDR, mac)})});
    }
    first = join({first, neigh(AF_BRIDGE, 9, NUD_PERMANENT, 0, {attr(NDA_LLADDR, mac)})});
    second = join({second, cut_short(neigh(AF_INET6, 20, NUD_STALE, NTF_ROUTER,
                                           {attr(NDA_DST, v6), attr(NDA_LLADDR, mac)}),
                                     4)});
    EXPECT_EQ(rtnl_walk(first.data(), first.size(), parse_neigh_msg, &rows.list), 1);
    EXPECT_EQ(rtnl_walk(second.data(), second.size(), parse_neigh_msg, &rows.list), 1);
    bytes done = message(NLMSG_DONE, int32_t(0), {});
    EXPECT_EQ(rtnl_walk(done.data(), done.size(), parse_neigh_msg, &rows.list), 0);
    ASSERT_EQ(rows.list.count, int32_t(std::size(states) + 1));
    for (size_t i = 0; i < std::size(states); i++) {
        const auto &r = rows.at<ip_net_phys_entry>(int32_t(i));
        EXPECT_EQ(std::to_string(r.type) + " " + std::to_string(r.state), states[i].want) << i;
        EXPECT_EQ(std::to_string(r.if_index) + " " + std::to_string(r.addr_type) + " " +
                      hex(r.addr.bytes, r.addr.length) + " " + hex(r.phys_addr, r.phys_addr_len),
                  std::to_string(i + 1) + " 1 c0a80102 02000000002a");
    }
    const auto &r = rows.at<ip_net_phys_entry>(int32_t(std::size(states)));
    EXPECT_EQ(std::to_string(r.if_index) + " " + std::to_string(r.addr_type) + " " +
                  hex(r.addr.bytes, r.addr.length) + " " + std::to_string(r.phys_addr_len) + " " +
                  std::to_string(r.router) + " " + std::to_string(r.state),
              "20 2 fe800000000000000000000000000001 0 1 2");

    rows.list.count = 0;
    bytes error =
        join({neigh(AF_INET, 1, NUD_REACHABLE, 0, {attr(NDA_DST, v4)}),
              message(NLMSG_ERROR, int32_t(0), {}), neigh(AF_INET, 2, NUD_REACHABLE, 0, {})});
    EXPECT_EQ(rtnl_walk(error.data(), error.size(), parse_neigh_msg, &rows.list), -1);
    EXPECT_EQ(rows.list.count, 1);
}

bytes route(uint8_t family, uint8_t dst_len, uint32_t flags, std::vector<bytes> attrs)
{
    rtmsg rt{};
    rt.rtm_family = family;
    rt.rtm_dst_len = dst_len;
    rt.rtm_table = RT_TABLE_MAIN;
    rt.rtm_flags = flags;
    return message(RTM_NEWROUTE, rt, attrs);
}

// Verifies default routes where the kernel's own in the end-to-end test do not go: an IPv6 one with
// an expiry (in clock ticks, 100 a second); none with a destination prefix, no interface or cloned.
TEST(IpNetlink, DefaultRoutes)
{
    ip_route_set_clock_ticks(100);
    auto expiry = [](int32_t ticks) {
        return attr(RTA_CACHEINFO, raw(rta_cacheinfo{0, 0, ticks, 0, 0, 0, 0, 0}));
    };
    const bytes gw4 = {192, 168, 1, 254};
    struct {
        bytes msg;
        const char *want; // "" when the route is not listed
    } cases[] = {
        {route(AF_INET, 8, 0, {attr(RTA_GATEWAY, gw4), attr(RTA_OIF, raw(2))}), ""},
        {route(AF_INET, 0, 0, {attr(RTA_GATEWAY, gw4)}), ""},
        {route(AF_INET6, 0, 0, {attr(RTA_GATEWAY, v6), attr(RTA_OIF, raw(3)), expiry(180000)}),
         "2 fe800000000000000000000000000001 3 1800"},
        {route(AF_INET, 0, RTM_F_CLONED,
               {attr(RTA_GATEWAY, gw4), attr(RTA_OIF, raw(2)), expiry(0)}),
         ""},
    };
    for (const auto &c : cases) {
        owned_list rows(sizeof(ip_def_router_entry), ip_def_router_compare);
        EXPECT_EQ(rtnl_walk(c.msg.data(), c.msg.size(), parse_route_msg, &rows.list), 1);
        std::string got;
        if (rows.list.count == 1) {
            const auto &r = rows.at<ip_def_router_entry>(0);
            got = std::to_string(r.addr_type) + " " + hex(r.addr.bytes, r.addr.length) + " " +
                  std::to_string(r.if_index) + " " + std::to_string(r.lifetime);
        }
        EXPECT_EQ(got, c.want) << c.want;
    }
}

bytes address(uint8_t family, uint8_t prefix_len, uint8_t flags, int ifindex, const bytes &addr,
              std::vector<bytes> more = {})
{
    ifaddrmsg ifa{family, prefix_len, flags, 0, static_cast<uint32_t>(ifindex)};
    more.insert(more.begin(), attr(IFA_ADDRESS, addr));
    return message(RTM_NEWADDR, ifa, more);
}

// Verifies ipAddressPrefixTable rows from an address dump: masked prefixes, origins, lifetimes,
// fixed flags; a truncated attribute; two addresses of one prefix that sort first give one row.
TEST(IpNetlink, AddressPrefixes)
{
    const bytes global = {0x20, 0x01, 0x0d, 0xb8, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5};
    auto lifetimes = [](uint32_t preferred, uint32_t valid) {
        return attr(IFA_CACHEINFO, raw(ifa_cacheinfo{preferred, valid, 0, 0}));
    };
    bytes dump = join({
        address(AF_INET, 24, 0x80, 2, {192, 168, 1, 1}, {lifetimes(0xffffffff, 0xffffffff)}),
        address(AF_INET, 16, 0x80, 3, {169, 254, 10, 20}, {lifetimes(3600, 7200)}),
        address(AF_INET6, 64, 0x80, 2, v6),
        address(AF_INET6, 64, 0x00, 4, global),
        address(AF_INET6, 64, 0x01, 5, global),
        address(AF_INET6, 48, 0x80, 6, global),
        address(AF_INET, 24, 0x80, 2, {192, 168, 1, 77}),
        cut_short(address(AF_INET, 8, 0x80, 7, {10, 1, 2, 3}, {lifetimes(1, 2)}), 2),
    });

    item_list records;
    item_list_init(&records, sizeof(ip_addr_record), 4);
    parse_addr_datagram(dump.data(), dump.size(), &records);
    ASSERT_EQ(records.count, 8u);
    owned_list rows(sizeof(ip_addr_prefix_entry), ip_addr_prefix_compare, 8);
    ip_prefix_rows(&records, &rows.list);
    item_list_free(&records);
    std::vector<std::string> got;
    for (int32_t i = 0; i < rows.list.count; i++) {
        const auto &r = rows.at<ip_addr_prefix_entry>(i);
        got.push_back(std::to_string(r.if_index) + " " + std::to_string(r.type) + " " +
                      hex(r.prefix.bytes, r.prefix.length) + "/" + std::to_string(r.prefix_len) +
                      " origin " + std::to_string(r.origin) + " " + std::to_string(r.on_link) +
                      std::to_string(r.autonomous) + " " + std::to_string(r.preferred_lifetime) +
                      " " + std::to_string(r.valid_lifetime));
    }
    EXPECT_EQ(got, (std::vector<std::string>{
                       "2 1 c0a80100/24 origin 2 12 4294967295 4294967295",
                       "2 2 fe800000000000000000000000000000/64 origin 3 12 0 0",
                       "3 1 a9fe0000/16 origin 3 12 3600 7200",
                       "4 2 20010db8000100000000000000000000/64 origin 5 12 0 0",
                       "5 2 20010db8000100000000000000000000/64 origin 5 12 0 0",
                       "6 2 20010db8000100000000000000000000/48 origin 2 12 0 0",
                       "7 1 0a000000/8 origin 2 12 0 0",
                   }));
}

// Verifies the neighbour sort against the comparator sort on rows of mixed interfaces (negative
// ifIndex included), families and duplicates.
TEST(IpNetlink, NeighbourSortMatchesTheComparator)
{
    owned_list radix(sizeof(ip_net_phys_entry), ip_net_phys_compare);
    owned_list plain(sizeof(ip_net_phys_entry), ip_net_phys_compare);
    srand(7);
    uint32_t serial = 0;
    for (int i = 0; i < 3000; i++) {
        ip_net_phys_entry row{};
        row.if_index = rand() % 5 - 1;
        row.addr_type = 1 + rand() % 2;
        row.addr.length = rand() % 3 ? 4 : 16;
        for (uint32_t b = 0; b < row.addr.length; b++)
            row.addr.bytes[b] = static_cast<uint8_t>(b % 5 == 0 ? rand() % 3 : rand());
        for (int copy = 0; copy < (i % 10 == 0 ? 2 : 1); copy++) { // every tenth index twice
            row.state = serial++;
            for (stats_list *l : {&radix.list, &plain.list})
                *static_cast<ip_net_phys_entry *>(stats_list_at(l, l->count)) = row;
        }
    }
    ip_net_phys_sort(&radix.list);
    stats_list_sort(&plain.list);
    for (int32_t p = 0; p < plain.list.count; p++)
        ASSERT_EQ(radix.at<ip_net_phys_entry>(p).state, plain.at<ip_net_phys_entry>(p).state) << p;
}

} // namespace
