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

// Objects below one node, served by one callpoint (null: none, e.g. notification bindings).
struct Group {
    const char *callpoint;
    std::string parent, objects;
};

// Every object the providers answer, with the type the daemon replies; ipSystemStatsTable and
// ipIfStatsTable are added by served().
const std::vector<Group> kServed = {
    // Interface state: ifNumber, ifTable, ifXTable; the discard pair and the address answer absent.
    {"ifstatus-snmp", "/IF-MIB/interfaces", "ifNumber:i32"},
    {"ifentries-snmp", "/IF-MIB/ifTable/ifEntry",
     "ifIndex:i32 ifDescr:str ifType:enum ifMtu:i32 ifSpeed:u32 ifAdminStatus:enum "
     "ifOperStatus:enum ifInOctets:u32 ifInUcastPkts:u32 ifOutOctets:u32 ifOutUcastPkts:u32 "
     "ifInErrors:u32 ifOutErrors:u32 ifInDiscards:absent ifOutDiscards:absent "
     "ifPhysAddress:absent"},
    {"if-state-snmp", "/IF-MIB/ifXTable/ifXEntry",
     "ifIndex:i32 ifName:str ifHighSpeed:u32 ifInMulticastPkts:u32 ifInBroadcastPkts:u32 "
     "ifOutMulticastPkts:u32 ifOutBroadcastPkts:u32 ifHCInOctets:u64 ifHCInUcastPkts:u64 "
     "ifHCInMulticastPkts:u64 ifHCInBroadcastPkts:u64 ifHCOutOctets:u64 ifHCOutUcastPkts:u64 "
     "ifHCOutMulticastPkts:u64 ifHCOutBroadcastPkts:u64"},
    // Bindings of linkUp and linkDown (no callpoint).
    {nullptr, "/IF-MIB/ifXTable/ifXEntry", "ifName:str"},
    {nullptr, "/IF-MIB/ifTable/ifEntry", "ifIndex:i32 ifAdminStatus:enum ifOperStatus:enum"},
    // TCP-MIB and UDP-MIB: every leaf of both modules.
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
    // IP-MIB; tables without a provider of their own fall to ip_status and are empty.
    {"ip_status", "/IP-MIB/ip",
     "ipForwarding:enum ipDefaultTTL:i32 ipReasmTimeout:i32 ipv6IpForwarding:enum "
     "ipv6IpDefaultHopLimit:i32 ipv4InterfaceTableLastChange:u32 ipv6InterfaceTableLastChange:u32"},
    {"ip_status", "/IP-MIB/ipv4InterfaceTable/ipv4InterfaceEntry",
     "ipv4InterfaceEnableStatus:absent"},
    {"ip_status", "/IP-MIB/ipv6InterfaceTable/ipv6InterfaceEntry",
     "ipv6InterfaceForwarding:absent"},
    {"ip_traf_status", "/IP-MIB/ipTrafficStats", "ipIfStatsTableLastChange:u32"},
    {"ip_address_prefix_status", "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry",
     "ipAddressPrefixIfIndex:i32 ipAddressPrefixType:enum ipAddressPrefixPrefix:bin "
     "ipAddressPrefixLength:u32 ipAddressPrefixOrigin:enum ipAddressPrefixOnLinkFlag:enum "
     "ipAddressPrefixAutonomousFlag:enum ipAddressPrefixAdvPreferredLifetime:u32 "
     "ipAddressPrefixAdvValidLifetime:u32"},
    {"ip-net-to-physical-stats", "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry",
     "ipNetToPhysicalIfIndex:i32 ipNetToPhysicalNetAddressType:enum ipNetToPhysicalNetAddress:bin "
     "ipNetToPhysicalPhysAddress:bin ipNetToPhysicalType:enum ipNetToPhysicalState:enum "
     "ipNetToPhysicalLastUpdated:u32 ipNetToPhysicalRowStatus:absent"},
    {"ip_def_router", "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry",
     "ipDefaultRouterAddressType:enum ipDefaultRouterAddress:bin ipDefaultRouterIfIndex:i32 "
     "ipDefaultRouterLifetime:u32 ipDefaultRouterPreference:enum"},
    {"ip6_scope_zone_idx", "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry",
     "ipv6ScopeZoneIndexIfIndex:i32 ipv6ScopeZoneIndexLinkLocal:u32 ipv6ScopeZoneIndex3:u32 "
     "ipv6ScopeZoneIndexAdminLocal:u32 ipv6ScopeZoneIndexSiteLocal:u32 ipv6ScopeZoneIndex6:u32 "
     "ipv6ScopeZoneIndex7:u32 ipv6ScopeZoneIndexOrganizationLocal:u32 ipv6ScopeZoneIndex9:u32 "
     "ipv6ScopeZoneIndexA:u32 ipv6ScopeZoneIndexB:u32 ipv6ScopeZoneIndexC:u32 "
     "ipv6ScopeZoneIndexD:u32"},
    {"icmp_stat_status", "/IP-MIB/icmpStatsTable/icmpStatsEntry",
     "icmpStatsIPVersion:enum icmpStatsInMsgs:u32 icmpStatsInErrors:u32 icmpStatsOutMsgs:u32 "
     "icmpStatsOutErrors:u32"},
    {"icmp_msg_status", "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry",
     "icmpMsgStatsIPVersion:enum icmpMsgStatsType:i32 icmpMsgStatsInPkts:u32 "
     "icmpMsgStatsOutPkts:u32"},
    {"ipv6_router_status", "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry",
     "ipv6RouterAdvertIfIndex:i32 ipv6RouterAdvertSendAdverts:enum "
     "ipv6RouterAdvertMaxInterval:u32 ipv6RouterAdvertMinInterval:u32 "
     "ipv6RouterAdvertManagedFlag:enum ipv6RouterAdvertOtherConfigFlag:enum "
     "ipv6RouterAdvertLinkMTU:u32 ipv6RouterAdvertReachableTime:u32 "
     "ipv6RouterAdvertRetransmitTime:u32 ipv6RouterAdvertCurHopLimit:u32 "
     "ipv6RouterAdvertDefaultLifetime:u32 ipv6RouterAdvertRowStatus:absent"},
    {"ip_address_status", "/IP-MIB/ipAddressTable/ipAddressEntry",
     "ipAddressAddrType:enum ipAddressAddr:bin ipAddressIfIndex:i32 ipAddressType:enum "
     "ipAddressPrefix:oid ipAddressOrigin:enum ipAddressStatus:enum ipAddressStorageType:enum "
     "ipAddressCreated:u32 ipAddressLastChanged:u32 ipAddressRowStatus:absent"},
    // UCD-SNMP-MIB.
    {"sys_stats", "/UCD-SNMP-MIB/systemStats",
     "ssIndex:u32 ssErrorName:str ssCpuRawUser:u32 ssCpuRawSystem:u32 ssCpuRawIdle:u32 "
     "ssCpuRawInterrupt:u32 ssRawSwapIn:u32 ssRawSwapOut:u32 ssRawContexts:u32 ssCpuUser:absent"},
    {"memory_stats", "/UCD-SNMP-MIB/memory",
     "memIndex:u32 memErrorName:str memTotalSwap:u32 memAvailSwap:u32 memTotalReal:u32 "
     "memAvailReal:u32 memTotalFree:u32 memShared:u32 memBuffer:u32 memCached:u32"},
    {"version_info", "/UCD-SNMP-MIB/version", "versionTag:str versionDate:str versionCDate:str"},
    {"process_info", "/UCD-SNMP-MIB/prTable/prEntry",
     "prIndex:i32 prNames:str prMin:u32 prMax:u32 prCount:u32"},
    // ENTITY-MIB: the chassis row.
    {"entphyentry-snmp", "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry",
     "entPhysicalDescr:str entPhysicalName:str entPhysicalHardwareRev:str "
     "entPhysicalFirmwareRev:str entPhysicalSerialNum:str entPhysicalMfgName:str "
     "entPhysicalModelName:str entPhysicalIndex:i32"},
    // The private model MIB (reboot and factoryDefault are only written).
    {"zamrel_model_mib_common", "/ZAMREL-MODEL-MIB/common",
     "commonProductName:str commonFirmwareVersion:str commonHardwareVersion:str "
     "commonSerialNumber:str commonDeviceState:enum"},
    {"zamrel_model_mib_basicmgt", "/ZAMREL-MODEL-MIB/basicMgt",
     "hostName:str domainName:str adminUserName:str adminPassword:str dhcpServerMode:enum "
     "dhcpStartAddress:ipv4 dhcpRangeSize:i32 lanIpAddress:ipv4 lanSubnetMask:ipv4 reboot:enum "
     "factoryDefault:enum"},
    {"zamrel_model_mib_advancemgt", "/ZAMREL-MODEL-MIB/advanceMgt",
     "snmpV1V2cStatus:enum snmpV3Status:enum upnpStatus:enum"},
    {"zamrel_model_mib_mgtcommunitytable", "/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry",
     "mgtCommunityIndex:i32 mgtCommunityName:str mgtCommunityAccess:enum"},
    {"zamrel_model_mib_trapmgrtable", "/ZAMREL-MODEL-MIB/trapMgrTable/trapMgrEntry",
     "trapMgrIndex:i32 trapMgrIpAddress:ipv4 trapMgrCommunity:str"},
    {"zamrel_model_mib_wandnsnetaddresstable",
     "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry",
     "wanDnsNetAddressWanIndex:i32 wanDnsNetAddressPreference:i32 wanDnsNetAddressServer:ipv4"},
    {"zamrel_model_mib_wanconnectiontable",
     "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry",
     "wanConnectionIndex:i32 wanConnectionIfIndex:i32 wanConnectionType:enum "
     "wanConnectionIpAddress:ipv4 wanConnectionSubnetMask:ipv4 wanConnectionGateway:ipv4 "
     "wanConnectionMacAddress:bin wanConnectionReserved1:i32 wanConnectionReserved2:i32 "
     "wanConnectionPppUserName:str wanConnectionPppPassword:str wanConnectionNatStatus:enum "
     "wanConnectionPppConnectMode:enum wanConnectionPppIdleTime:i32 "
     "wanConnectionPppRetryCount:i32 wanConnectionPppAuthAuto:i32"},
    // LLDP-MIB remote systems.
    {"snmp_lldp_stats", "/LLDP-MIB/lldpRemTable/lldpRemEntry",
     "lldpRemTimeMark:u32 lldpRemLocalPortNum:i32 lldpRemIndex:i32 lldpRemChassisIdSubtype:enum "
     "lldpRemChassisId:bin lldpRemPortIdSubtype:enum lldpRemPortId:bin lldpRemPortDesc:str "
     "lldpRemSysName:str lldpRemSysDesc:str lldpRemSysCapSupported:bits lldpRemSysCapEnabled:bits"},
};

