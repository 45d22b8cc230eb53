// Tests of the YANG models, the schema layer's typing of leaves and the namespace-header generator.
#include "schema.h"
#include "nsgen.h"
#include "nshash.h"

#ifdef LEISOBEK_OWN_NS_HEADERS // not with the SDK's headers, whose numbers are the SDK compiler's
#include "TCP-MIB.h"
#include "UDP-MIB.h"
#endif

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <map>
#include <unistd.h>
#include <unordered_map>

using emu::CpKind;
using emu::NodeKind;
using emu::Schema;
using emu::SchemaNode;

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

const SchemaNode *node(const Schema &s, const std::string &path)
{
    const SchemaNode *n = nullptr;
    size_t i = 1;
    while (i <= path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos) j = path.size();
        n = s.child(n, path.substr(i, j - i));
        if (!n) return nullptr;
        i = j + 1;
    }
    return n;
}

std::string path_of(const SchemaNode *n)
{
    return n ? path_of(n->parent) + "/" + n->name : "";
}

// A scratch directory of YANG modules, removed at the end of the test.
struct ModelDir {
    std::string path;
    ModelDir()
    {
        char tmpl[] = "/tmp/leisobek-models-XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~ModelDir() { std::system(("rm -rf '" + path + "'").c_str()); }
    void add(const std::string &file, const std::string &text)
    {
        std::ofstream(path + "/" + file) << text;
    }
    void add_ext()
    {
        std::ifstream in(std::string(LEISOBEK_MODELS_DIR) + "/leisobek-ext.yang");
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        add("leisobek-ext.yang", text);
    }
};

std::string module(const std::string &name, const std::string &body)
{
    return "module " + name + " { yang-version 1.1; namespace \"urn:test:" + name + "\"; prefix " +
           name + ";\n" + body + "\n}\n";
}

} // namespace

// Every leaf of both MIB modules exists where the provider expects it and carries the value type
// the daemon replies; no leaf is unaccounted for.
TEST(Models, LeafValueTypes)
{
    const std::map<std::string, int> expected = {
        {"/TCP-MIB/tcp/tcpRtoAlgorithm", 28},
        {"/TCP-MIB/tcp/tcpRtoMin", 8},
        {"/TCP-MIB/tcp/tcpRtoMax", 8},
        {"/TCP-MIB/tcp/tcpMaxConn", 8},
        {"/TCP-MIB/tcp/tcpActiveOpens", 12},
        {"/TCP-MIB/tcp/tcpPassiveOpens", 12},
        {"/TCP-MIB/tcp/tcpAttemptFails", 12},
        {"/TCP-MIB/tcp/tcpEstabResets", 12},
        {"/TCP-MIB/tcp/tcpCurrEstab", 12},
        {"/TCP-MIB/tcp/tcpInSegs", 12},
        {"/TCP-MIB/tcp/tcpOutSegs", 12},
        {"/TCP-MIB/tcp/tcpRetransSegs", 12},
        {"/TCP-MIB/tcp/tcpInErrs", 12},
        {"/TCP-MIB/tcp/tcpOutRsts", 12},
        {"/TCP-MIB/tcp/tcpHCInSegs", 13},
        {"/TCP-MIB/tcp/tcpHCOutSegs", 13},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionLocalAddressType", 28},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionLocalAddress", 39},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionLocalPort", 12},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionRemAddressType", 28},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionRemAddress", 39},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionRemPort", 12},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionState", 28},
        {"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionProcess", 12},
        {"/TCP-MIB/tcpListenerTable/tcpListenerEntry/tcpListenerLocalAddressType", 28},
        {"/TCP-MIB/tcpListenerTable/tcpListenerEntry/tcpListenerLocalAddress", 39},
        {"/TCP-MIB/tcpListenerTable/tcpListenerEntry/tcpListenerLocalPort", 12},
        {"/TCP-MIB/tcpListenerTable/tcpListenerEntry/tcpListenerProcess", 12},
        {"/UDP-MIB/udp/udpInDatagrams", 12},
        {"/UDP-MIB/udp/udpNoPorts", 12},
        {"/UDP-MIB/udp/udpInErrors", 12},
        {"/UDP-MIB/udp/udpOutDatagrams", 12},
        {"/UDP-MIB/udp/udpHCInDatagrams", 13},
        {"/UDP-MIB/udp/udpHCOutDatagrams", 13},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointLocalAddressType", 28},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointLocalAddress", 39},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointLocalPort", 12},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointRemoteAddressType", 28},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointRemoteAddress", 39},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointRemotePort", 12},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointInstance", 12},
        {"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointProcess", 12},
    };
    const Schema &s = models();
    for (const auto &e : expected) {
        const SchemaNode *n = node(s, e.first);
        ASSERT_NE(n, nullptr) << e.first;
        EXPECT_EQ(n->kind, NodeKind::Leaf) << e.first;
        EXPECT_EQ(n->vtype, e.second) << e.first;
        EXPECT_FALSE(n->config) << e.first;
        EXPECT_TRUE(emu::type_fits(n, e.second)) << e.first;
        EXPECT_TRUE(emu::type_fits(n, 1)) << e.first; // C_NOEXISTS
    }
    int leaves = 0;
    for (const SchemaNode *n : s.all()) {
        if ((n->module != "TCP-MIB" && n->module != "UDP-MIB") || n->kind != NodeKind::Leaf)
            continue;
        ++leaves;
        EXPECT_TRUE(expected.count(path_of(n))) << "unexpected leaf " << path_of(n);
    }
    EXPECT_EQ(leaves, static_cast<int>(expected.size()));

    // The daemon's usual mistakes are rejected: a 64-bit counter sent as 32 bits, a state as a
    // plain int.
    EXPECT_FALSE(emu::type_fits(node(s, "/TCP-MIB/tcp/tcpHCInSegs"), 12));
    EXPECT_FALSE(emu::type_fits(
        node(s, "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionState"), 8));
    EXPECT_FALSE(emu::type_fits(
        node(s, "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionLocalAddress"), 5));
    EXPECT_EQ(node(s, "/TCP-MIB/tcp/tcpCurrEstab")->type_name, "gauge32");
    EXPECT_EQ(node(s, "/TCP-MIB/tcp/tcpCurrEstab")->base_type, "uint32");
}

