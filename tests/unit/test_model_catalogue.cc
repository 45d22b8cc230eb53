// Catalogue of what the daemon expects from the YANG models: callpoints, served objects and the
// value types it replies, table keys, enumerators and configuration paths (the demo configuration
// is read through confd-emu in the MAAPI integration tests).
#include "model_schema.h"
#include "nsgen.h"

#ifdef LEISOBEK_OWN_NS_HEADERS // not with the SDK's headers, whose numbers are the SDK compiler's
#include "IF-MIB.h"
#include "IP-MIB.h"
#include "TCP-MIB.h"
#include "UDP-MIB.h"
#include "ZAMREL-MODEL-MIB.h"
#include "router-interfaces.h"
#endif

#include <libyang/libyang.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

using emu::CpKind;
using emu::NodeKind;
using emu::SchemaNode;
namespace vt = emu::vt;

namespace
{

// Reply types by name; absent: the provider answers C_NOEXISTS, so the leaf only has to exist.
const std::map<std::string, int> kTypes = {
    {"i32", vt::INT32},        {"u32", vt::UINT32},      {"u64", vt::UINT64},
    {"str", vt::STR},          {"buf", vt::BUF},         {"enum", vt::ENUM_VALUE},
    {"bin", vt::BINARY},       {"ipv4", vt::IPV4},       {"oid", vt::OID},
    {"bits", vt::BIT32},       {"absent", vt::NOEXISTS}, {"bool", vt::BOOL},
    {"idref", vt::IDENTITYREF}};

// A leaf (a MIB object, named as the provider knows it) and the type the daemon replies for it.
struct Obj {
    std::string leaf;
    int vtype;
};

// The objects of a table text: blank-separated "name:type" words, type one of kTypes.
std::vector<Obj> objects(const std::string &text)
{
    std::vector<Obj> out;
    std::istringstream words(text);
    for (std::string w; words >> w;) {
        size_t colon = w.find(':');
        auto type = kTypes.find(colon == std::string::npos ? "" : w.substr(colon + 1));
        EXPECT_NE(type, kTypes.end()) << "bad table word " << w;
        out.push_back({w.substr(0, colon), type == kTypes.end() ? 0 : type->second});
    }
    return out;
}

// Objects below one node, served by one callpoint.
struct Group {
    const char *callpoint;
    std::string parent, objects;
};

// TCP-MIB and UDP-MIB, served whole, with the type the daemon replies for each leaf. The other
// providers' replies are checked by confd-emu's reply type check in their end-to-end tests.
const std::vector<Group> kServed = {
    {"tcp_status", "/TCP-MIB/tcp",
     "tcpRtoAlgorithm:enum tcpRtoMin:i32 tcpRtoMax:i32 tcpMaxConn:i32 tcpActiveOpens:u32 "
     "tcpPassiveOpens:u32 tcpAttemptFails:u32 tcpEstabResets:u32 tcpCurrEstab:u32 tcpInSegs:u32 "
     "tcpOutSegs:u32 tcpRetransSegs:u32 tcpInErrs:u32 tcpOutRsts:u32 tcpHCInSegs:u64 "
     "tcpHCOutSegs:u64"},
    {"tcp_status", "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
     "tcpConnectionLocalAddressType:enum tcpConnectionLocalAddress:bin tcpConnectionLocalPort:u32 "
     "tcpConnectionRemAddressType:enum tcpConnectionRemAddress:bin tcpConnectionRemPort:u32 "
     "tcpConnectionState:enum tcpConnectionProcess:u32"},
    {"tcp_status", "/TCP-MIB/tcpListenerTable/tcpListenerEntry",
     "tcpListenerLocalAddressType:enum tcpListenerLocalAddress:bin tcpListenerLocalPort:u32 "
     "tcpListenerProcess:u32"},
    {"udp_status", "/UDP-MIB/udp",
     "udpInDatagrams:u32 udpNoPorts:u32 udpInErrors:u32 udpOutDatagrams:u32 udpHCInDatagrams:u64 "
     "udpHCOutDatagrams:u64"},
    {"udp_status", "/UDP-MIB/udpEndpointTable/udpEndpointEntry",
     "udpEndpointLocalAddressType:enum udpEndpointLocalAddress:bin udpEndpointLocalPort:u32 "
     "udpEndpointRemoteAddressType:enum udpEndpointRemoteAddress:bin udpEndpointRemotePort:u32 "
     "udpEndpointInstance:u32 udpEndpointProcess:u32"},
};

// The reply type fits the leaf and is the leaf's own type (a C_STR reply goes to a string leaf).
::testing::AssertionResult replies_fit(const std::string &path, int v)
{
    const SchemaNode *n = node(path);
    if (!n) return ::testing::AssertionFailure() << path << " is not in the models";
    if (n->kind != NodeKind::Leaf) return ::testing::AssertionFailure() << path << " is no leaf";
    if (v == vt::NOEXISTS) return ::testing::AssertionSuccess();
    bool exact = n->vtype == v || (v == vt::STR && n->vtype == vt::BUF);
    if (!exact || !emu::type_fits(n, v))
        return ::testing::AssertionFailure()
               << path << " is " << vt_name(n->vtype) << " (" << n->type_name << "), the daemon "
               << "replies " << vt_name(v);
    return ::testing::AssertionSuccess();
}

} // namespace