// The traffic-statistics columns of ipSystemStatsTable and ipIfStatsTable, after the table's
// prefix (the per-interface rows follow the same rules); the one never-filled field answers 0 for
// whichever of the last two it stands for.
const char kTrafficColumns[] =
    "InReceives:u32 HCInReceives:u64 InOctets:u32 HCInOctets:u64 InHdrErrors:u32 InNoRoutes:u32 "
    "InAddrErrors:u32 InUnknownProtos:u32 InTruncatedPkts:u32 InForwDatagrams:u32 "
    "HCInForwDatagrams:u64 ReasmReqds:u32 ReasmOKs:u32 ReasmFails:u32 InDiscards:u32 "
    "InDelivers:u32 HCInDelivers:u64 OutRequests:u32 HCOutRequests:u64 OutNoRoutes:u32 "
    "OutForwDatagrams:u32 HCOutForwDatagrams:u64 OutDiscards:u32 OutFragReqds:u32 OutFragOKs:u32 "
    "OutFragFails:u32 OutFragCreates:u32 OutTransmits:u32 HCOutTransmits:u64 OutOctets:u32 "
    "HCOutOctets:u64 InMcastPkts:u32 HCInMcastPkts:u64 InMcastOctets:u32 HCInMcastOctets:u64 "
    "OutMcastPkts:u32 HCOutMcastPkts:u64 OutMcastOctets:u32 HCOutMcastOctets:u64 InBcastPkts:u32 "
    "HCInBcastPkts:u64 OutBcastPkts:u32 HCOutBcastPkts:u64 DiscontinuityTime:u32 RefreshRate:u32";