// Tables are keyed by the INDEX objects in INDEX order; OIDs, enumerations and callpoints are in
// place.
TEST(Models, StructureOidsAndCallpoints)
{
    const Schema &s = models();
    const SchemaNode *conn = node(s, "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry");
    ASSERT_NE(conn, nullptr);
    ASSERT_EQ(conn->kind, NodeKind::List);
    std::vector<std::string> keys;
    for (const SchemaNode *k : conn->keys)
        keys.push_back(k->name);
    EXPECT_EQ(keys, (std::vector<std::string>{"tcpConnectionLocalAddressType",
                                              "tcpConnectionLocalAddress", "tcpConnectionLocalPort",
                                              "tcpConnectionRemAddressType",
                                              "tcpConnectionRemAddress", "tcpConnectionRemPort"}));
    EXPECT_EQ(node(s, "/TCP-MIB/tcpListenerTable/tcpListenerEntry")->keys.size(), 3u);
    const SchemaNode *udp = node(s, "/UDP-MIB/udpEndpointTable/udpEndpointEntry");
    ASSERT_EQ(udp->keys.size(), 7u);
    EXPECT_EQ(udp->keys.back()->name, "udpEndpointInstance");

    EXPECT_EQ(conn->oid, "1.3.6.1.2.1.6.19.1");
    EXPECT_EQ(node(s, "/TCP-MIB/tcp/tcpHCOutSegs")->oid, "1.3.6.1.2.1.6.18");
    EXPECT_EQ(node(s, "/UDP-MIB/udp/udpHCInDatagrams")->oid, "1.3.6.1.2.1.7.8");
    // Every object below the module containers has an OID under its group, the column's under its
    // entry.
    for (const SchemaNode *n : s.all()) {
        if (!n->parent || (n->module != "TCP-MIB" && n->module != "UDP-MIB")) continue;
        std::string group = n->module == "TCP-MIB" ? "1.3.6.1.2.1.6" : "1.3.6.1.2.1.7";
        EXPECT_EQ(n->oid.compare(0, group.size(), group), 0) << path_of(n) << " " << n->oid;
        if (n->parent->parent) {
            EXPECT_EQ(n->oid.compare(0, n->parent->oid.size() + 1, n->parent->oid + "."), 0)
                << path_of(n);
        }
    }

    const SchemaNode *state =
        node(s, "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionState");
    std::map<std::string, int32_t> en(state->enums.begin(), state->enums.end());
    EXPECT_EQ(en.size(), 12u);
    EXPECT_EQ(en["closed"], 1);
    EXPECT_EQ(en["established"], 5);
    EXPECT_EQ(en["timeWait"], 11);
    std::map<std::string, int32_t> at(conn->keys[0]->enums.begin(), conn->keys[0]->enums.end());
    EXPECT_EQ(at["ipv6"], 2);
    EXPECT_EQ(at["dns"], 16);

    for (auto [leaf, cp] :
         {std::pair{"/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/tcpConnectionState",
                    "tcp_status"},
          std::pair{"/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointInstance",
                    "udp_status"}}) {
        const SchemaNode *owner = s.callpoint_owner(node(s, leaf));
        ASSERT_NE(owner, nullptr) << leaf;
        EXPECT_EQ(owner->parent, nullptr);
        EXPECT_EQ(owner->callpoint, cp);
        EXPECT_EQ(owner->cpkind, CpKind::Transform);
        EXPECT_FALSE(owner->config);
        EXPECT_EQ(s.callpoint_nodes(cp), std::vector<const SchemaNode *>{owner});
    }
    EXPECT_EQ(s.top("TCP-MIB:TCP-MIB"), s.top("TCP-MIB"));
    EXPECT_EQ(s.top("UDP-MIB:TCP-MIB"), nullptr);
}