// Every callpoint the daemon registers (and the two it declares but leaves unregistered) is in the
// models exactly once, on the node and with the kind its provider is written for; the models
// declare no other.
TEST(ModelCatalogue, EveryCallpointOnItsNodeWithItsKind)
{
    struct Cp {
        const char *name, *path;
        CpKind kind;
    };
    const CpKind T = CpKind::Transform, P = CpKind::Plain;
    const std::vector<Cp> expected = {
        {"ifstatus-snmp", "/IF-MIB", T},
        {"ifentries-snmp", "/IF-MIB/ifTable", T},
        {"if-state-snmp", "/IF-MIB/ifXTable", T},
        {"tcp_status", "/TCP-MIB", T},
        {"udp_status", "/UDP-MIB", T},
        {"ip6_scope_zone_idx", "/IP-MIB/ipv6ScopeZoneIndexTable", P},
        {"ip_def_router", "/IP-MIB/ipDefaultRouterTable", P},
        {"ip_traf_status", "/IP-MIB/ipTrafficStats", P},
        {"ip_traf_system_stats", "/IP-MIB/ipSystemStatsTable", P},
        {"ip_traf_if_stats", "/IP-MIB/ipIfStatsTable", P},
        {"ip_address_prefix_status", "/IP-MIB/ipAddressPrefixTable", P},
        {"icmp_stat_status", "/IP-MIB/icmpStatsTable", P},
        {"icmp_msg_status", "/IP-MIB/icmpMsgStatsTable", P},
        {"ip_status", "/IP-MIB", P},
        {"ip_address_status", "/IP-MIB/ipAddressTable", P},
        {"ipv6_router_status", "/IP-MIB/ipv6RouterAdvertTable", P},
        {"ip-net-to-physical-stats", "/IP-MIB/ipNetToPhysicalTable", P},
        {"memory_stats", "/UCD-SNMP-MIB/memory", T},
        {"sys_stats", "/UCD-SNMP-MIB/systemStats", T},
        {"version_info", "/UCD-SNMP-MIB/version", T},
        {"process_info", "/UCD-SNMP-MIB/prTable", T},
        {"entphyentry-snmp", "/ENTITY-MIB", T},
        {"zamrel_model_mib_common", "/ZAMREL-MODEL-MIB/common", T},
        {"zamrel_model_mib_basicmgt", "/ZAMREL-MODEL-MIB/basicMgt", T},
        {"zamrel_model_mib_advancemgt", "/ZAMREL-MODEL-MIB/advanceMgt", T},
        {"zamrel_model_mib_mgtcommunitytable", "/ZAMREL-MODEL-MIB/mgtCommunityTable", T},
        {"zamrel_model_mib_trapmgrtable", "/ZAMREL-MODEL-MIB/trapMgrTable", T},
        {"zamrel_model_mib_wandnsnetaddresstable", "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable", T},
        {"zamrel_model_mib_wanconnectiontable", "/ZAMREL-MODEL-MIB/wanConnectionTable", T},
        {"snmp_lldp_stats", "/LLDP-MIB", T},
        // Declared for the dormant interface-configuration provider.
        {"if-snmp", "/interfaces", T},
        {"if-hook", "/interfaces/interface", CpKind::SetHook},
    };
    std::set<std::string> names;
    for (const Cp &c : expected) {
        names.insert(c.name);
        auto nodes = models().callpoint_nodes(c.name);
        ASSERT_EQ(nodes.size(), 1u) << c.name;
        EXPECT_EQ(path_of(nodes[0]), c.path) << c.name;
        EXPECT_EQ(static_cast<int>(nodes[0]->cpkind), static_cast<int>(c.kind)) << c.name;
        EXPECT_NE(nodes[0]->kind, NodeKind::Leaf) << c.name;
    }
    EXPECT_EQ(names.size(), 32u); // no name listed twice
    for (const SchemaNode *n : models().all())
        EXPECT_TRUE(n->cpkind == CpKind::None || names.count(n->callpoint))
            << "undeclared callpoint " << n->callpoint << " on " << path_of(n);
}