std::vector<Group> served()
{
    std::vector<Group> all = kServed;
    for (std::string t : {"ipSystemStats", "ipIfStats"}) {
        bool per_if = t == "ipIfStats";
        Group g{per_if ? "ip_traf_if_stats" : "ip_traf_system_stats",
                "/IP-MIB/" + t + "Table/" + t + "Entry", t + "IPVersion:enum"};
        if (per_if) g.objects += " " + t + "IfIndex:i32";
        std::istringstream columns(kTrafficColumns);
        for (std::string c; columns >> c;)
            g.objects += " " + t + c;
        all.push_back(g);
    }
    return all;
}

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

// Every object a provider answers is a leaf with an OID whose type is the one the daemon replies,
// and the request reaches the provider that answers it; TCP-MIB and UDP-MIB are served whole.
TEST(ModelCatalogue, EveryServedObjectHasTheRepliedType)
{
    std::set<std::string> listed;
    size_t checked = 0;
    for (const Group &g : served())
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
    EXPECT_EQ(checked, 340u); // every row above was looked at
    for (const SchemaNode *n : models().all())
        EXPECT_TRUE((n->module != "TCP-MIB" && n->module != "UDP-MIB") ||
                    n->kind != NodeKind::Leaf || listed.count(path_of(n)))
            << "unlisted leaf " << path_of(n);

    // Mistakes the daemon's replies would expose: a 64-bit counter sent as 32 bits, a state as a
    // plain number, an address as a string, a TruthValue as a boolean, a memory size as signed.
    const std::vector<std::pair<const char *, int>> misfits = {
        {"/TCP-MIB/tcp/tcpHCInSegs", vt::UINT32},
        {"/IF-MIB/ifXTable/ifXEntry/ifHCInOctets", vt::UINT32},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionState", vt::INT32},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionLocalAddress", vt::BUF},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertSendAdverts",
         vt::BOOL},
        {"/UCD-SNMP-MIB/memory/memTotalReal", vt::INT32},
        {"/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressPrefix", vt::BINARY},
    };
    for (const auto &m : misfits)
        EXPECT_FALSE(emu::type_fits(node(m.first), m.second)) << m.first;
}