#ifdef LEISOBEK_OWN_NS_HEADERS
// The generated headers are the schema's own numbers: the daemon's tags match what confd-emu sends.
TEST(Models, GeneratedHeaderMatchesSchema)
{
    const Schema &s = models();
    const std::string t = "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry/";
    EXPECT_EQ(TCP_MIB_tcpConnectionState, node(s, t + "tcpConnectionState")->tag);
    EXPECT_EQ(TCP_MIB_tcpConnectionLocalPort, node(s, t + "tcpConnectionLocalPort")->tag);
    EXPECT_EQ(TCP_MIB_tcpListenerTable, node(s, "/TCP-MIB/tcpListenerTable")->tag);
    EXPECT_EQ(TCP_MIB_tcpHCInSegs, node(s, "/TCP-MIB/tcp/tcpHCInSegs")->tag);
    EXPECT_EQ(TCP_MIB__ns, node(s, "/TCP-MIB")->ns);
    EXPECT_STREQ(TCP_MIB__ns_uri, "urn:ietf:params:xml:ns:yang:smiv2:TCP-MIB");
    EXPECT_STREQ(TCP_MIB__callpointid_tcp_status, "tcp_status");
    EXPECT_EQ(TCP_MIB_established, 5);
    EXPECT_EQ(UDP_MIB_udpEndpointProcess,
              node(s, "/UDP-MIB/udpEndpointTable/udpEndpointEntry/udpEndpointProcess")->tag);
    EXPECT_EQ(UDP_MIB__ns, node(s, "/UDP-MIB/udp")->ns);
    EXPECT_STREQ(UDP_MIB__callpointid_udp_status, "udp_status");
    EXPECT_STREQ(s.name_of(TCP_MIB_tcpConnectionState), "tcpConnectionState");
    EXPECT_STREQ(s.name_of(UDP_MIB__ns), "UDP-MIB");

    // Every node of the module is in the generated text with its hash.
    for (const auto &ns : s.namespaces()) {
        if (ns.module != "TCP-MIB") continue;
        std::string text, err;
        ASSERT_TRUE(nsgen::module_header(s, ns, text, err)) << err;
        for (const SchemaNode *n : s.all()) {
            if (n->module != "TCP-MIB") continue;
            std::string line =
                "#define TCP_MIB_" + nsgen::c_ident(n->name) + " " + std::to_string(n->tag) + "\n";
            EXPECT_NE(text.find(line), std::string::npos) << line;
        }
    }
}

#endif

// The hashes are fixed functions of the names (FNV-1a, 31 bits): headers from another build or host
// agree.
TEST(NsHash, StableValues)
{
    EXPECT_EQ(confd_wire::ns_hash(""), 2166136261u & 0x7fffffffu);
    EXPECT_EQ(confd_wire::ns_hash("a"), 0xe40c292cu & 0x7fffffffu);
    EXPECT_EQ(
        confd_wire::tag_hash("urn:ietf:params:xml:ns:yang:smiv2:TCP-MIB", "tcpConnectionState"),
        196320916u);
    EXPECT_NE(confd_wire::tag_hash("ab", "c"), confd_wire::tag_hash("a", "bc"));
    for (uint32_t h : {confd_wire::ns_hash("x"), confd_wire::tag_hash("x", "y")}) {
        EXPECT_NE(h, 0u);
        EXPECT_EQ(h & 0x80000000u, 0u);
    }
}

