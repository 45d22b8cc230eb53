// ConfD keypaths for confd-emu: parsing against the schema, hkeypaths, value text forms.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "schema.h"
#include "wire.h" // confd_wire::Value

namespace emu
{

struct PathStep {
    const SchemaNode *node = nullptr;
    std::vector<confd_wire::Value> keys;
    bool has_keys = false;
};
struct ParsedPath {
    std::vector<PathStep> steps;
}; // top first

// Parses a ConfD keypath: "/TCP-MIB/tcpConnectionTable/tcpConnectionEntry{1 7f000001 80 1 7f000001
// 4711}/x". Node names may carry a module prefix ("TCP-MIB:tcp"). Keys in braces are separated by
// blanks, typed by their key leaves (see value_from_text); a key may be double-quoted to hold
// blanks. A key written "TYPE:text" (e.g. "C_INT32:5") is given that type instead. Keys are only
// allowed on lists and, when given, must number exactly the list's keys. Returns false with a
// message naming the offending part otherwise.
bool parse_keypath(const Schema &s, std::string_view text, ParsedPath &out, std::string &err);

// ConfD hkeypath layout (reversed, deepest first): a node is one row [XMLTAG], a keyed list
// instance adds a row of its keys *below* the list's own tag row. Returns rows, row 0 = deepest.
std::vector<std::vector<confd_wire::Value>> to_hkeypath(const ParsedPath &p);

// Key text form of a value, the inverse of value_from_text: integers and enums decimal, C_BINARY
// lower-case hex without separators, C_IPV4/C_IPV6 in address notation, C_OID dotted, C_BOOL
// true/false, strings as-is.
std::string value_to_text(const confd_wire::Value &v);

// Parses text as a value for leaf `leaf` (its vtype decides the form), or with a "C_TYPE:" prefix
// as that type. Returns false with a message when the text does not fit (bad number, out of range,
// odd hex, unknown enum name, ...). Enumerations accept the number or the enum name.
bool value_from_text(const SchemaNode *leaf, std::string_view text, confd_wire::Value &out,
                     std::string &err);

// Parses text as a value of confd_vtype `vt` (no schema). Same forms and failures as
// value_from_text.
bool value_from_text_typed(int vt, std::string_view text, confd_wire::Value &out, std::string &err);

// JSON form of a value: {"type":"C_UINT32","value":7}; integers exact (64-bit), C_BINARY hex,
// C_NOEXISTS without value, a null C_STR as null, C_LIST as an array of values.
std::string value_to_json(const confd_wire::Value &v);

// JSON string literal (quotes and escapes) of arbitrary bytes; non-UTF-8-safe bytes are \u00XX
// escaped.
std::string json_quote(std::string_view s);

// "/a/b{k1 k2}/c" of an hkeypath (row 0 = deepest); unknown tags print as "tag<N>".
std::string pp_keypath(const Schema &s, const std::vector<std::vector<confd_wire::Value>> &hkp);

// Convenience: the text of a parsed path (equivalent to pp_keypath(s, to_hkeypath(p))).
std::string pp_path(const Schema &s, const ParsedPath &p);

// Hex octets as bytes. Between two octets one of `seps` may stand (must, when `every` is set);
// returns false on an odd digit, any other character or a separator at the end.
bool parse_hex(std::string_view t, std::string_view seps, bool every, std::string &out);

// Lower-case hex of bytes, `sep` between the octets unless it is 0.
std::string hex_text(const std::string &b, char sep);

} // namespace emu
