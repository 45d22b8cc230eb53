// The schema as confd-emu hands it to the client library in answer to a schema load.
#pragma once

#include "schema.h"
#include "wire.h"

namespace emu
{

// Appends the schema payload (namespaces, nodes in preorder, hash -> name table) to w, in the
// layout documented at MaapiOp::LoadSchemas in wire.h.
void write_schema(const Schema &s, confd_wire::Writer &w);

// Rows of the deepest hkeypath of the schema (a keyed list instance counts two rows) and the most
// keys of one list: what a client's MAXDEPTH and MAXKEYLEN must exceed.
void schema_extent(const Schema &s, uint32_t &depth, uint32_t &keys);

} // namespace emu