// Lists are keyed, in order, by the objects and value types the walks reply; indexes that the
// providers number from 0 admit 0.
TEST(ModelCatalogue, TableKeysMatchTheWalks)
{
    const std::pair<const char *, const char *> expected[] = {
        {"/IF-MIB/ifTable/ifEntry", "ifIndex:i32"},
        {"/IF-MIB/ifXTable/ifXEntry", "ifIndex:i32"},
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
        {"/IP-MIB/ipSystemStatsTable/ipSystemStatsEntry", "ipSystemStatsIPVersion:enum"},
        {"/IP-MIB/ipIfStatsTable/ipIfStatsEntry", "ipIfStatsIPVersion:enum ipIfStatsIfIndex:i32"},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry",
         "ipAddressPrefixIfIndex:i32 ipAddressPrefixType:enum ipAddressPrefixPrefix:bin "
         "ipAddressPrefixLength:u32"},
        {"/IP-MIB/ipAddressTable/ipAddressEntry", "ipAddressAddrType:enum ipAddressAddr:bin"},
        {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry",
         "ipNetToPhysicalIfIndex:i32 ipNetToPhysicalNetAddressType:enum "
         "ipNetToPhysicalNetAddress:bin"},
        {"/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry",
         "ipDefaultRouterAddressType:enum ipDefaultRouterAddress:bin ipDefaultRouterIfIndex:i32"},
        {"/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry",
         "ipv6ScopeZoneIndexIfIndex:i32"},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry", "ipv6RouterAdvertIfIndex:i32"},
        {"/IP-MIB/icmpStatsTable/icmpStatsEntry", "icmpStatsIPVersion:enum"},
        {"/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry",
         "icmpMsgStatsIPVersion:enum icmpMsgStatsType:i32"},
        {"/UCD-SNMP-MIB/prTable/prEntry", "prIndex:i32"},
        {"/ENTITY-MIB/entPhysicalTable/entPhysicalEntry", "entPhysicalIndex:i32"},
        {"/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry", "mgtCommunityIndex:i32"},
        {"/ZAMREL-MODEL-MIB/trapMgrTable/trapMgrEntry", "trapMgrIndex:i32"},
        {"/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry",
         "wanDnsNetAddressWanIndex:i32 wanDnsNetAddressIndex:i32"},
        {"/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry", "wanConnectionIndex:i32"},
        {"/LLDP-MIB/lldpRemTable/lldpRemEntry",
         "lldpRemTimeMark:u32 lldpRemLocalPortNum:i32 lldpRemIndex:i32"},
        // Configuration lists the daemon walks with MAAPI cursors or names in XPath predicates.
        {"/interfaces/interface", "name:buf"},
        {"/interfaces-state/interface", "name:buf"},
        {"/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry", "snmpCommunityIndex:buf"},
        {"/aaa:aaa/authentication/users/user", "name:buf"},
        {"/dhcp-pools/pool", "pool-id:u32"},
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

    // Index values the walks hand out as 0: an interface listed without an index, neighbours and
    // private-MIB rows numbered from 0.
    ly_log_options(LY_LOSTORE);
    auto admits = [](const std::string &path, const char *value) {
        const SchemaNode *n = node(path);
        return n && lyd_value_validate(models().ctx(), n->lys, value, strlen(value), nullptr,
                                       nullptr, nullptr) == LY_SUCCESS;
    };
    for (const char *p : {
             "/IF-MIB/ifTable/ifEntry/ifIndex",
             "/IF-MIB/ifXTable/ifXEntry/ifIndex",
             "/IP-MIB/ipIfStatsTable/ipIfStatsEntry/ipIfStatsIfIndex",
             "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemLocalPortNum",
             "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemIndex",
             "/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry/mgtCommunityIndex",
             "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry/"
             "wanDnsNetAddressWanIndex",
             "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionIndex",
         })
        EXPECT_TRUE(admits(p, "0")) << p;
    EXPECT_TRUE(admits("/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalIndex", "1"));
    EXPECT_FALSE(admits("/IF-MIB/ifTable/ifEntry/ifIndex", "-1"));
    ly_log_options(LY_LOLOG | LY_LOSTORE_LAST);
}