// Two real names with one 31-bit hash: the checker names both, and neither confd-emu nor nsgen
// accepts models that contain them.
TEST(NsHash, CollisionIsFatal)
{
    const std::string uri = "urn:test:clash";
    std::unordered_map<uint32_t, std::string> seen;
    std::string a, b;
    for (int i = 0; a.empty() && i < 2000000; ++i) {
        std::string n = "n" + std::to_string(i);
        auto [it, fresh] = seen.emplace(confd_wire::tag_hash(uri, n), n);
        if (!fresh) {
            a = it->second;
            b = n;
        }
    }
    ASSERT_FALSE(a.empty());

    std::string msg;
    EXPECT_FALSE(
        confd_wire::find_hash_collision({{uri, a, 0}, {uri, "other", 0}, {uri, a, 0}}, msg));
    ASSERT_TRUE(
        confd_wire::find_hash_collision({{uri, a, 0}, {uri, "other", 0}, {uri, b, 0}}, msg));
    EXPECT_NE(msg.find("'" + a + "'"), std::string::npos) << msg;
    EXPECT_NE(msg.find("'" + b + "'"), std::string::npos) << msg;

    ModelDir dir;
    dir.add("clash.yang", module("clash", "container c { leaf " + a + " { type int32; } leaf " + b +
                                              " { type int32; } }"));
    Schema s;
    std::string err;
    EXPECT_FALSE(s.load(dir.path, err));
    EXPECT_NE(err.find("collision"), std::string::npos) << err;
    err.clear();
    EXPECT_FALSE(nsgen::generate(dir.path, dir.path + "/out", err));
    EXPECT_NE(err.find(b), std::string::npos) << err;
    EXPECT_NE(access((dir.path + "/out/clash.h").c_str(), F_OK), 0);
}

// Names that become one C macro are a build error; ambiguous enumerators are left out quietly.
TEST(NsGen, MacroClashesAndAmbiguousEnums)
{
    {
        ModelDir dir;
        dir.add("m.yang", module("m", "leaf a-b { type int32; } leaf a_b { type int32; }"));
        std::string err;
        EXPECT_FALSE(nsgen::generate(dir.path, dir.path + "/out", err));
        EXPECT_NE(err.find("m_a_b"), std::string::npos) << err;
    }
    {
        ModelDir dir; // two modules with one prefix
        dir.add("m.yang", module("m", "leaf x { type int32; }"));
        dir.add("n.yang",
                "module n { namespace \"urn:test:n\"; prefix m; leaf y { type int32; } }");
        std::string err;
        EXPECT_FALSE(nsgen::generate(dir.path, dir.path + "/out", err));
        EXPECT_NE(err.find("m__ns"), std::string::npos) << err;
    }
    ModelDir dir;
    dir.add(
        "m.yang",
        module("m",
               "typedef st { type enumeration { enum up; enum down; enum testing { value 7; } "
               "enum dormant; } }\n"
               "container c { leaf up { type int32; }\n"
               "  leaf s1 { type enumeration { enum on { value 1; } enum off { value 2; } } }\n"
               "  leaf s2 { type enumeration { enum on { value 3; } enum idle { value 4; } } } }"));
    Schema s;
    std::string err;
    ASSERT_TRUE(s.load(dir.path, err)) << err;
    std::vector<nsgen::Macro> macros;
    ASSERT_TRUE(nsgen::module_macros(s, s.namespaces().at(0), macros, err)) << err;
    std::map<std::string, std::string> m(macros.begin(), macros.end());
    EXPECT_EQ(m["m_up"], std::to_string(confd_wire::tag_hash("urn:test:m", "up"))); // node wins
    EXPECT_EQ(m.count("m_on"), 0u);                                                 // 1 or 3
    EXPECT_EQ(m["m_idle"], "4");
    EXPECT_EQ(m["m_down"], "1");
    EXPECT_EQ(m["m_dormant"], "8"); // implicit: one past the highest before it
    EXPECT_EQ(m["m__ns_uri"], "\"urn:test:m\"");

    std::string text;
    ASSERT_TRUE(nsgen::module_header(s, s.namespaces().at(0), text, err));
    EXPECT_EQ(text.find("#define m_on "), std::string::npos);
    EXPECT_NE(text.find("#ifndef _M_H_\n"), std::string::npos);
}