// Every TCP-MIB and UDP-MIB leaf is listed above, has an OID and the type the daemon replies, and
// its request reaches the provider that answers it.
TEST(ModelCatalogue, EveryServedObjectHasTheRepliedType)
{
    std::set<std::string> listed;
    size_t checked = 0;
    for (const Group &g : kServed)
        for (const Obj &o : objects(g.objects)) {
            std::string path = g.parent + "/" + o.leaf;
            ++checked;
            listed.insert(path);
            EXPECT_TRUE(replies_fit(path, o.vtype));
            const SchemaNode *n = node(path);
            if (!n) continue;
            EXPECT_FALSE(n->oid.empty()) << path << " has no SNMP OID";
            if (!g.callpoint) continue;
            const SchemaNode *owner = models().callpoint_owner(n);
            ASSERT_NE(owner, nullptr) << path;
            EXPECT_EQ(owner->callpoint, g.callpoint) << path;
        }
    EXPECT_EQ(checked, 42u); // every row above was looked at
    for (const SchemaNode *n : models().all())
        EXPECT_TRUE((n->module != "TCP-MIB" && n->module != "UDP-MIB") ||
                    n->kind != NodeKind::Leaf || listed.count(path_of(n)))
            << "unlisted leaf " << path_of(n);

    // Mistakes the reply type check must catch: a 64-bit counter sent as 32 bits, a state as a
    // plain number, an address as a string.
    const std::vector<std::pair<const char *, int>> misfits = {
        {"/TCP-MIB/tcp/tcpHCInSegs", vt::UINT32},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionState", vt::INT32},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionLocalAddress", vt::BUF},
    };
    for (const auto &m : misfits)
        EXPECT_FALSE(emu::type_fits(node(m.first), m.second)) << m.first;
}

// The TCP and UDP lists are keyed, in order, by the objects and value types their walks reply.
TEST(ModelCatalogue, TableKeysMatchTheWalks)
{
    const std::pair<const char *, const char *> expected[] = {
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
         "tcpConnectionLocalAddressType:enum tcpConnectionLocalAddress:bin "
         "tcpConnectionLocalPort:u32 tcpConnectionRemAddressType:enum "
         "tcpConnectionRemAddress:bin tcpConnectionRemPort:u32"},
        {"/TCP-MIB/tcpListenerTable/tcpListenerEntry",
         "tcpListenerLocalAddressType:enum tcpListenerLocalAddress:bin tcpListenerLocalPort:u32"},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry",
         "udpEndpointLocalAddressType:enum udpEndpointLocalAddress:bin udpEndpointLocalPort:u32 "
         "udpEndpointRemoteAddressType:enum udpEndpointRemoteAddress:bin "
         "udpEndpointRemotePort:u32 udpEndpointInstance:u32"},
    };
    for (const auto &k : expected) {
        const SchemaNode *l = node(k.first);
        std::vector<Obj> keys = objects(k.second);
        ASSERT_NE(l, nullptr) << k.first;
        ASSERT_EQ(l->kind, NodeKind::List) << k.first;
        ASSERT_EQ(l->keys.size(), keys.size()) << k.first;
        for (size_t i = 0; i < keys.size(); ++i) {
            EXPECT_EQ(l->keys[i]->name, keys[i].leaf) << k.first;
            EXPECT_EQ(l->keys[i]->vtype, keys[i].vtype) << k.first << " key " << i;
        }
    }
    const std::string conn = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/";
    auto value_of = [](const std::string &path, const std::string &name) {
        for (const auto &en : node(path)->enums)
            if (en.first == name) return en.second;
        return -1;
    };
    EXPECT_EQ(value_of(conn + "tcpConnectionState", "established"), 5);
    EXPECT_EQ(value_of(conn + "tcpConnectionState", "timeWait"), 11);
    EXPECT_EQ(value_of(conn + "tcpConnectionLocalAddressType", "ipv6"), 2);
}