// Every enumerator value a provider replies, or a hook acts on, is defined by its leaf
// ("leaf:values" words below each node), under the names the command line shows.
TEST(ModelCatalogue, EnumerationsHoldEveryRepliedValue)
{
    const std::pair<const char *, const char *> expected[] = {
        // ifType by interface name: IANA numbers and the model's own kinds.
        {"/IF-MIB/ifTable/ifEntry",
         "ifType:160,135,2129706804,71,6,1109646644,977264863,1183478925,1843840433 "
         "ifAdminStatus:1,2 ifOperStatus:1,2"},
        {"/TCP-MIB/tcp", "tcpRtoAlgorithm:1"},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry",
         "tcpConnectionLocalAddressType:1,2 tcpConnectionState:1,2,3,4,5,6,7,8,9,10,11"},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry", "udpEndpointLocalAddressType:0,1,2"},
        {"/IP-MIB/ip", "ipForwarding:1,2 ipv6IpForwarding:1,2"},
        {"/IP-MIB/ipSystemStatsTable/ipSystemStatsEntry", "ipSystemStatsIPVersion:1,2"},
        {"/IP-MIB/ipIfStatsTable/ipIfStatsEntry", "ipIfStatsIPVersion:2"},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry",
         "ipAddressPrefixType:1,2 ipAddressPrefixOrigin:1,2,3,5 ipAddressPrefixOnLinkFlag:1 "
         "ipAddressPrefixAutonomousFlag:2"},
        {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry",
         "ipNetToPhysicalNetAddressType:1,2 ipNetToPhysicalType:3,4 "
         "ipNetToPhysicalState:1,2,3,4,7"},
        {"/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry",
         "ipDefaultRouterAddressType:1,2 ipDefaultRouterPreference:0"},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry",
         "ipv6RouterAdvertSendAdverts:1,2 ipv6RouterAdvertManagedFlag:2 "
         "ipv6RouterAdvertOtherConfigFlag:2"},
        {"/IP-MIB/icmpStatsTable/icmpStatsEntry", "icmpStatsIPVersion:1,2"},
        {"/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry", "icmpMsgStatsIPVersion:1,2"},
        {"/IP-MIB/ipAddressTable/ipAddressEntry",
         "ipAddressAddrType:1,2 ipAddressType:1,2,3 ipAddressOrigin:2,5,6 "
         "ipAddressStatus:1,2,5,6 ipAddressStorageType:2,4"},
        {"/ZAMREL-MODEL-MIB/common", "commonDeviceState:0,1,2,3"},
        // reboot 2 reboots, factoryDefault 1 restores; private-MIB slots never loaded answer 0.
        {"/ZAMREL-MODEL-MIB/basicMgt", "dhcpServerMode:0,1 reboot:1,2 factoryDefault:1,2"},
        {"/ZAMREL-MODEL-MIB/advanceMgt", "snmpV1V2cStatus:0,1 snmpV3Status:0,1 upnpStatus:0,1"},
        {"/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry", "mgtCommunityAccess:0,1,2"},
        {"/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry",
         "wanConnectionType:0,1,2,3,5 wanConnectionNatStatus:0,2 wanConnectionPppConnectMode:0,1"},
        {"/LLDP-MIB/lldpRemTable/lldpRemEntry",
         "lldpRemChassisIdSubtype:1,4 lldpRemPortIdSubtype:1,4"},
    };
    for (const auto &e : expected) {
        std::istringstream words(e.second);
        for (std::string w; words >> w;) {
            size_t colon = w.find(':');
            const SchemaNode *n = node(e.first + ("/" + w.substr(0, colon)));
            ASSERT_NE(n, nullptr) << e.first << " " << w;
            std::set<int32_t> have;
            for (const auto &en : n->enums)
                have.insert(en.second);
            std::istringstream values(w.substr(colon + 1));
            for (std::string v; std::getline(values, v, ',');)
                EXPECT_TRUE(have.count(std::stoi(v))) << path_of(n) << " lacks " << v;
        }
    }
    // Names that differ from one leaf to the next: upnp counts the other way round from the SNMP
    // version leaves (0 is on).
    auto value_of = [](const std::string &path, const std::string &name) {
        for (const auto &en : node(path)->enums)
            if (en.first == name) return en.second;
        return -1;
    };
    const std::string conn = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/";
    EXPECT_EQ(value_of(conn + "tcpConnectionState", "established"), 5);
    EXPECT_EQ(value_of(conn + "tcpConnectionState", "timeWait"), 11);
    EXPECT_EQ(value_of(conn + "tcpConnectionLocalAddressType", "ipv6"), 2);
    EXPECT_EQ(value_of("/ZAMREL-MODEL-MIB/advanceMgt/upnpStatus", "upnpOn"), 0);
    EXPECT_EQ(value_of("/ZAMREL-MODEL-MIB/advanceMgt/snmpV3Status", "enabled"), 1);
    EXPECT_GE(value_of("/dhcp-pools/pool/ipv4/dhcp-mode", "server"), 0);
    EXPECT_GE(value_of("/interfaces/interface/ipv4/setting/pppoe/authentication-type", "auto"), 0);
}

