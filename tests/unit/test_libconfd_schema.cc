// Tests of the client library's schema load, cs_node navigation, name tables and schema-aware printing.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>

#include "confd_lib.h"
#include "confd_maapi.h"
#include "fake_confd.h"
#include "nshash.h"

namespace {

const char *const kUri = "urn:test:TCP-MIB";

uint32_t h(const char *name) { return confd_wire::tag_hash(kUri, name); }

// /TCP-MIB/tcpListenerTable/tcpListenerEntry{type addr port}/{...,tcpListenerProcess}
std::string schema_answer()
{
    confd_wire::Writer w(confd_wire::Op::Ok);
    uint32_t ns = confd_wire::ns_hash(kUri);
    w.u32(1).u32(ns).str("tcp-mib").str(kUri).str("TCP-MIB");
    struct Node {
        const char *name;
        int parent;
        uint8_t kind, vtype;
        const char *type;
    };
    const Node nodes[] = {
        {"TCP-MIB", -1, 0, 0, ""},
        {"tcpListenerTable", 0, 0, 0, ""},
        {"tcpListenerEntry", 1, 1, 0, ""},
        {"tcpListenerLocalAddressType", 2, 2, C_ENUM_VALUE, "InetAddressType"},
        {"tcpListenerLocalAddress", 2, 2, C_BINARY, "InetAddress"},
        {"tcpListenerLocalPort", 2, 2, C_UINT32, "InetPortNumber"},
        {"tcpListenerProcess", 2, 2, C_UINT32, "uint32"},
    };
    w.u32(7);
    for (const Node &n : nodes) {
        w.u32(h(n.name)).u32(ns).i32(n.parent).u8(n.kind).u8(0).u8(n.vtype).str(n.type);
        if (n.kind == 1)
            w.u32(3).u32(h(nodes[3].name)).u32(h(nodes[4].name)).u32(h(nodes[5].name));
        else
            w.u32(0);
        if (n.vtype == C_ENUM_VALUE)
            w.u32(3).str("unknown").i32(0).str("ipv4").i32(1).str("ipv6").i32(2);
        else
            w.u32(0);
    }
    w.u32(8).u32(ns).str("TCP-MIB");
    for (const Node &n : nodes)
        w.u32(h(n.name)).str(n.name);
    return w.payload();
}

confd_value_t xt(const char *name)
{
    confd_value_t v;
    CONFD_SET_XMLTAG(&v, h(name), confd_wire::ns_hash(kUri));
    return v;
}

class LibconfdSchema : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        FakeConfd srv;
        srv.schema_answer = schema_answer();
        ASSERT_EQ(confd_load_schemas(srv.addr(), srv.addrlen()), CONFD_OK) << confd_lasterr();
    }

    // /TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tcpListenerProcess
    confd_hkeypath_t listener_kp()
    {
        static const unsigned char addr[] = {0x7f, 0, 0, 1};
        confd_hkeypath_t kp;
        kp.len = 5;
        kp.v[0][0] = xt("tcpListenerProcess");
        kp.v[0][1].type = C_NOEXISTS;
        CONFD_SET_ENUM_VALUE(&kp.v[1][0], 1);
        CONFD_SET_BINARY(&kp.v[1][1], addr, 4);
        CONFD_SET_UINT32(&kp.v[1][2], 22);
        kp.v[1][3].type = C_NOEXISTS;
        kp.v[2][0] = xt("tcpListenerEntry");
        kp.v[3][0] = xt("tcpListenerTable");
        kp.v[4][0] = xt("TCP-MIB");
        for (int i = 2; i < 5; i++)
            kp.v[i][1].type = C_NOEXISTS;
        kp.v[5][0].type = C_NOEXISTS;
        return kp;
    }
};

} // namespace

