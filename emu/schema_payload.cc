// Serialises the schema for the client library's schema load (tags, types, keys, enums, names).
#include "schema_payload.h"

#include <set>
#include <unordered_map>

namespace emu
{

void write_schema(const Schema &s, confd_wire::Writer &w)
{
    const auto &nss = s.namespaces();
    w.u32(static_cast<uint32_t>(nss.size()));
    for (const auto &ns : nss)
        w.u32(ns.hash).str(ns.prefix).str(ns.uri).str(ns.module);

    const auto &all = s.all();
    std::unordered_map<const SchemaNode *, int32_t> index;
    for (size_t i = 0; i < all.size(); i++)
        index[all[i]] = static_cast<int32_t>(i);
    w.u32(static_cast<uint32_t>(all.size()));
    for (const SchemaNode *n : all) {
        auto parent = n->parent ? index.find(n->parent) : index.end();
        w.u32(n->tag).u32(n->ns).i32(parent == index.end() ? -1 : parent->second);
        uint8_t kind = 0;
        switch (n->kind) {
        case NodeKind::Container:
            kind = 0;
            break;
        case NodeKind::List:
            kind = 1;
            break;
        case NodeKind::Leaf:
            kind = 2;
            break;
        case NodeKind::LeafList:
            kind = 3;
            break;
        }
        w.u8(kind).u8(n->config ? 1 : 0).u8(static_cast<uint8_t>(n->vtype)).str(n->type_name);
        w.u32(static_cast<uint32_t>(n->keys.size()));
        for (const SchemaNode *k : n->keys)
            w.u32(k->tag);
        w.u32(static_cast<uint32_t>(n->enums.size()));
        for (const auto &e : n->enums)
            w.str(e.first).i32(e.second);
    }

    // hash -> name: every node name and every namespace (named by its module), then the other
    // hashed names (identities, choices, notifications), so confd_hash2str() knows them too.
    std::set<uint32_t> seen;
    std::vector<std::pair<uint32_t, std::string>> names;
    for (const auto &ns : nss)
        if (seen.insert(ns.hash).second) names.emplace_back(ns.hash, ns.module);
    for (const SchemaNode *n : all)
        if (seen.insert(n->tag).second) names.emplace_back(n->tag, n->name);
    for (const auto &h : s.hashed_names())
        if (!h.name.empty() && seen.insert(h.hash).second) names.emplace_back(h.hash, h.name);
    w.u32(static_cast<uint32_t>(names.size()));
    for (const auto &nm : names)
        w.u32(nm.first).str(nm.second);
}

void schema_extent(const Schema &s, uint32_t &depth, uint32_t &keys)
{
    depth = keys = 0;
    for (const SchemaNode *n : s.all()) {
        uint32_t rows = 0;
        for (const SchemaNode *a = n; a; a = a->parent)
            rows += a->kind == NodeKind::List ? 2 : 1;
        if (rows > depth) depth = rows;
        if (n->keys.size() > keys) keys = static_cast<uint32_t>(n->keys.size());
    }
}

} // namespace emu
