// Schema view of the YANG models for confd-emu: nodes, tags, callpoints, leaf value types.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "nshash.h"

struct ly_ctx;
struct lysc_node;

namespace emu
{

enum class NodeKind { Container, List, Leaf, LeafList };
enum class CpKind { None, Plain, Transform, SetHook };

// One data node of the compiled schema. Choices and cases are flattened away: their data nodes
// appear as children of the nearest data-node ancestor.
struct SchemaNode {
    std::string name, module, prefix, uri;
    uint32_t tag = 0, ns = 0; // tag_hash(uri,name), ns_hash(uri)
    NodeKind kind = NodeKind::Container;
    bool config = true;
    const SchemaNode *parent = nullptr;
    std::vector<const SchemaNode *> children; // schema order
    std::vector<const SchemaNode *> keys;     // lists: key leaves in key order
    bool is_key = false;                      // a key leaf of its parent list
    // Leaves/leaf-lists: the confd_vtype number a reply must carry (C_UINT32=12, ...).
    int vtype = 0;
    // Unions (and ip-address style types): every vtype a value may carry; empty otherwise.
    std::vector<int> union_vtypes;
    // The typedef name where one is used ("counter32"), else the built-in type ("uint32").
    std::string type_name;
    std::string base_type; // the built-in YANG type at the bottom of the typedef chain ("uint32")
    std::vector<std::pair<std::string, int32_t>> enums; // enumerations: name, value
    std::vector<std::pair<std::string, uint32_t>> bits; // bits: name, position
    std::string callpoint;
    CpKind cpkind = CpKind::None; // declared on this node
    std::string oid;              // lx:snmp-oid, dotted, or empty
    bool not_accessible = false;  // lx:snmp-not-accessible: an index object, never read by SNMP
    const struct lysc_node *lys = nullptr;
};

// confd_vtype numbers the schema layer hands out (same values as the ConfD API's enum confd_vtype).
namespace vt
{
enum : int {
    NOEXISTS = 1,
    XMLTAG = 2,
    STR = 4,
    BUF = 5,
    INT8 = 6,
    INT16 = 7,
    INT32 = 8,
    INT64 = 9,
    UINT8 = 10,
    UINT16 = 11,
    UINT32 = 12,
    UINT64 = 13,
    DOUBLE = 14,
    IPV4 = 15,
    IPV6 = 16,
    BOOL = 17,
    ENUM_VALUE = 28,
    BIT32 = 29,
    BIT64 = 30,
    LIST = 31,
    XMLBEGIN = 32,
    XMLEND = 33,
    OID = 38,
    BINARY = 39,
    IPV4PREFIX = 40,
    IPV6PREFIX = 41,
    DECIMAL64 = 43,
    IDENTITYREF = 44,
    BITBIG = 50,
};
}

// Name of a confd_vtype ("C_UINT32"), or null for a number we do not know.
const char *vtype_name(int vt);
// confd_vtype number of a name such as "C_UINT32" (or "UINT32"), 0 when unknown.
int vtype_from_name(std::string_view name);

class Schema
{
  public:
    Schema();
    ~Schema();
    Schema(const Schema &) = delete;
    Schema &operator=(const Schema &) = delete;

    // Loads every *.yang in models_dir (libyang resolves imports from that dir too). Returns false
    // with a message in err when a module does not parse or compile, or two nodes' tags collide.
    // May be called once.
    bool load(const std::string &models_dir, std::string &err);
    // Top-level node by name (first match over modules in load order), or prefixed "pfx:name"; null
    // if none.
    const SchemaNode *top(std::string_view name) const;
    // Data child of parent by name (optionally "pfx:name"); null if none. parent null = top level.
    const SchemaNode *child(const SchemaNode *parent, std::string_view name) const;
    // Child by tag hash; parent null = top level. Null if none.
    const SchemaNode *by_tag(const SchemaNode *parent, uint32_t tag) const;
    // Nearest callpoint at or above the node (the node itself first), null when none.
    const SchemaNode *callpoint_owner(const SchemaNode *n) const;
    // Every node, preorder (modules in load order).
    const std::vector<const SchemaNode *> &all() const;
    // Top-level nodes over all modules, in load order.
    const std::vector<const SchemaNode *> &tops() const;
    struct Ns {
        uint32_t hash;
        std::string prefix, uri, module;
    };
    // Namespaces of the loaded implemented modules (ours, not libyang's internal ones).
    const std::vector<Ns> &namespaces() const;
    // Every (namespace, name) pair the models define, hashed: namespaces (empty name), data,
    // choice, case, rpc, action and notification nodes, identities. What the namespace headers are
    // generated from.
    const std::vector<confd_wire::HashedName> &hashed_names() const;
    // Namespace by hash, null when unknown.
    const Ns *ns_by_hash(uint32_t hash) const;
    // hash -> node name (or module name for a namespace hash), or null when unknown.
    const char *name_of(uint32_t hash) const;
    // Every node carrying a callpoint of that name (there may be several), empty when none.
    std::vector<const SchemaNode *> callpoint_nodes(std::string_view cp) const;
    // Schema node of a compiled libyang node, null when it is not one of ours.
    const SchemaNode *from_lys(const struct lysc_node *n) const;
    // The libyang context (the datastore uses it later); null before load().
    struct ly_ctx *ctx() const;

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

// Does a reply value of confd_vtype `vt` fit leaf `n`? (C_STR and C_BUF both fit a string leaf;
// C_NOEXISTS always fits; enumeration needs C_ENUM_VALUE; binary needs C_BINARY; uint32-family
// needs C_UINT32; ...)
bool type_fits(const SchemaNode *n, int vt);

} // namespace emu