// Verifies the tree built from the schema answer: roots, children, keys
// (0-terminated), shallow types, parents, and lookups by keypath and path.
TEST_F(LibconfdSchema, BuildsNavigableTree)
{
    uint32_t ns = confd_wire::ns_hash(kUri);
    confd_cs_node *root = confd_find_cs_root(ns);
    ASSERT_NE(root, nullptr);
    EXPECT_EQ(root->tag, h("TCP-MIB"));
    EXPECT_EQ(confd_find_cs_root(12345), nullptr);

    confd_hkeypath_t kp = listener_kp();
    confd_cs_node *entry = confd_find_cs_node(&kp, 3);
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->tag, h("tcpListenerEntry"));
    EXPECT_TRUE(entry->info.flags & CS_NODE_IS_DYN);
    ASSERT_NE(entry->info.keys, nullptr);
    EXPECT_EQ(entry->info.keys[2], h("tcpListenerLocalPort"));
    EXPECT_EQ(entry->info.keys[3], 0u);
    EXPECT_EQ(entry->parent->parent, root);

    confd_cs_node *leaf = confd_find_cs_node(&kp, kp.len);
    ASSERT_NE(leaf, nullptr);
    EXPECT_EQ(leaf->tag, h("tcpListenerProcess"));
    EXPECT_EQ(leaf->info.shallow_type, C_UINT32);
    EXPECT_EQ(leaf->next, nullptr);
    EXPECT_EQ(confd_find_cs_node(&kp, kp.len + 1), nullptr);

    struct xml_tag t = {h("tcpListenerLocalAddressType"), 0};
    confd_cs_node *type_leaf = confd_find_cs_node_child(entry, t);
    ASSERT_NE(type_leaf, nullptr);
    EXPECT_EQ(type_leaf->info.shallow_type, C_ENUM_VALUE);
    EXPECT_EQ(type_leaf->info.minOccurs, 1) << "key leaves are mandatory";

    EXPECT_EQ(confd_cs_node_cd(nullptr, "/TCP-MIB/tcpListenerTable/tcpListenerEntry{%d %s %u}/%s",
                               1, "7f000001", 22u, "tcpListenerProcess"),
              leaf);
    EXPECT_EQ(confd_cs_node_cd(entry, "../tcpListenerEntry/tcpListenerLocalAddressType"), type_leaf);
    EXPECT_EQ(confd_cs_node_cd(nullptr, "/tcp-mib:TCP-MIB"), root);
    EXPECT_EQ(confd_cs_node_cd(nullptr, "/TCP-MIB/nosuch"), nullptr);
}

// Verifies the name tables and namespace list.
TEST_F(LibconfdSchema, NamesAndNamespaces)
{
    EXPECT_STREQ(confd_hash2str(h("tcpListenerLocalPort")),
                 "tcpListenerLocalPort");
    EXPECT_EQ(confd_hash2str(4242), nullptr);
    EXPECT_EQ(confd_str2hash("tcpListenerProcess"), h("tcpListenerProcess"));
    EXPECT_EQ(confd_str2hash("nosuch"), 0u);
    EXPECT_STREQ(confd_ns2prefix(confd_wire::ns_hash(kUri)), "tcp-mib");
    confd_nsinfo *list = nullptr;
    ASSERT_EQ(confd_get_nslist(&list), 1);
    EXPECT_STREQ(list[0].uri, kUri);
    EXPECT_STREQ(list[0].module, "TCP-MIB");
}