// The configuration the daemon reads through MAAPI is stored data (no provider in front of it)
// with the types its typed reads and writes use; the private MIB's writes land on leaves of the
// same type.
TEST(ModelCatalogue, ConfigurationPathsAreStoredWithTheirTypes)
{
    std::vector<std::pair<std::string, std::string>> groups = {
        // Typed reads and writes of the interface list (maapi_get_*_elem, maapi_set_elem).
        {"/interfaces/interface", "ifIndex:i32 name:buf description:buf type:idref enabled:bool"},
        // Community walk (maapi_get_buf_elem).
        {"/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry",
         "snmpCommunityName:buf snmpCommunitySecurityName:buf"},
        // XPath reads (their text is what the daemon looks at).
        {"/system", "hostname:buf domain-name:buf"},
        {"/aaa:aaa/authentication/users/user", "name:buf password:buf"},
        {"/dhcp-pools/pool", "pool-id:u32"},
        {"/dhcp-pools/pool/ipv4", "dhcp-mode:enum range-start:ipv4 range-end:ipv4"},
        {"/interfaces-state/interface", "if-index:i32"},
        {"/interfaces/interface/ipv4/setting/dynamic", "peerdns:bool"},
        {"/interfaces/interface/ipv4/setting/static", "ifname:buf"},
        {"/confdConfig/snmpAgent/snmpVersions", "v1:bool v2:bool v3:bool"},
        {"/firewall", "upnp:bool"},
    };
    // The PPP settings read for the PPPoE and PPTP modes (and present for L2TP alike).
    for (std::string mode : {"pppoe", "pptp", "l2tp"})
        groups.emplace_back("/interfaces/interface/ipv4/setting/" + mode,
                            "peerdns:bool username:buf password:buf keepalive:buf demand:u32 "
                            "authentication-type:enum");
    for (const auto &g : groups)
        for (const Obj &o : objects(g.second)) {
            std::string path = g.first + "/" + o.leaf;
            const SchemaNode *n = node(path);
            ASSERT_NE(n, nullptr) << path;
            EXPECT_EQ(n->kind, NodeKind::Leaf) << path;
            EXPECT_EQ(n->vtype, o.vtype) << path << " is " << vt_name(n->vtype);
            const SchemaNode *owner = models().callpoint_owner(n);
            EXPECT_TRUE(!owner || owner->cpkind == CpKind::SetHook)
                << path << " is served by " << owner->callpoint;
            EXPECT_EQ(n->config, path.rfind("/interfaces-state", 0) != 0) << path;
        }
    // Host and domain name written by the SNMP set go to the system leaves unchanged.
    for (auto [mib, cfg] :
         {std::pair{"/ZAMREL-MODEL-MIB/basicMgt/hostName", "/system/hostname"},
          std::pair{"/ZAMREL-MODEL-MIB/basicMgt/domainName", "/system/domain-name"}}) {
        EXPECT_EQ(node(mib)->vtype, node(cfg)->vtype) << mib;
        EXPECT_TRUE(node(mib)->config) << mib << " must be writable";
    }
}