// Types the later MIB models rely on map to ConfD's value types: addresses, OIDs, unions, leafrefs,
// identities, strings and bits; callpoint statements are checked.
TEST(Schema, TypeMappingAndCallpointKinds)
{
    ModelDir dir;
    dir.add_ext();
    dir.add(
        "t.yang",
        module("t",
               "import leisobek-ext { prefix lx; }\n"
               "import ietf-inet-types { prefix inet; }\n"
               "import ietf-yang-types { prefix yang; }\n"
               "identity base; identity eth { base base; }\n"
               "typedef my-addr { type inet:ipv4-address; }\n"
               "container cfg { lx:set-hook hook1;\n"
               "  leaf name { type string; } leaf ip { type my-addr; }\n"
               "  leaf any { type inet:ip-address; } leaf id { type yang:object-identifier-128; }\n"
               "  leaf mac { type yang:mac-address; } leaf on { type boolean; }\n"
               "  leaf kind { type identityref { base base; } }\n"
               "  leaf flags { type bits { bit a { position 0; } bit b { position 40; } } }\n"
               "  leaf-list tags { type string; }\n"
               "  choice ch { case one { leaf ref { type leafref { path \"../ip\"; } } } } }\n"
               "list item { key k; lx:callpoint items; leaf k { type int32; } }"));
    Schema s;
    std::string err;
    ASSERT_TRUE(s.load(dir.path, err)) << err;
    const SchemaNode *cfg = s.top("cfg");
    ASSERT_NE(cfg, nullptr);
    EXPECT_EQ(cfg->cpkind, CpKind::SetHook);
    EXPECT_EQ(s.top("item")->cpkind, CpKind::Plain);
    EXPECT_EQ(s.callpoint_owner(s.child(s.top("item"), "k")), s.top("item"));
    auto leaf = [&](const char *n) { return s.child(cfg, n); };
    EXPECT_EQ(leaf("name")->vtype, 5);
    EXPECT_TRUE(emu::type_fits(leaf("name"), 4));
    EXPECT_TRUE(emu::type_fits(leaf("name"), 5));
    EXPECT_EQ(leaf("ip")->vtype, 15);
    EXPECT_EQ(leaf("ip")->type_name, "my-addr");
    EXPECT_TRUE(emu::type_fits(leaf("any"), 15));
    EXPECT_TRUE(emu::type_fits(leaf("any"), 16));
    EXPECT_FALSE(emu::type_fits(leaf("any"), 5));
    EXPECT_EQ(leaf("id")->vtype, 38);
    EXPECT_EQ(leaf("mac")->vtype, 39);
    EXPECT_EQ(leaf("on")->vtype, 17);
    EXPECT_EQ(leaf("kind")->vtype, 44);
    EXPECT_EQ(leaf("flags")->vtype, 30);
    EXPECT_EQ(leaf("tags")->kind, NodeKind::LeafList);
    EXPECT_TRUE(emu::type_fits(leaf("tags"), 31));
    EXPECT_FALSE(emu::type_fits(leaf("name"), 31));
    ASSERT_NE(leaf("ref"), nullptr); // the choice is flattened away
    EXPECT_EQ(leaf("ref")->vtype, 15);
    EXPECT_EQ(s.name_of(confd_wire::tag_hash("urn:test:t", "eth")), std::string("eth"));
    EXPECT_EQ(s.namespaces().size(), 2u); // t and leisobek-ext; libyang's own modules are not ours

    ModelDir bad;
    bad.add_ext();
    bad.add("b.yang", module("b", "import leisobek-ext { prefix lx; }\n"
                                  "container c { lx:callpoint one; lx:transform two; }"));
    Schema sb;
    EXPECT_FALSE(sb.load(bad.path, err));
    EXPECT_NE(err.find("more than one callpoint"), std::string::npos) << err;

    Schema missing;
    EXPECT_FALSE(missing.load("/nonexistent/models", err));
    EXPECT_NE(err.find("/nonexistent/models"), std::string::npos);
}