// Verifies keypath printing with names (ConfD's and XPath form), tag<N> for
// unknown hashes, and snprintf semantics.
TEST_F(LibconfdSchema, PrintsKeypaths)
{
    confd_hkeypath_t kp = listener_kp();
    char buf[256];
    const char *want = "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tcpListenerProcess";
    EXPECT_EQ(confd_pp_kpath(buf, sizeof buf, &kp), static_cast<int>(strlen(want)));
    EXPECT_STREQ(buf, want);
    char small[12];
    EXPECT_EQ(confd_pp_kpath(small, sizeof small, &kp), static_cast<int>(strlen(want)));
    EXPECT_STREQ(small, "/TCP-MIB/tc");
    EXPECT_EQ(confd_pp_kpath_len(buf, sizeof buf, &kp, 3), 42);
    EXPECT_STREQ(buf, "/TCP-MIB/tcpListenerTable/tcpListenerEntry");

    confd_xpath_pp_kpath(buf, sizeof buf, 0, &kp);
    EXPECT_STREQ(buf, "/tcp-mib:TCP-MIB/tcp-mib:tcpListenerTable/tcp-mib:tcpListenerEntry"
                      "[tcpListenerLocalAddressType='1'][tcpListenerLocalAddress='7f000001']"
                      "[tcpListenerLocalPort='22']/tcp-mib:tcpListenerProcess");

    CONFD_SET_XMLTAG(&kp.v[0][0], 99, 0);
    confd_pp_kpath(buf, sizeof buf, &kp);
    EXPECT_STREQ(buf, "/TCP-MIB/tcpListenerTable/tcpListenerEntry{1 7f000001 22}/tag<99>");
}

// Verifies schema-aware value conversion: enumeration names both ways,
// other types as confd_pp_value prints them, and refusal of bad text.
TEST_F(LibconfdSchema, ConvertsValuesByType)
{
    confd_hkeypath_t kp = listener_kp();
    confd_cs_node *entry = confd_find_cs_node(&kp, 3);
    struct xml_tag t = {h("tcpListenerLocalAddressType"), 0};
    confd_type *enum_type = confd_find_cs_node_child(entry, t)->info.type;
    char buf[64];
    confd_value_t v;
    CONFD_SET_ENUM_VALUE(&v, 2);
    EXPECT_EQ(confd_val2str(enum_type, &v, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "ipv6");
    EXPECT_STREQ(confd_val2str_ptr(enum_type, &v), "ipv6");
    ASSERT_EQ(confd_str2val(enum_type, "ipv4", &v), CONFD_OK);
    EXPECT_EQ(CONFD_GET_ENUM_VALUE(&v), 1);
    EXPECT_EQ(confd_str2val(enum_type, "ipx", &v), CONFD_ERR);
    EXPECT_EQ(confd_errno, CONFD_ERR_BADTYPE);
    EXPECT_EQ(confd_find_ns_type(confd_wire::ns_hash(kUri), "InetAddressType"), enum_type);

    confd_type *u32 = confd_find_ns_type(0, "uint32");
    ASSERT_NE(u32, nullptr);
    EXPECT_EQ(confd_str2val(u32, "4294967296", &v), CONFD_ERR);
    ASSERT_EQ(confd_str2val(u32, "4294967295", &v), CONFD_OK);
    EXPECT_EQ(CONFD_GET_UINT32(&v), 4294967295u);
    EXPECT_EQ(confd_val2str(u32, &v, buf, sizeof buf), 10);

    confd_type *bin = confd_find_ns_type(0, "binary");
    ASSERT_EQ(confd_str2val(bin, "7f:00:00:01", &v), CONFD_OK);
    EXPECT_EQ(CONFD_GET_BINARY_SIZE(&v), 4u);
    confd_val2str(bin, &v, buf, sizeof buf);
    EXPECT_STREQ(buf, "7f:00:00:01");
    confd_free_value(&v);
    confd_type *str = confd_find_ns_type(0, "string");
    ASSERT_EQ(confd_str2val(str, "lan", &v), CONFD_OK);
    EXPECT_STREQ(CONFD_GET_CBUFPTR(&v), "lan");
    confd_free_value(&v);
}

// Verifies the schema load over an existing MAAPI socket.
TEST_F(LibconfdSchema, LoadsOverMaapiSocket)
{
    FakeConfd srv;
    srv.schema_answer = schema_answer();
    int s = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(maapi_connect(s, srv.addr(), srv.addrlen()), CONFD_OK);
    EXPECT_EQ(maapi_load_schemas(s), CONFD_OK);
    EXPECT_NE(confd_find_cs_root(confd_wire::ns_hash(kUri)), nullptr);
    EXPECT_EQ(maapi_close(s), CONFD_OK);
}
