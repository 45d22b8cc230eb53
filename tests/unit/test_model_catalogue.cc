// Catalogue of the callpoints the daemon expects in the YANG models. The tags it compiles against
// and the value and key types its replies carry are checked by confd-emu in the providers'
// end-to-end walks (test_tcp, test_udp, ...).
#include "model_schema.h"

#include <set>
#include <string>
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