// The whole set of models yields namespace headers (no tag collision, no macro clash) holding every
// node with its hash, and the numbers the daemon compiles against are the schema's: its tags match
// what confd-emu sends.
TEST(ModelCatalogue, NamespaceHeadersGenerate)
{
    char tmpl[] = "/tmp/leisobek-catalogue-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string dir = tmpl, err;
    EXPECT_TRUE(nsgen::generate(LEISOBEK_MODELS_DIR, dir, err)) << err;
    for (const char *h : {"/IF-MIB.h", "/IP-MIB.h", "/TCP-MIB.h", "/UDP-MIB.h", "/UCD-SNMP-MIB.h",
                          "/ENTITY-MIB.h", "/LLDP-MIB.h", "/ZAMREL-MODEL-MIB.h",
                          "/SNMP-COMMUNITY-MIB.h", "/router-interfaces.h", "/aaa.h"})
        EXPECT_EQ(access((dir + h).c_str(), R_OK), 0) << h;
    std::system(("rm -rf '" + dir + "'").c_str());

    const emu::Schema &s = models();
    for (const auto &ns : s.namespaces()) {
        if (ns.module != "TCP-MIB") continue;
        std::string text;
        ASSERT_TRUE(nsgen::module_header(s, ns, text, err)) << err;
        for (const SchemaNode *n : s.all())
            if (n->module == "TCP-MIB") {
                EXPECT_NE(text.find("#define TCP_MIB_" + nsgen::c_ident(n->name) + " " +
                                    std::to_string(n->tag) + "\n"),
                          std::string::npos)
                    << n->name;
            }
    }

#ifdef LEISOBEK_OWN_NS_HEADERS
    const std::string conn = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/";
    const std::vector<std::pair<uint32_t, std::string>> tags = {
        {TCP_MIB_tcpConnectionState, conn + "tcpConnectionState"},
        {TCP_MIB_tcpHCInSegs, "/TCP-MIB/tcp/tcpHCInSegs"},
        {UDP_MIB_udpEndpointProcess,
         "/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointProcess"},
        {IF_MIB_ifIndex, "/IF-MIB/ifXTable/ifXEntry/ifIndex"},
        {IP_MIB_ipAddressPrefixOrigin,
         "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixOrigin"},
        {ZAMREL_MODEL_MIB_hostName, "/ZAMREL-MODEL-MIB/basicMgt/hostName"},
        {if_ifIndex, "/interfaces/interface/ifIndex"},
    };
    for (const auto &t : tags)
        EXPECT_EQ(t.first, node(t.second)->tag) << t.second;
    EXPECT_EQ(TCP_MIB__ns, node("/TCP-MIB")->ns);
    EXPECT_EQ(UDP_MIB__ns, node("/UDP-MIB/udp")->ns);
    EXPECT_EQ(if__ns, node("/interfaces")->ns);
    EXPECT_STREQ(TCP_MIB__ns_uri, "urn:ietf:params:xml:ns:yang:smiv2:TCP-MIB");
    EXPECT_STREQ(s.name_of(TCP_MIB_tcpConnectionState), "tcpConnectionState");
    EXPECT_STREQ(s.name_of(UDP_MIB__ns), "UDP-MIB");
    EXPECT_STREQ(TCP_MIB__callpointid_tcp_status, "tcp_status");
    EXPECT_STREQ(UDP_MIB__callpointid_udp_status, "udp_status");
    EXPECT_STREQ(IF_MIB__callpointid_ifstatus_snmp, "ifstatus-snmp");
    EXPECT_STREQ(IP_MIB__callpointid_ip_net_to_physical_stats, "ip-net-to-physical-stats");
    EXPECT_STREQ(if__callpointid_if_hook, "if-hook");
    EXPECT_EQ(TCP_MIB_established, 5);
    EXPECT_EQ(IF_MIB_wlanRadio, 2129706804);
    EXPECT_EQ(IF_MIB_pppoeSession, 1109646644);
#endif
}
