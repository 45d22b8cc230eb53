// Catalogue of what the daemon expects from the YANG models: its callpoints and the namespace
// headers it compiles against. The value and key types its replies carry are checked by
// confd-emu's reply type check in the providers' end-to-end walks (test_tcp, test_udp, ...).
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

#include <cstdlib>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

using emu::CpKind;
using emu::NodeKind;
using emu::SchemaNode;

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
#endif
}
