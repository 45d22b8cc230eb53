// Catalogue of what the daemon expects from the YANG models: callpoints, served objects and the
// value types it replies, table keys, enumerators, configuration paths and the demo configuration.
#include "nsgen.h"
#include "schema.h"

#ifdef LEISOBEK_OWN_NS_HEADERS // not with the SDK's headers, whose numbers are the SDK compiler's
#include "IF-MIB.h"
#include "IP-MIB.h"
#include "ZAMREL-MODEL-MIB.h"
#include "router-interfaces.h"
#endif

#include <libyang/libyang.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <unistd.h>
#include <vector>

using emu::CpKind;
using emu::NodeKind;
using emu::Schema;
using emu::SchemaNode;
namespace vt = emu::vt;

namespace
{

const Schema &models()
{
    static Schema *s = [] {
        auto *sc = new Schema;
        std::string err;
        EXPECT_TRUE(sc->load(LEISOBEK_MODELS_DIR, err)) << err;
        return sc;
    }();
    return *s;
}

// Schema node of a path of node names ("/IF-MIB/ifTable/ifEntry/ifType", "/aaa:aaa/..."), or null.
const SchemaNode *node(const std::string &path)
{
    const SchemaNode *n = nullptr;
    size_t i = 1;
    while (i <= path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        n = models().child(n, path.substr(i, j - i));
        if (!n) return nullptr;
        i = j + 1;
    }
    return n;
}

std::string path_of(const SchemaNode *n)
{
    return n ? path_of(n->parent) + "/" + n->name : "";
}

std::string vt_name(int v)
{
    const char *n = emu::vtype_name(v);
    return n ? n : std::to_string(v);
}

// The reply type fits the leaf and is the leaf's own type (a C_STR reply goes to a string leaf).
// C_NOEXISTS stands for an object the provider answers as absent: it only has to exist.
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

struct Obj {
    const char *object; // MIB object or leaf name as the provider knows it
    const char *path;
    int vtype; // what the daemon replies (C_NOEXISTS: answered as absent)
};

// Objects served by one callpoint (null: no callpoint, e.g. notification bindings).
struct Area {
    const char *callpoint;
    std::vector<Obj> objects;
};

// The traffic-statistics columns shared by ipSystemStatsTable and ipIfStatsTable (the per-interface
// rows are answered by the same rules): suffix after the table prefix, reply type.
const std::vector<std::pair<const char *, int>> kTrafficColumns = {
    {"InReceives", vt::UINT32},
    {"HCInReceives", vt::UINT64},
    {"InOctets", vt::UINT32},
    {"HCInOctets", vt::UINT64},
    {"InHdrErrors", vt::UINT32},
    {"InNoRoutes", vt::UINT32},
    {"InAddrErrors", vt::UINT32},
    {"InUnknownProtos", vt::UINT32},
    {"InTruncatedPkts", vt::UINT32},
    {"InForwDatagrams", vt::UINT32},
    {"HCInForwDatagrams", vt::UINT64},
    {"ReasmReqds", vt::UINT32},
    {"ReasmOKs", vt::UINT32},
    {"ReasmFails", vt::UINT32},
    {"InDiscards", vt::UINT32},
    {"InDelivers", vt::UINT32},
    {"HCInDelivers", vt::UINT64},
    {"OutRequests", vt::UINT32},
    {"HCOutRequests", vt::UINT64},
    {"OutNoRoutes", vt::UINT32},
    {"OutForwDatagrams", vt::UINT32},
    {"HCOutForwDatagrams", vt::UINT64},
    {"OutDiscards", vt::UINT32},
    {"OutFragReqds", vt::UINT32},
    {"OutFragOKs", vt::UINT32},
    {"OutFragFails", vt::UINT32},
    {"OutFragCreates", vt::UINT32},
    {"OutTransmits", vt::UINT32},
    {"HCOutTransmits", vt::UINT64},
    {"OutOctets", vt::UINT32},
    {"HCOutOctets", vt::UINT64},
    {"InMcastPkts", vt::UINT32},
    {"HCInMcastPkts", vt::UINT64},
    {"InMcastOctets", vt::UINT32},
    {"HCInMcastOctets", vt::UINT64},
    {"OutMcastPkts", vt::UINT32},
    {"HCOutMcastPkts", vt::UINT64},
    {"OutMcastOctets", vt::UINT32},
    {"HCOutMcastOctets", vt::UINT64},
    {"InBcastPkts", vt::UINT32},
    {"HCInBcastPkts", vt::UINT64},
    {"OutBcastPkts", vt::UINT32},
    {"HCOutBcastPkts", vt::UINT64},
    // The one never-filled field answers 0 for whichever of these two it stands for.
    {"DiscontinuityTime", vt::UINT32},
    {"RefreshRate", vt::UINT32},
};

// Every object the providers answer, by area, with the path the models give it and the type the
// daemon replies.
std::vector<Area> catalogue()
{
    std::vector<Area> c = {
        // Interface state: ifNumber, ifTable, ifXTable.
        {"ifstatus-snmp", {{"ifNumber", "/IF-MIB/interfaces/ifNumber", vt::INT32}}},
        {"ifentries-snmp",
         {
             {"ifIndex", "/IF-MIB/ifTable/ifEntry/ifIndex", vt::INT32},
             {"ifDescr", "/IF-MIB/ifTable/ifEntry/ifDescr", vt::STR},
             {"ifType", "/IF-MIB/ifTable/ifEntry/ifType", vt::ENUM_VALUE},
             {"ifMtu", "/IF-MIB/ifTable/ifEntry/ifMtu", vt::INT32},
             {"ifSpeed", "/IF-MIB/ifTable/ifEntry/ifSpeed", vt::UINT32},
             {"ifAdminStatus", "/IF-MIB/ifTable/ifEntry/ifAdminStatus", vt::ENUM_VALUE},
             {"ifOperStatus", "/IF-MIB/ifTable/ifEntry/ifOperStatus", vt::ENUM_VALUE},
             {"ifInOctets", "/IF-MIB/ifTable/ifEntry/ifInOctets", vt::UINT32},
             {"ifInUcastPkts", "/IF-MIB/ifTable/ifEntry/ifInUcastPkts", vt::UINT32},
             {"ifOutOctets", "/IF-MIB/ifTable/ifEntry/ifOutOctets", vt::UINT32},
             {"ifOutUcastPkts", "/IF-MIB/ifTable/ifEntry/ifOutUcastPkts", vt::UINT32},
             // The inbound and outbound error counters; the discard pair is answered as absent.
             {"ifInErrors", "/IF-MIB/ifTable/ifEntry/ifInErrors", vt::UINT32},
             {"ifOutErrors", "/IF-MIB/ifTable/ifEntry/ifOutErrors", vt::UINT32},
             {"ifInDiscards", "/IF-MIB/ifTable/ifEntry/ifInDiscards", vt::NOEXISTS},
             {"ifOutDiscards", "/IF-MIB/ifTable/ifEntry/ifOutDiscards", vt::NOEXISTS},
             {"ifPhysAddress", "/IF-MIB/ifTable/ifEntry/ifPhysAddress", vt::NOEXISTS},
         }},
        {"if-state-snmp",
         {
             {"ifIndex", "/IF-MIB/ifXTable/ifXEntry/ifIndex", vt::INT32},
             {"ifName", "/IF-MIB/ifXTable/ifXEntry/ifName", vt::STR},
             {"ifHighSpeed", "/IF-MIB/ifXTable/ifXEntry/ifHighSpeed", vt::UINT32},
             {"ifInMulticastPkts", "/IF-MIB/ifXTable/ifXEntry/ifInMulticastPkts", vt::UINT32},
             {"ifInBroadcastPkts", "/IF-MIB/ifXTable/ifXEntry/ifInBroadcastPkts", vt::UINT32},
             {"ifOutMulticastPkts", "/IF-MIB/ifXTable/ifXEntry/ifOutMulticastPkts", vt::UINT32},
             {"ifOutBroadcastPkts", "/IF-MIB/ifXTable/ifXEntry/ifOutBroadcastPkts", vt::UINT32},
             {"ifHCInOctets", "/IF-MIB/ifXTable/ifXEntry/ifHCInOctets", vt::UINT64},
             {"ifHCInUcastPkts", "/IF-MIB/ifXTable/ifXEntry/ifHCInUcastPkts", vt::UINT64},
             {"ifHCInMulticastPkts", "/IF-MIB/ifXTable/ifXEntry/ifHCInMulticastPkts", vt::UINT64},
             {"ifHCInBroadcastPkts", "/IF-MIB/ifXTable/ifXEntry/ifHCInBroadcastPkts", vt::UINT64},
             {"ifHCOutOctets", "/IF-MIB/ifXTable/ifXEntry/ifHCOutOctets", vt::UINT64},
             {"ifHCOutUcastPkts", "/IF-MIB/ifXTable/ifXEntry/ifHCOutUcastPkts", vt::UINT64},
             {"ifHCOutMulticastPkts", "/IF-MIB/ifXTable/ifXEntry/ifHCOutMulticastPkts", vt::UINT64},
             {"ifHCOutBroadcastPkts", "/IF-MIB/ifXTable/ifXEntry/ifHCOutBroadcastPkts", vt::UINT64},
         }},
        // Bindings of linkUp and linkDown.
        {nullptr,
         {
             {"ifName", "/IF-MIB/ifXTable/ifXEntry/ifName", vt::STR},
             {"ifIndex", "/IF-MIB/ifTable/ifEntry/ifIndex", vt::INT32},
             {"ifAdminStatus", "/IF-MIB/ifTable/ifEntry/ifAdminStatus", vt::ENUM_VALUE},
             {"ifOperStatus", "/IF-MIB/ifTable/ifEntry/ifOperStatus", vt::ENUM_VALUE},
         }},

        // IP scalars; the two time stamps of the group answer 0.
        {"ip_status",
         {
             {"ipForwarding", "/IP-MIB/ip/ipForwarding", vt::ENUM_VALUE},
             {"ipDefaultTTL", "/IP-MIB/ip/ipDefaultTTL", vt::INT32},
             {"ipReasmTimeout", "/IP-MIB/ip/ipReasmTimeout", vt::INT32},
             {"ipv6IpForwarding", "/IP-MIB/ip/ipv6IpForwarding", vt::ENUM_VALUE},
             {"ipv6IpDefaultHopLimit", "/IP-MIB/ip/ipv6IpDefaultHopLimit", vt::INT32},
             {"ipv4InterfaceTableLastChange", "/IP-MIB/ip/ipv4InterfaceTableLastChange",
              vt::UINT32},
             {"ipv6InterfaceTableLastChange", "/IP-MIB/ip/ipv6InterfaceTableLastChange",
              vt::UINT32},
             // Tables without a provider of their own fall to ip_status and are empty.
             {"ipv4InterfaceEnableStatus",
              "/IP-MIB/ipv4InterfaceTable/ipv4InterfaceEntry/ipv4InterfaceEnableStatus",
              vt::NOEXISTS},
             {"ipv6InterfaceForwarding",
              "/IP-MIB/ipv6InterfaceTable/ipv6InterfaceEntry/ipv6InterfaceForwarding",
              vt::NOEXISTS},
         }},
        {"ip_traf_status",
         {{"ipIfStatsTableLastChange", "/IP-MIB/ipTrafficStats/ipIfStatsTableLastChange",
           vt::UINT32}}},
        // ipSystemStatsTable and ipIfStatsTable are added below from kTrafficColumns.
        {"ip_address_prefix_status",
         {
             {"ipAddressPrefixIfIndex",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixIfIndex",
              vt::INT32},
             {"ipAddressPrefixType",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixType",
              vt::ENUM_VALUE},
             {"ipAddressPrefixPrefix",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixPrefix",
              vt::BINARY},
             {"ipAddressPrefixLength",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixLength",
              vt::UINT32},
             {"ipAddressPrefixOrigin",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixOrigin",
              vt::ENUM_VALUE},
             {"ipAddressPrefixOnLinkFlag",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixOnLinkFlag",
              vt::ENUM_VALUE},
             {"ipAddressPrefixAutonomousFlag",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixAutonomousFlag",
              vt::ENUM_VALUE},
             {"ipAddressPrefixAdvPreferredLifetime",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/"
              "ipAddressPrefixAdvPreferredLifetime",
              vt::UINT32},
             {"ipAddressPrefixAdvValidLifetime",
              "/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixAdvValidLifetime",
              vt::UINT32},
         }},
        {"ip-net-to-physical-stats",
         {
             {"ipNetToPhysicalIfIndex",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalIfIndex",
              vt::INT32},
             {"ipNetToPhysicalNetAddressType",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalNetAddressType",
              vt::ENUM_VALUE},
             {"ipNetToPhysicalNetAddress",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalNetAddress",
              vt::BINARY},
             {"ipNetToPhysicalPhysAddress",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalPhysAddress",
              vt::BINARY},
             {"ipNetToPhysicalType",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalType",
              vt::ENUM_VALUE},
             {"ipNetToPhysicalState",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalState",
              vt::ENUM_VALUE},
             {"ipNetToPhysicalLastUpdated",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalLastUpdated",
              vt::UINT32},
             {"ipNetToPhysicalRowStatus",
              "/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalRowStatus",
              vt::NOEXISTS},
         }},
        {"ip_def_router",
         {
             {"ipDefaultRouterAddressType",
              "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterAddressType",
              vt::ENUM_VALUE},
             {"ipDefaultRouterAddress",
              "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterAddress",
              vt::BINARY},
             {"ipDefaultRouterIfIndex",
              "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterIfIndex",
              vt::INT32},
             {"ipDefaultRouterLifetime",
              "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterLifetime",
              vt::UINT32},
             {"ipDefaultRouterPreference",
              "/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterPreference",
              vt::ENUM_VALUE},
         }},
        {"ip6_scope_zone_idx",
         {
             {"ipv6ScopeZoneIndexIfIndex",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndexIfIndex",
              vt::INT32},
             {"ipv6ScopeZoneIndexLinkLocal",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/"
              "ipv6ScopeZoneIndexLinkLocal",
              vt::UINT32},
             {"ipv6ScopeZoneIndex3",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndex3",
              vt::UINT32},
             {"ipv6ScopeZoneIndexAdminLocal",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/"
              "ipv6ScopeZoneIndexAdminLocal",
              vt::UINT32},
             {"ipv6ScopeZoneIndexSiteLocal",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/"
              "ipv6ScopeZoneIndexSiteLocal",
              vt::UINT32},
             {"ipv6ScopeZoneIndex6",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndex6",
              vt::UINT32},
             {"ipv6ScopeZoneIndex7",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndex7",
              vt::UINT32},
             {"ipv6ScopeZoneIndexOrganizationLocal",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/"
              "ipv6ScopeZoneIndexOrganizationLocal",
              vt::UINT32},
             {"ipv6ScopeZoneIndex9",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndex9",
              vt::UINT32},
             {"ipv6ScopeZoneIndexA",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndexA",
              vt::UINT32},
             {"ipv6ScopeZoneIndexB",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndexB",
              vt::UINT32},
             {"ipv6ScopeZoneIndexC",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndexC",
              vt::UINT32},
             {"ipv6ScopeZoneIndexD",
              "/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry/ipv6ScopeZoneIndexD",
              vt::UINT32},
         }},
        {"icmp_stat_status",
         {
             {"icmpStatsIPVersion", "/IP-MIB/icmpStatsTable/icmpStatsEntry/icmpStatsIPVersion",
              vt::ENUM_VALUE},
             {"icmpStatsInMsgs", "/IP-MIB/icmpStatsTable/icmpStatsEntry/icmpStatsInMsgs",
              vt::UINT32},
             {"icmpStatsInErrors", "/IP-MIB/icmpStatsTable/icmpStatsEntry/icmpStatsInErrors",
              vt::UINT32},
             {"icmpStatsOutMsgs", "/IP-MIB/icmpStatsTable/icmpStatsEntry/icmpStatsOutMsgs",
              vt::UINT32},
             {"icmpStatsOutErrors", "/IP-MIB/icmpStatsTable/icmpStatsEntry/icmpStatsOutErrors",
              vt::UINT32},
         }},
        {"icmp_msg_status",
         {
             {"icmpMsgStatsIPVersion",
              "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry/icmpMsgStatsIPVersion", vt::ENUM_VALUE},
             {"icmpMsgStatsType", "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry/icmpMsgStatsType",
              vt::INT32},
             {"icmpMsgStatsInPkts",
              "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry/icmpMsgStatsInPkts", vt::UINT32},
             {"icmpMsgStatsOutPkts",
              "/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry/icmpMsgStatsOutPkts", vt::UINT32},
         }},
        {"ipv6_router_status",
         {
             {"ipv6RouterAdvertIfIndex",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertIfIndex",
              vt::INT32},
             {"ipv6RouterAdvertSendAdverts",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertSendAdverts",
              vt::ENUM_VALUE},
             {"ipv6RouterAdvertMaxInterval",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertMaxInterval",
              vt::UINT32},
             {"ipv6RouterAdvertMinInterval",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertMinInterval",
              vt::UINT32},
             {"ipv6RouterAdvertManagedFlag",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertManagedFlag",
              vt::ENUM_VALUE},
             {"ipv6RouterAdvertOtherConfigFlag",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/"
              "ipv6RouterAdvertOtherConfigFlag",
              vt::ENUM_VALUE},
             {"ipv6RouterAdvertLinkMTU",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertLinkMTU",
              vt::UINT32},
             {"ipv6RouterAdvertReachableTime",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertReachableTime",
              vt::UINT32},
             {"ipv6RouterAdvertRetransmitTime",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/"
              "ipv6RouterAdvertRetransmitTime",
              vt::UINT32},
             {"ipv6RouterAdvertCurHopLimit",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertCurHopLimit",
              vt::UINT32},
             {"ipv6RouterAdvertDefaultLifetime",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/"
              "ipv6RouterAdvertDefaultLifetime",
              vt::UINT32},
             {"ipv6RouterAdvertRowStatus",
              "/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertRowStatus",
              vt::NOEXISTS},
         }},
        {"ip_address_status",
         {
             {"ipAddressAddrType", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressAddrType",
              vt::ENUM_VALUE},
             {"ipAddressAddr", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressAddr", vt::BINARY},
             {"ipAddressIfIndex", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressIfIndex",
              vt::INT32},
             {"ipAddressType", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressType",
              vt::ENUM_VALUE},
             {"ipAddressPrefix", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressPrefix", vt::OID},
             {"ipAddressOrigin", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressOrigin",
              vt::ENUM_VALUE},
             {"ipAddressStatus", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressStatus",
              vt::ENUM_VALUE},
             {"ipAddressStorageType", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressStorageType",
              vt::ENUM_VALUE},
             {"ipAddressCreated", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressCreated",
              vt::UINT32},
             {"ipAddressLastChanged", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressLastChanged",
              vt::UINT32},
             {"ipAddressRowStatus", "/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressRowStatus",
              vt::NOEXISTS},
         }},

        // UCD-SNMP-MIB.
        {"sys_stats",
         {
             {"ssIndex", "/UCD-SNMP-MIB/systemStats/ssIndex", vt::UINT32},
             {"ssErrorName", "/UCD-SNMP-MIB/systemStats/ssErrorName", vt::STR},
             {"ssCpuRawUser", "/UCD-SNMP-MIB/systemStats/ssCpuRawUser", vt::UINT32},
             {"ssCpuRawSystem", "/UCD-SNMP-MIB/systemStats/ssCpuRawSystem", vt::UINT32},
             {"ssCpuRawIdle", "/UCD-SNMP-MIB/systemStats/ssCpuRawIdle", vt::UINT32},
             {"ssCpuRawInterrupt", "/UCD-SNMP-MIB/systemStats/ssCpuRawInterrupt", vt::UINT32},
             {"ssRawSwapIn", "/UCD-SNMP-MIB/systemStats/ssRawSwapIn", vt::UINT32},
             {"ssRawSwapOut", "/UCD-SNMP-MIB/systemStats/ssRawSwapOut", vt::UINT32},
             {"ssRawContexts", "/UCD-SNMP-MIB/systemStats/ssRawContexts", vt::UINT32},
             {"ssCpuUser", "/UCD-SNMP-MIB/systemStats/ssCpuUser", vt::NOEXISTS},
         }},
        {"memory_stats",
         {
             {"memIndex", "/UCD-SNMP-MIB/memory/memIndex", vt::UINT32},
             {"memErrorName", "/UCD-SNMP-MIB/memory/memErrorName", vt::STR},
             {"memTotalSwap", "/UCD-SNMP-MIB/memory/memTotalSwap", vt::UINT32},
             {"memAvailSwap", "/UCD-SNMP-MIB/memory/memAvailSwap", vt::UINT32},
             {"memTotalReal", "/UCD-SNMP-MIB/memory/memTotalReal", vt::UINT32},
             {"memAvailReal", "/UCD-SNMP-MIB/memory/memAvailReal", vt::UINT32},
             {"memTotalFree", "/UCD-SNMP-MIB/memory/memTotalFree", vt::UINT32},
             {"memShared", "/UCD-SNMP-MIB/memory/memShared", vt::UINT32},
             {"memBuffer", "/UCD-SNMP-MIB/memory/memBuffer", vt::UINT32},
             {"memCached", "/UCD-SNMP-MIB/memory/memCached", vt::UINT32},
         }},
        {"version_info",
         {
             {"versionTag", "/UCD-SNMP-MIB/version/versionTag", vt::STR},
             {"versionDate", "/UCD-SNMP-MIB/version/versionDate", vt::STR},
             {"versionCDate", "/UCD-SNMP-MIB/version/versionCDate", vt::STR},
         }},
        {"process_info",
         {
             {"prIndex", "/UCD-SNMP-MIB/prTable/prEntry/prIndex", vt::INT32},
             {"prNames", "/UCD-SNMP-MIB/prTable/prEntry/prNames", vt::STR},
             // The snapshot's three counters, in the entry's order.
             {"prMin", "/UCD-SNMP-MIB/prTable/prEntry/prMin", vt::UINT32},
             {"prMax", "/UCD-SNMP-MIB/prTable/prEntry/prMax", vt::UINT32},
             {"prCount", "/UCD-SNMP-MIB/prTable/prEntry/prCount", vt::UINT32},
         }},

        // ENTITY-MIB: the chassis row; its one C_INT32 leaf is the index (the loaded flag, 1).
        {"entphyentry-snmp",
         {
             {"entPhysicalDescr", "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalDescr",
              vt::STR},
             {"entPhysicalName", "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalName",
              vt::STR},
             {"entPhysicalHardwareRev",
              "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalHardwareRev", vt::STR},
             {"entPhysicalFirmwareRev",
              "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalFirmwareRev", vt::STR},
             {"entPhysicalSerialNum",
              "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalSerialNum", vt::STR},
             {"entPhysicalMfgName",
              "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalMfgName", vt::STR},
             {"entPhysicalModelName",
              "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalModelName", vt::STR},
             {"entPhysicalIndex", "/ENTITY-MIB/entPhysicalTable/entPhysicalEntry/entPhysicalIndex",
              vt::INT32},
         }},

        // The private model MIB.
        {"zamrel_model_mib_common",
         {
             {"commonProductName", "/ZAMREL-MODEL-MIB/common/commonProductName", vt::STR},
             {"commonFirmwareVersion", "/ZAMREL-MODEL-MIB/common/commonFirmwareVersion", vt::STR},
             {"commonHardwareVersion", "/ZAMREL-MODEL-MIB/common/commonHardwareVersion", vt::STR},
             {"commonSerialNumber", "/ZAMREL-MODEL-MIB/common/commonSerialNumber", vt::STR},
             {"commonDeviceState", "/ZAMREL-MODEL-MIB/common/commonDeviceState", vt::ENUM_VALUE},
         }},
        {"zamrel_model_mib_basicmgt",
         {
             {"hostName", "/ZAMREL-MODEL-MIB/basicMgt/hostName", vt::STR},
             {"domainName", "/ZAMREL-MODEL-MIB/basicMgt/domainName", vt::STR},
             {"adminUserName", "/ZAMREL-MODEL-MIB/basicMgt/adminUserName", vt::STR},
             {"adminPassword", "/ZAMREL-MODEL-MIB/basicMgt/adminPassword", vt::STR},
             {"dhcpServerMode", "/ZAMREL-MODEL-MIB/basicMgt/dhcpServerMode", vt::ENUM_VALUE},
             {"dhcpStartAddress", "/ZAMREL-MODEL-MIB/basicMgt/dhcpStartAddress", vt::IPV4},
             {"dhcpRangeSize", "/ZAMREL-MODEL-MIB/basicMgt/dhcpRangeSize", vt::INT32},
             {"lanIpAddress", "/ZAMREL-MODEL-MIB/basicMgt/lanIpAddress", vt::IPV4},
             {"lanSubnetMask", "/ZAMREL-MODEL-MIB/basicMgt/lanSubnetMask", vt::IPV4},
             // Written only; the hook asserts an enumeration value.
             {"reboot", "/ZAMREL-MODEL-MIB/basicMgt/reboot", vt::ENUM_VALUE},
             {"factoryDefault", "/ZAMREL-MODEL-MIB/basicMgt/factoryDefault", vt::ENUM_VALUE},
         }},
        {"zamrel_model_mib_advancemgt",
         {
             {"snmpV1V2cStatus", "/ZAMREL-MODEL-MIB/advanceMgt/snmpV1V2cStatus", vt::ENUM_VALUE},
             {"snmpV3Status", "/ZAMREL-MODEL-MIB/advanceMgt/snmpV3Status", vt::ENUM_VALUE},
             {"upnpStatus", "/ZAMREL-MODEL-MIB/advanceMgt/upnpStatus", vt::ENUM_VALUE},
         }},
        {"zamrel_model_mib_mgtcommunitytable",
         {
             {"mgtCommunityIndex",
              "/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry/mgtCommunityIndex", vt::INT32},
             {"mgtCommunityName",
              "/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry/mgtCommunityName", vt::STR},
             {"mgtCommunityAccess",
              "/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry/mgtCommunityAccess",
              vt::ENUM_VALUE},
         }},
        {"zamrel_model_mib_trapmgrtable",
         {
             {"trapMgrIndex", "/ZAMREL-MODEL-MIB/trapMgrTable/trapMgrEntry/trapMgrIndex",
              vt::INT32},
             {"trapMgrIpAddress", "/ZAMREL-MODEL-MIB/trapMgrTable/trapMgrEntry/trapMgrIpAddress",
              vt::IPV4},
             {"trapMgrCommunity", "/ZAMREL-MODEL-MIB/trapMgrTable/trapMgrEntry/trapMgrCommunity",
              vt::STR},
         }},
        {"zamrel_model_mib_wandnsnetaddresstable",
         {
             {"wanDnsNetAddressWanIndex",
              "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry/"
              "wanDnsNetAddressWanIndex",
              vt::INT32},
             {"wanDnsNetAddressPreference",
              "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry/"
              "wanDnsNetAddressPreference",
              vt::INT32},
             {"wanDnsNetAddressServer",
              "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry/"
              "wanDnsNetAddressServer",
              vt::IPV4},
         }},
        {"zamrel_model_mib_wanconnectiontable",
         {
             {"wanConnectionIndex",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionIndex",
              vt::INT32},
             {"wanConnectionIfIndex",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionIfIndex",
              vt::INT32},
             {"wanConnectionType",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionType",
              vt::ENUM_VALUE},
             {"wanConnectionIpAddress",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionIpAddress",
              vt::IPV4},
             {"wanConnectionSubnetMask",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionSubnetMask",
              vt::IPV4},
             {"wanConnectionGateway",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionGateway",
              vt::IPV4},
             {"wanConnectionMacAddress",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionMacAddress",
              vt::BINARY},
             {"wanConnectionReserved1",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionReserved1",
              vt::INT32},
             {"wanConnectionReserved2",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionReserved2",
              vt::INT32},
             {"wanConnectionPppUserName",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionPppUserName",
              vt::STR},
             {"wanConnectionPppPassword",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionPppPassword",
              vt::STR},
             {"wanConnectionNatStatus",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionNatStatus",
              vt::ENUM_VALUE},
             {"wanConnectionPppConnectMode",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/"
              "wanConnectionPppConnectMode",
              vt::ENUM_VALUE},
             {"wanConnectionPppIdleTime",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionPppIdleTime",
              vt::INT32},
             {"wanConnectionPppRetryCount",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/"
              "wanConnectionPppRetryCount",
              vt::INT32},
             {"wanConnectionPppAuthAuto",
              "/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionPppAuthAuto",
              vt::INT32},
         }},

        // LLDP-MIB remote systems.
        {"snmp_lldp_stats",
         {
             {"lldpRemTimeMark", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemTimeMark", vt::UINT32},
             {"lldpRemLocalPortNum", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemLocalPortNum",
              vt::INT32},
             {"lldpRemIndex", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemIndex", vt::INT32},
             {"lldpRemChassisIdSubtype",
              "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemChassisIdSubtype", vt::ENUM_VALUE},
             {"lldpRemChassisId", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemChassisId",
              vt::BINARY},
             {"lldpRemPortIdSubtype", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemPortIdSubtype",
              vt::ENUM_VALUE},
             {"lldpRemPortId", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemPortId", vt::BINARY},
             {"lldpRemPortDesc", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemPortDesc", vt::STR},
             {"lldpRemSysName", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemSysName", vt::STR},
             {"lldpRemSysDesc", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemSysDesc", vt::STR},
             {"lldpRemSysCapSupported",
              "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemSysCapSupported", vt::BIT32},
             {"lldpRemSysCapEnabled", "/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemSysCapEnabled",
              vt::BIT32},
         }},
    };
    return c;
}

// The traffic tables, expanded from kTrafficColumns: (callpoint, object, path, type).
struct TrafficObj {
    std::string callpoint, object, path;
    int vtype;
};
std::vector<TrafficObj> traffic_catalogue()
{
    std::vector<TrafficObj> out;
    struct T {
        const char *cp, *table, *entry, *pfx;
        bool per_if;
    };
    for (const T &t :
         {T{"ip_traf_system_stats", "ipSystemStatsTable", "ipSystemStatsEntry", "ipSystemStats",
            false},
          T{"ip_traf_if_stats", "ipIfStatsTable", "ipIfStatsEntry", "ipIfStats", true}}) {
        std::string base = std::string("/IP-MIB/") + t.table + "/" + t.entry + "/" + t.pfx;
        out.push_back({t.cp, std::string(t.pfx) + "IPVersion", base + "IPVersion", vt::ENUM_VALUE});
        if (t.per_if)
            out.push_back({t.cp, std::string(t.pfx) + "IfIndex", base + "IfIndex", vt::INT32});
        for (const auto &c : kTrafficColumns)
            out.push_back({t.cp, std::string(t.pfx) + c.first, base + c.first, c.second});
    }
    return out;
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
    const std::vector<Cp> expected = {
        {"ifstatus-snmp", "/IF-MIB", CpKind::Transform},
        {"ifentries-snmp", "/IF-MIB/ifTable", CpKind::Transform},
        {"if-state-snmp", "/IF-MIB/ifXTable", CpKind::Transform},
        {"tcp_status", "/TCP-MIB", CpKind::Transform},
        {"udp_status", "/UDP-MIB", CpKind::Transform},
        {"ip6_scope_zone_idx", "/IP-MIB/ipv6ScopeZoneIndexTable", CpKind::Plain},
        {"ip_def_router", "/IP-MIB/ipDefaultRouterTable", CpKind::Plain},
        {"ip_traf_status", "/IP-MIB/ipTrafficStats", CpKind::Plain},
        {"ip_traf_system_stats", "/IP-MIB/ipSystemStatsTable", CpKind::Plain},
        {"ip_traf_if_stats", "/IP-MIB/ipIfStatsTable", CpKind::Plain},
        {"ip_address_prefix_status", "/IP-MIB/ipAddressPrefixTable", CpKind::Plain},
        {"icmp_stat_status", "/IP-MIB/icmpStatsTable", CpKind::Plain},
        {"icmp_msg_status", "/IP-MIB/icmpMsgStatsTable", CpKind::Plain},
        {"ip_status", "/IP-MIB", CpKind::Plain},
        {"ip_address_status", "/IP-MIB/ipAddressTable", CpKind::Plain},
        {"ipv6_router_status", "/IP-MIB/ipv6RouterAdvertTable", CpKind::Plain},
        {"ip-net-to-physical-stats", "/IP-MIB/ipNetToPhysicalTable", CpKind::Plain},
        {"memory_stats", "/UCD-SNMP-MIB/memory", CpKind::Transform},
        {"sys_stats", "/UCD-SNMP-MIB/systemStats", CpKind::Transform},
        {"version_info", "/UCD-SNMP-MIB/version", CpKind::Transform},
        {"process_info", "/UCD-SNMP-MIB/prTable", CpKind::Transform},
        {"entphyentry-snmp", "/ENTITY-MIB", CpKind::Transform},
        {"zamrel_model_mib_common", "/ZAMREL-MODEL-MIB/common", CpKind::Transform},
        {"zamrel_model_mib_basicmgt", "/ZAMREL-MODEL-MIB/basicMgt", CpKind::Transform},
        {"zamrel_model_mib_advancemgt", "/ZAMREL-MODEL-MIB/advanceMgt", CpKind::Transform},
        {"zamrel_model_mib_mgtcommunitytable", "/ZAMREL-MODEL-MIB/mgtCommunityTable",
         CpKind::Transform},
        {"zamrel_model_mib_trapmgrtable", "/ZAMREL-MODEL-MIB/trapMgrTable", CpKind::Transform},
        {"zamrel_model_mib_wandnsnetaddresstable", "/ZAMREL-MODEL-MIB/wanDnsNetAddressTable",
         CpKind::Transform},
        {"zamrel_model_mib_wanconnectiontable", "/ZAMREL-MODEL-MIB/wanConnectionTable",
         CpKind::Transform},
        {"snmp_lldp_stats", "/LLDP-MIB", CpKind::Transform},
        // Declared for the dormant interface-configuration provider.
        {"if-snmp", "/interfaces", CpKind::Transform},
        {"if-hook", "/interfaces/interface", CpKind::SetHook},
    };
    const Schema &s = models();
    std::set<std::string> names;
    for (const Cp &c : expected) {
        names.insert(c.name);
        auto nodes = s.callpoint_nodes(c.name);
        ASSERT_EQ(nodes.size(), 1u) << c.name;
        EXPECT_EQ(path_of(nodes[0]), c.path) << c.name;
        EXPECT_EQ(static_cast<int>(nodes[0]->cpkind), static_cast<int>(c.kind)) << c.name;
        EXPECT_NE(nodes[0]->kind, NodeKind::Leaf) << c.name;
    }
    EXPECT_EQ(names.size(), 32u); // no name listed twice
    for (const SchemaNode *n : s.all()) {
        if (n->cpkind != CpKind::None) {
            EXPECT_TRUE(names.count(n->callpoint))
                << "undeclared callpoint " << n->callpoint << " on " << path_of(n);
        }
    }
}

// Every object a provider answers is a leaf whose type is the one the daemon replies, and the
// request reaches the provider that answers it.
TEST(ModelCatalogue, EveryServedObjectHasTheRepliedType)
{
    const Schema &s = models();
    size_t checked = 0;
    auto check = [&](const std::string &cp, const std::string &object, const std::string &path,
                     int v) {
        ++checked;
        EXPECT_TRUE(replies_fit(path, v)) << object;
        const SchemaNode *n = node(path);
        if (!n) return;
        EXPECT_EQ(n->name, object) << path;
        EXPECT_FALSE(n->oid.empty()) << path << " has no SNMP OID";
        if (cp.empty()) return;
        const SchemaNode *owner = s.callpoint_owner(n);
        ASSERT_NE(owner, nullptr) << path;
        EXPECT_EQ(owner->callpoint, cp) << path;
    };
    for (const Area &a : catalogue())
        for (const Obj &o : a.objects)
            check(a.callpoint ? a.callpoint : "", o.object, o.path, o.vtype);
    for (const TrafficObj &o : traffic_catalogue())
        check(o.callpoint, o.object, o.path, o.vtype);
    EXPECT_EQ(checked, 298u); // every row above was looked at

    // Mistakes the daemon's replies would expose: a TruthValue served as a number must not be a
    // boolean leaf, a memory size not a signed one, a 64-bit counter not a 32-bit one.
    EXPECT_FALSE(emu::type_fits(
        node("/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertSendAdverts"),
        vt::BOOL));
    EXPECT_FALSE(emu::type_fits(node("/UCD-SNMP-MIB/memory/memTotalReal"), vt::INT32));
    EXPECT_FALSE(emu::type_fits(node("/IF-MIB/ifXTable/ifXEntry/ifHCInOctets"), vt::UINT32));
    EXPECT_FALSE(
        emu::type_fits(node("/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressPrefix"), vt::BINARY));
}

// Lists are keyed, in order, by the objects and value types the walks reply; indexes that the
// providers number from 0 admit 0.
TEST(ModelCatalogue, TableKeysMatchTheWalks)
{
    struct Keys {
        const char *list;
        std::vector<std::pair<const char *, int>> keys;
    };
    const std::vector<Keys> expected = {
        {"/IF-MIB/ifTable/ifEntry", {{"ifIndex", vt::INT32}}},
        {"/IF-MIB/ifXTable/ifXEntry", {{"ifIndex", vt::INT32}}},
        {"/IP-MIB/ipSystemStatsTable/ipSystemStatsEntry",
         {{"ipSystemStatsIPVersion", vt::ENUM_VALUE}}},
        {"/IP-MIB/ipIfStatsTable/ipIfStatsEntry",
         {{"ipIfStatsIPVersion", vt::ENUM_VALUE}, {"ipIfStatsIfIndex", vt::INT32}}},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry",
         {{"ipAddressPrefixIfIndex", vt::INT32},
          {"ipAddressPrefixType", vt::ENUM_VALUE},
          {"ipAddressPrefixPrefix", vt::BINARY},
          {"ipAddressPrefixLength", vt::UINT32}}},
        {"/IP-MIB/ipAddressTable/ipAddressEntry",
         {{"ipAddressAddrType", vt::ENUM_VALUE}, {"ipAddressAddr", vt::BINARY}}},
        {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry",
         {{"ipNetToPhysicalIfIndex", vt::INT32},
          {"ipNetToPhysicalNetAddressType", vt::ENUM_VALUE},
          {"ipNetToPhysicalNetAddress", vt::BINARY}}},
        {"/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry",
         {{"ipDefaultRouterAddressType", vt::ENUM_VALUE},
          {"ipDefaultRouterAddress", vt::BINARY},
          {"ipDefaultRouterIfIndex", vt::INT32}}},
        {"/IP-MIB/ipv6ScopeZoneIndexTable/ipv6ScopeZoneIndexEntry",
         {{"ipv6ScopeZoneIndexIfIndex", vt::INT32}}},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry",
         {{"ipv6RouterAdvertIfIndex", vt::INT32}}},
        {"/IP-MIB/icmpStatsTable/icmpStatsEntry", {{"icmpStatsIPVersion", vt::ENUM_VALUE}}},
        {"/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry",
         {{"icmpMsgStatsIPVersion", vt::ENUM_VALUE}, {"icmpMsgStatsType", vt::INT32}}},
        {"/UCD-SNMP-MIB/prTable/prEntry", {{"prIndex", vt::INT32}}},
        {"/ENTITY-MIB/entPhysicalTable/entPhysicalEntry", {{"entPhysicalIndex", vt::INT32}}},
        {"/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry",
         {{"mgtCommunityIndex", vt::INT32}}},
        {"/ZAMREL-MODEL-MIB/trapMgrTable/trapMgrEntry", {{"trapMgrIndex", vt::INT32}}},
        {"/ZAMREL-MODEL-MIB/wanDnsNetAddressTable/wanDnsNetAddressEntry",
         {{"wanDnsNetAddressWanIndex", vt::INT32}, {"wanDnsNetAddressIndex", vt::INT32}}},
        {"/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry",
         {{"wanConnectionIndex", vt::INT32}}},
        {"/LLDP-MIB/lldpRemTable/lldpRemEntry",
         {{"lldpRemTimeMark", vt::UINT32},
          {"lldpRemLocalPortNum", vt::INT32},
          {"lldpRemIndex", vt::INT32}}},
        // Configuration lists the daemon walks with MAAPI cursors or names in XPath predicates.
        {"/interfaces/interface", {{"name", vt::BUF}}},
        {"/interfaces-state/interface", {{"name", vt::BUF}}},
        {"/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry",
         {{"snmpCommunityIndex", vt::BUF}}},
        {"/aaa:aaa/authentication/users/user", {{"name", vt::BUF}}},
        {"/dhcp-pools/pool", {{"pool-id", vt::UINT32}}},
    };
    for (const Keys &k : expected) {
        const SchemaNode *l = node(k.list);
        ASSERT_NE(l, nullptr) << k.list;
        ASSERT_EQ(l->kind, NodeKind::List) << k.list;
        ASSERT_EQ(l->keys.size(), k.keys.size()) << k.list;
        for (size_t i = 0; i < k.keys.size(); ++i) {
            EXPECT_EQ(l->keys[i]->name, k.keys[i].first) << k.list;
            EXPECT_EQ(l->keys[i]->vtype, k.keys[i].second) << k.list << " key " << i;
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

// Every enumerator value a provider replies, or a hook acts on, is defined by its leaf.
TEST(ModelCatalogue, EnumerationsHoldEveryRepliedValue)
{
    const std::vector<std::pair<const char *, std::vector<int32_t>>> expected = {
        // ifType by interface name: IANA numbers and the model's own kinds.
        {"/IF-MIB/ifTable/ifEntry/ifType",
         {160, 135, 2129706804, 71, 6, 1109646644, 977264863, 1183478925, 1843840433}},
        {"/IF-MIB/ifTable/ifEntry/ifAdminStatus", {1, 2}},
        {"/IF-MIB/ifTable/ifEntry/ifOperStatus", {1, 2}},
        {"/IP-MIB/ip/ipForwarding", {1, 2}},
        {"/IP-MIB/ip/ipv6IpForwarding", {1, 2}},
        {"/IP-MIB/ipSystemStatsTable/ipSystemStatsEntry/ipSystemStatsIPVersion", {1, 2}},
        {"/IP-MIB/ipIfStatsTable/ipIfStatsEntry/ipIfStatsIPVersion", {2}},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixType", {1, 2}},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixOrigin", {1, 2, 3, 5}},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixOnLinkFlag", {1}},
        {"/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixAutonomousFlag", {2}},
        {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalNetAddressType", {1, 2}},
        {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalType", {3, 4}},
        {"/IP-MIB/ipNetToPhysicalTable/ipNetToPhysicalEntry/ipNetToPhysicalState", {1, 2, 3, 4, 7}},
        {"/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterAddressType", {1, 2}},
        {"/IP-MIB/ipDefaultRouterTable/ipDefaultRouterEntry/ipDefaultRouterPreference", {0}},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertSendAdverts", {1, 2}},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertManagedFlag", {2}},
        {"/IP-MIB/ipv6RouterAdvertTable/ipv6RouterAdvertEntry/ipv6RouterAdvertOtherConfigFlag",
         {2}},
        {"/IP-MIB/icmpStatsTable/icmpStatsEntry/icmpStatsIPVersion", {1, 2}},
        {"/IP-MIB/icmpMsgStatsTable/icmpMsgStatsEntry/icmpMsgStatsIPVersion", {1, 2}},
        {"/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressAddrType", {1, 2}},
        {"/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressType", {1, 2, 3}},
        {"/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressOrigin", {2, 5, 6}},
        {"/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressStatus", {1, 2, 5, 6}},
        {"/IP-MIB/ipAddressTable/ipAddressEntry/ipAddressStorageType", {2, 4}},
        {"/ZAMREL-MODEL-MIB/common/commonDeviceState", {0, 1, 2, 3}},
        {"/ZAMREL-MODEL-MIB/basicMgt/dhcpServerMode", {0, 1}},
        {"/ZAMREL-MODEL-MIB/basicMgt/reboot", {1, 2}},         // 2 reboots
        {"/ZAMREL-MODEL-MIB/basicMgt/factoryDefault", {1, 2}}, // 1 restores
        {"/ZAMREL-MODEL-MIB/advanceMgt/snmpV1V2cStatus", {0, 1}},
        {"/ZAMREL-MODEL-MIB/advanceMgt/snmpV3Status", {0, 1}},
        {"/ZAMREL-MODEL-MIB/advanceMgt/upnpStatus", {0, 1}},
        // Slots never loaded answer 0.
        {"/ZAMREL-MODEL-MIB/mgtCommunityTable/mgtCommunityEntry/mgtCommunityAccess", {0, 1, 2}},
        {"/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionType",
         {0, 1, 2, 3, 5}},
        {"/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionNatStatus", {0, 2}},
        {"/ZAMREL-MODEL-MIB/wanConnectionTable/wanConnectionEntry/wanConnectionPppConnectMode",
         {0, 1}},
        {"/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemChassisIdSubtype", {1, 4}},
        {"/LLDP-MIB/lldpRemTable/lldpRemEntry/lldpRemPortIdSubtype", {1, 4}},
    };
    for (const auto &e : expected) {
        const SchemaNode *n = node(e.first);
        ASSERT_NE(n, nullptr) << e.first;
        std::set<int32_t> have;
        for (const auto &en : n->enums)
            have.insert(en.second);
        for (int32_t v : e.second)
            EXPECT_TRUE(have.count(v)) << e.first << " lacks " << v;
    }
    // The upnp leaf counts the other way round from the SNMP version leaves: 0 is on.
    std::map<std::string, int32_t> upnp(
        node("/ZAMREL-MODEL-MIB/advanceMgt/upnpStatus")->enums.begin(),
        node("/ZAMREL-MODEL-MIB/advanceMgt/upnpStatus")->enums.end());
    EXPECT_EQ(upnp["upnpOn"], 0);
    std::map<std::string, int32_t> v3(
        node("/ZAMREL-MODEL-MIB/advanceMgt/snmpV3Status")->enums.begin(),
        node("/ZAMREL-MODEL-MIB/advanceMgt/snmpV3Status")->enums.end());
    EXPECT_EQ(v3["enabled"], 1);
}

// The configuration the daemon reads through MAAPI is stored data (no provider in front of it)
// with the types its typed reads and writes use; the private MIB's writes land on leaves of the
// same type.
TEST(ModelCatalogue, ConfigurationPathsAreStoredWithTheirTypes)
{
    const Schema &s = models();
    const std::vector<std::pair<const char *, int>> paths = {
        // Typed reads and writes of the interface list (maapi_get_*_elem, maapi_set_elem).
        {"/interfaces/interface/ifIndex", vt::INT32},
        {"/interfaces/interface/name", vt::BUF},
        {"/interfaces/interface/description", vt::BUF},
        {"/interfaces/interface/type", vt::IDENTITYREF},
        {"/interfaces/interface/enabled", vt::BOOL},
        // Community walk (maapi_get_buf_elem).
        {"/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry/snmpCommunityName", vt::BUF},
        {"/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry/snmpCommunitySecurityName",
         vt::BUF},
        // XPath reads (their text is what the daemon looks at).
        {"/system/hostname", vt::BUF},
        {"/system/domain-name", vt::BUF},
        {"/aaa:aaa/authentication/users/user/name", vt::BUF},
        {"/aaa:aaa/authentication/users/user/password", vt::BUF},
        {"/dhcp-pools/pool/pool-id", vt::UINT32},
        {"/dhcp-pools/pool/ipv4/dhcp-mode", vt::ENUM_VALUE},
        {"/dhcp-pools/pool/ipv4/range-start", vt::IPV4},
        {"/dhcp-pools/pool/ipv4/range-end", vt::IPV4},
        {"/interfaces-state/interface/if-index", vt::INT32},
        {"/interfaces/interface/ipv4/setting/dynamic/peerdns", vt::BOOL},
        {"/interfaces/interface/ipv4/setting/static/ifname", vt::BUF},
        {"/interfaces/interface/ipv4/setting/pppoe/peerdns", vt::BOOL},
        {"/interfaces/interface/ipv4/setting/pptp/peerdns", vt::BOOL},
        {"/interfaces/interface/ipv4/setting/l2tp/peerdns", vt::BOOL},
        {"/confdConfig/snmpAgent/snmpVersions/v1", vt::BOOL},
        {"/confdConfig/snmpAgent/snmpVersions/v2", vt::BOOL},
        {"/confdConfig/snmpAgent/snmpVersions/v3", vt::BOOL},
        {"/firewall/upnp", vt::BOOL},
    };
    std::vector<std::pair<std::string, int>> all(paths.begin(), paths.end());
    // The PPP settings read for the PPPoE and PPTP modes (and present for L2TP alike).
    for (const char *mode : {"pppoe", "pptp", "l2tp"})
        for (auto leaf : {std::pair{"username", vt::BUF}, std::pair{"password", vt::BUF},
                          std::pair{"keepalive", vt::BUF}, std::pair{"demand", vt::UINT32},
                          std::pair{"authentication-type", vt::ENUM_VALUE}})
            all.emplace_back(std::string("/interfaces/interface/ipv4/setting/") + mode + "/" +
                                 leaf.first,
                             leaf.second);
    for (const auto &p : all) {
        const SchemaNode *n = node(p.first);
        ASSERT_NE(n, nullptr) << p.first;
        EXPECT_EQ(n->kind, NodeKind::Leaf) << p.first;
        EXPECT_EQ(n->vtype, p.second) << p.first << " is " << vt_name(n->vtype);
        const SchemaNode *owner = s.callpoint_owner(n);
        EXPECT_TRUE(!owner || owner->cpkind == CpKind::SetHook)
            << p.first << " is served by " << owner->callpoint;
        EXPECT_EQ(n->config, p.first.rfind("/interfaces-state", 0) != 0) << p.first;
    }
    // Values the daemon compares the XPath text with.
    auto has_enum = [](const char *path, const char *name) {
        for (const auto &e : node(path)->enums)
            if (e.first == name) return true;
        return false;
    };
    EXPECT_TRUE(has_enum("/dhcp-pools/pool/ipv4/dhcp-mode", "server"));
    EXPECT_TRUE(has_enum("/interfaces/interface/ipv4/setting/pppoe/authentication-type", "auto"));

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
    const Schema &s = models();
    std::set<std::string> writable;
    int mib_nodes = 0;
    for (const SchemaNode *n : s.all()) {
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
    EXPECT_EQ(node("/ZAMREL-MODEL-MIB/basicMgt")->oid.rfind("1.3.6.1.4.1.99999.", 0), 0u);

    std::set<std::string> expected = {
        "/ZAMREL-MODEL-MIB/basicMgt/hostName", "/ZAMREL-MODEL-MIB/basicMgt/domainName",
        "/ZAMREL-MODEL-MIB/basicMgt/reboot", "/ZAMREL-MODEL-MIB/basicMgt/factoryDefault"};
    for (const SchemaNode *c :
         node("/SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry")->children)
        expected.insert(path_of(c));
    EXPECT_EQ(writable, expected);
}

// The demo configuration loads strictly against the models and answers the daemon's XPath reads
// and cursor walks with plausible values.
TEST(ModelCatalogue, DemoConfigurationAnswersTheDaemonsReads)
{
    const Schema &s = models();
    ly_log_options(LY_LOSTORE);
    lyd_node *tree = nullptr;
    ASSERT_EQ(lyd_parse_data_path(s.ctx(), LEISOBEK_MODELS_DIR "/demo-init.xml", LYD_XML,
                                  LYD_PARSE_STRICT, LYD_VALIDATE_PRESENT, &tree),
              LY_SUCCESS)
        << (ly_errmsg(s.ctx()) ? ly_errmsg(s.ctx()) : "");
    auto values = [&](const std::string &xpath) {
        std::vector<std::string> out;
        ly_set *set = nullptr;
        if (lyd_find_xpath(tree, xpath.c_str(), &set) != LY_SUCCESS) return out;
        for (uint32_t i = 0; i < set->count; ++i)
            out.push_back(set->dnodes[i]->schema->nodetype & LYD_NODE_TERM
                              ? lyd_get_value(set->dnodes[i])
                              : "");
        ly_set_free(set, nullptr);
        return out;
    };
    using V = std::vector<std::string>;
    EXPECT_EQ(values("/system/hostname"), V{"gateway"});
    EXPECT_EQ(values("/system/domain-name"), V{"home.lan"});
    EXPECT_EQ(values("/aaa:aaa/authentication/users/user[name='kelto']/name"), V{"kelto"});
    EXPECT_EQ(values("/aaa:aaa/authentication/users/user[name='kelto']/password").size(), 1u);
    EXPECT_EQ(values("/aaa:aaa/authentication/users/user").size(), 2u);
    EXPECT_EQ(values("/dhcp-pools/pool[pool-id=1]/ipv4/dhcp-mode"), V{"server"});
    // The LAN pool's range gives a range size of 49.
    EXPECT_EQ(values("/dhcp-pools/pool[pool-id=1]/ipv4/range-start"), V{"192.168.1.100"});
    EXPECT_EQ(values("/dhcp-pools/pool[pool-id=1]/ipv4/range-end"), V{"192.168.1.149"});
    EXPECT_EQ(values("/dhcp-pools/pool").size(), 2u);
    EXPECT_EQ(values("/interfaces/interface").size(), 3u);
    EXPECT_EQ(values("/interfaces-state/interface[name='WAN1']/if-index").size(), 1u);
    // WAN1 is a DHCP client: only the dynamic case answers, the others read nothing.
    const std::string wan = "/interfaces/interface[name='WAN1']/ipv4/setting/";
    EXPECT_EQ(values(wan + "dynamic/peerdns "), V{"true"});
    EXPECT_TRUE(values(wan + "static/ifname ").empty());
    EXPECT_TRUE(values(wan + "pppoe/peerdns ").empty());
    EXPECT_TRUE(values(wan + "pppoe/username").empty());
    EXPECT_EQ(values("/confdConfig/snmpAgent/snmpVersions/v1"), V{"false"});
    EXPECT_EQ(values("/confdConfig/snmpAgent/snmpVersions/v2"), V{"true"});
    EXPECT_EQ(values("/confdConfig/snmpAgent/snmpVersions/v3"), V{"false"});
    EXPECT_EQ(values("/firewall/upnp"), V{"true"});
    // Communities: one whose security name contains "public", one that is "private".
    V sec = values("/SNMP-COMMUNITY-MIB:SNMP-COMMUNITY-MIB/snmpCommunityTable/snmpCommunityEntry/"
                   "snmpCommunitySecurityName");
    ASSERT_EQ(sec.size(), 2u);
    EXPECT_NE(sec[0].find("public"), std::string::npos);
    EXPECT_EQ(sec[1], "private");
    // Every configured interface has an index and a type.
    for (std::string n : {"LAN1", "WAN1", "WLAN1"}) {
        EXPECT_EQ(values("/interfaces/interface[name='" + n + "']/ifIndex").size(), 1u) << n;
        EXPECT_EQ(values("/interfaces/interface[name='" + n + "']/type").size(), 1u) << n;
    }
    lyd_free_all(tree);
    ly_log_options(LY_LOLOG | LY_LOSTORE_LAST);
}

// The whole set of models yields namespace headers: no tag collision, no macro clash, and the
// numbers the daemon compiles against are the schema's.
TEST(ModelCatalogue, NamespaceHeadersGenerate)
{
    char tmpl[] = "/tmp/leisobek-catalogue-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    std::string dir = tmpl, err;
    EXPECT_TRUE(nsgen::generate(LEISOBEK_MODELS_DIR, dir, err)) << err;
    for (const char *h :
         {"/IF-MIB.h", "/IP-MIB.h", "/UCD-SNMP-MIB.h", "/ENTITY-MIB.h", "/LLDP-MIB.h",
          "/ZAMREL-MODEL-MIB.h", "/SNMP-COMMUNITY-MIB.h", "/router-interfaces.h", "/aaa.h"})
        EXPECT_EQ(access((dir + h).c_str(), R_OK), 0) << h;
    std::system(("rm -rf '" + dir + "'").c_str());

#ifdef LEISOBEK_OWN_NS_HEADERS
    EXPECT_EQ(IF_MIB_ifType, node("/IF-MIB/ifTable/ifEntry/ifType")->tag);
    EXPECT_EQ(IF_MIB_ifIndex, node("/IF-MIB/ifXTable/ifXEntry/ifIndex")->tag);
    EXPECT_EQ(IF_MIB_wlanRadio, 2129706804);
    EXPECT_EQ(IF_MIB_pppoeSession, 1109646644);
    EXPECT_STREQ(IF_MIB__callpointid_ifstatus_snmp, "ifstatus-snmp");
    EXPECT_EQ(IP_MIB_ipAddressPrefixOrigin,
              node("/IP-MIB/ipAddressPrefixTable/ipAddressPrefixEntry/ipAddressPrefixOrigin")->tag);
    EXPECT_STREQ(IP_MIB__callpointid_ip_net_to_physical_stats, "ip-net-to-physical-stats");
    EXPECT_EQ(ZAMREL_MODEL_MIB_hostName, node("/ZAMREL-MODEL-MIB/basicMgt/hostName")->tag);
    EXPECT_EQ(if_interface, node("/interfaces/interface")->tag);
    EXPECT_EQ(if_ifIndex, node("/interfaces/interface/ifIndex")->tag);
    EXPECT_EQ(if__ns, node("/interfaces")->ns);
    EXPECT_STREQ(if__callpointid_if_hook, "if-hook");
#endif
}