// MIB-derived modules: every node below a module container has its OID, entries sit at their
// table's OID plus .1 and columns below their entry; status data is read-only except the
// private MIB's written leaves and the community configuration.
TEST(ModelCatalogue, MibOidsAndWritability)
{
    std::set<std::string> writable;
    int mib_nodes = 0;
    for (const SchemaNode *n : models().all()) {
        if (n->module.size() < 4 || n->module.compare(n->module.size() - 4, 4, "-MIB") != 0)
            continue;
        if (!n->parent) {
            EXPECT_TRUE(n->oid.empty()) << n->module;
            continue;
        }
        ++mib_nodes;
        ASSERT_FALSE(n->oid.empty()) << path_of(n);
        if (n->kind == NodeKind::List) {
            EXPECT_EQ(n->oid, n->parent->oid + ".1") << path_of(n);
        }
        bool augmenting_index =
            n->module == "IF-MIB" && n->name == "ifIndex" && n->parent->name == "ifXEntry";
        if (n->parent->parent && !augmenting_index) {
            EXPECT_EQ(n->oid.rfind(n->parent->oid + ".", 0), 0u) << path_of(n) << " " << n->oid;
        }
        if (n->kind == NodeKind::Leaf && n->config) writable.insert(path_of(n));
    }
    EXPECT_GT(mib_nodes, 400);
    EXPECT_EQ(node("/IF-MIB/ifXTable/ifXEntry/ifIndex")->oid,
              node("/IF-MIB/ifTable/ifEntry/ifIndex")->oid);
    EXPECT_EQ(node("/TCP-MIB/tcpConnectionTable/tcpConnectionEntry")->oid, "1.3.6.1.2.1.6.19.1");
    EXPECT_EQ(node("/TCP-MIB/tcp/tcpHCOutSegs")->oid, "1.3.6.1.2.1.6.18");
    EXPECT_EQ(node("/UDP-MIB/udp/udpHCInDatagrams")->oid, "1.3.6.1.2.1.7.8");
    EXPECT_EQ(node("/ZAMREL-MODEL-MIB/basicMgt")->oid.rfind("1.3.6.1.4.1.99999.", 0), 0u);

    std::set<std::string> expected = {
        "/ZAMREL-MODEL-MIB/basicMgt/hostName", "/ZAMREL-MODEL-MIB/basicMgt/domainName",
        "/ZAMREL-MODEL-MIB/basicMgt/reboot", "/ZAMREL-MODEL-MIB/basicMgt/factoryDefault"};
    for (const SchemaNode *c :
         node("/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry")->children)
        expected.insert(path_of(c));
    EXPECT_EQ(writable, expected);
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
