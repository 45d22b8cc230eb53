// Typed ConfD values of the datastore's leaves, and the text forms libyang takes and gives.
#pragma once

#include <string>
#include <string_view>

#include "schema.h"
#include "wire.h"

struct lyd_node;

namespace emu
{

// The value of a leaf or leaf-list instance as ConfD hands it out: C_BUF for strings, C_ENUM_VALUE
// with the enum's number, C_IDENTITYREF with the {ns, id} hashes, C_IPV4 for an IPv4 address,
// C_BINARY for binaries and MAC addresses, C_XMLTAG for an empty leaf, ... False with a message
// when the node is not a leaf instance.
bool value_from_data(const SchemaNode *leaf, const struct lyd_node *node, confd_wire::Value &out,
                     std::string &err);

// The text libyang accepts (JSON lexical form) for value v written to leaf: enum names, identities
// as "module:name", booleans true/false, binaries in base64 (MAC-style strings as colon hex), ...
// False with a message when v's type does not fit the leaf (what ConfD reports as
// CONFD_ERR_BADTYPE). A C_LIST is refused: its elements are converted one by one.
bool value_to_data_text(const Schema &s, const SchemaNode *leaf, const confd_wire::Value &v,
                        std::string &out, std::string &err);

// Orders two key values as a system-ordered list sorts its entries: numbers by value, strings and
// byte strings bytewise, OIDs by sub-identifier; values of different types by type number.
// Negative, zero or positive.
int compare_values(const confd_wire::Value &a, const confd_wire::Value &b);

// True when both values have the same type and content.
bool same_value(const confd_wire::Value &a, const confd_wire::Value &b);

// The XPath expression with ConfD's module prefixes ("/if:interfaces") replaced by module names
// ("/router-interfaces:interfaces"), which is how libyang names modules. String literals, axis
// names ("child::x") and prefixes no module uses are left as they are.
std::string xpath_module_names(const Schema &s, std::string_view expr);
// The XPath expression with the module prefixes (or module names) of the schema dropped, for
// evaluation over the configuration printed as XML without namespaces.
std::string xpath_without_prefixes(const Schema &s, std::string_view expr);

} // namespace emu
