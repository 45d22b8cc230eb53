// Tests of the schema layer's typing of leaves and callpoints, tag hashes and the namespace-header
// generator, on small modules of their own.
#include "model_schema.h"
#include "nsgen.h"
#include "nshash.h"

#include <map>
#include <unistd.h>

using emu::CpKind;
using emu::NodeKind;
using emu::Schema;
using emu::SchemaNode;

namespace
{

std::string module(const std::string &name, const std::string &body)
{
    return "module " + name + " { yang-version 1.1; namespace \"urn:test:" + name + "\"; prefix " +
           name + ";\n" + body + "\n}\n";
}

} // namespace

// Hashes are 31-bit, never 0, and keep namespace and name apart; two real names with one hash are
// named by the checker, and neither confd-emu nor nsgen accepts models that contain them.
TEST(NsHash, CollisionIsFatal)
{
    EXPECT_NE(confd_wire::tag_hash("ab", "c"), confd_wire::tag_hash("a", "bc"));
    for (uint32_t h : {confd_wire::ns_hash(""), confd_wire::tag_hash("x", "y")})
        EXPECT_TRUE(h != 0 && (h & 0x80000000u) == 0) << h;
    // Two names whose tag hashes in this namespace are equal (688262994), found by a search.
    const std::string uri = "urn:test:clash", a = "n288904", b = "n658220";
    ASSERT_EQ(confd_wire::tag_hash(uri, a), confd_wire::tag_hash(uri, b));

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
    const struct {
        const char *body, *other, *clash; // module m's body, a second module (or null), the clash
    } clashes[] = {
        {"leaf a-b { type int32; } leaf a_b { type int32; }", nullptr, "m_a_b"},
        {"leaf x { type int32; }", "module n { namespace \"urn:n\"; prefix m; }", "m__ns"}};
    for (const auto &c : clashes) {
        ModelDir dir;
        dir.add("m.yang", module("m", c.body));
        if (c.other) dir.add("n.yang", c.other);
        std::string err;
        EXPECT_FALSE(nsgen::generate(dir.path, dir.path + "/out", err));
        EXPECT_NE(err.find(c.clash), std::string::npos) << err;
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
}

// Types the later MIB models rely on map to ConfD's value types: addresses, OIDs, unions, leafrefs,
// identities, strings and bits, and callpoint statements to their kinds.
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
    EXPECT_EQ(s.top("t:cfg"), cfg);
    EXPECT_EQ(s.top("b:cfg"), nullptr);
    EXPECT_EQ(cfg->cpkind, CpKind::SetHook);
    EXPECT_EQ(s.top("item")->cpkind, CpKind::Plain);
    auto leaf = [&](const char *n) { return s.child(cfg, n); };
    // The choice is flattened away: ref is a child of cfg.
    const std::pair<const char *, int> types[] = {{"name", 5},   {"ip", 15}, {"id", 38},
                                                  {"mac", 39},   {"on", 17}, {"kind", 44},
                                                  {"flags", 30}, {"ref", 15}};
    for (auto [name, vtype] : types) {
        ASSERT_NE(leaf(name), nullptr) << name;
        EXPECT_EQ(leaf(name)->vtype, vtype) << name;
    }
    EXPECT_EQ(leaf("ip")->type_name, "my-addr");
    // A string takes C_STR and C_BUF, an IP address union either family, a leaf-list a C_LIST.
    EXPECT_TRUE(emu::type_fits(leaf("name"), 4) && emu::type_fits(leaf("name"), 5));
    EXPECT_TRUE(emu::type_fits(leaf("any"), 15) && emu::type_fits(leaf("any"), 16));
    EXPECT_FALSE(emu::type_fits(leaf("any"), 5));
    EXPECT_EQ(leaf("tags")->kind, NodeKind::LeafList);
    EXPECT_TRUE(emu::type_fits(leaf("tags"), 31));
    EXPECT_FALSE(emu::type_fits(leaf("name"), 31));
    EXPECT_TRUE(emu::type_fits(leaf("name"), 1)); // C_NOEXISTS fits any leaf
    EXPECT_EQ(s.namespaces().size(), 2u); // t and leisobek-ext; libyang's own modules are not ours
}
