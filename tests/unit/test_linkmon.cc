// Unit tests of the link monitor's netlink batch reader and its UCI section lookup.
#include "fixture_env.h"
#include "notify/linkmon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <linux/rtnetlink.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace
{

int calls;
int callback_result;
int counting_handler(struct sockaddr_nl *, struct nlmsghdr *)
{
    calls++;
    return callback_result;
}

// A batch of netlink messages, each given by type and length (header included; bodies are zero),
// padded to 4 bytes.
std::string batch(const std::vector<std::pair<int, int>> &msgs)
{
    std::string out;
    for (auto [type, len] : msgs) {
        struct nlmsghdr h;
        memset(&h, 0, sizeof h);
        h.nlmsg_type = static_cast<__u16>(type);
        h.nlmsg_len = static_cast<__u32>(len);
        std::string msg(reinterpret_cast<char *>(&h), sizeof h);
        msg.resize(NLMSG_ALIGN(std::clamp<size_t>(static_cast<size_t>(len), sizeof h, 64)), '\0');
        out += msg;
    }
    return out;
}

// Verifies how one read walks a batch: every message to the callback until NLMSG_DONE, NLMSG_ERROR
// or no callback give -1, a message shorter than its header ends the walk quietly, and a negative
// callback result is returned at once.
TEST(LinkMonitorTest, ReadNetlinkWalksOneBatch)
{
    const int full = NLMSG_LENGTH(sizeof(struct ifinfomsg)), odd = NLMSG_LENGTH(3);
    struct {
        std::vector<std::pair<int, int>> msgs;
        int callback_result;
        bool with_callback;
        int want_result, want_calls;
    } cases[] = {
        {{{RTM_NEWLINK, full}, {RTM_NEWADDR, odd}, {RTM_DELLINK, full}}, 0, true, 0, 3},
        {{{RTM_NEWLINK, full}, {NLMSG_DONE, 16}, {RTM_NEWLINK, full}}, 0, true, 0, 1},
        {{{RTM_NEWLINK, full}, {NLMSG_ERROR, 36}}, 0, true, -1, 1},
        {{{RTM_NEWLINK, 8}}, 0, true, 0, 0},
        {{{RTM_NEWLINK, full}, {RTM_NEWLINK, 4096}}, 0, true, 0, 1},
        {{{RTM_NEWLINK, full}, {RTM_NEWLINK, full}}, -5, true, -5, 1},
        {{{RTM_NEWLINK, full}}, 0, false, -1, 0},
    };
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, pair), 0);
    for (size_t i = 0; i < sizeof cases / sizeof cases[0]; i++) {
        std::string data = batch(cases[i].msgs);
        ASSERT_EQ(send(pair[1], data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
        calls = 0;
        callback_result = cases[i].callback_result;
        EXPECT_EQ(read_netlink(pair[0], cases[i].with_callback ? counting_handler : nullptr),
                  cases[i].want_result)
            << "case " << i;
        EXPECT_EQ(calls, cases[i].want_calls) << "case " << i;
    }
    close(pair[0]);
    close(pair[1]);
}

// Verifies the section lookup: only a whole "ifname" value matches, the first such section wins, no
// match is a null name, and a missing package fails.
TEST(LinkMonitorTest, SectionOfAnInterface)
{
    FixtureEnv env;
    char *section = nullptr;
    EXPECT_EQ(uci_ifname_to_section("eth0", &section), -1);
    env.write("/etc/config/network", "config interface 'lan'\n\toption ifname 'eth0.1'\n"
                                     "config interface 'wan'\n\toption ifname 'eth1 eth2'\n"
                                     "config interface 'wan6'\n\toption device 'eth3'\n"
                                     "\toption ifname 'eth3'\n"
                                     "config interface 'guest'\n\toption ifname 'eth3'\n");
    for (auto [ifname, want] : {std::pair<const char *, const char *>{"eth0.1", "lan"},
                                {"eth3", "wan6"},
                                {"eth1", nullptr},
                                {"eth0", nullptr}}) {
        section = reinterpret_cast<char *>(1);
        ASSERT_EQ(uci_ifname_to_section(ifname, &section), 0) << ifname;
        if (want == nullptr)
            EXPECT_EQ(section, nullptr) << ifname;
        else
            EXPECT_STREQ(section, want);
        free(section);
    }
}

} // namespace
