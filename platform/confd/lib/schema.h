// Schema information loaded from ConfD: names, namespaces, cs_node trees and types (internal interface).
#pragma once

#include <string>

#include "confd_lib.h"

namespace libconfd {

// Builds the schema store from a LoadSchemas answer payload (the bytes after
// the Ok op) and makes it the current one. Stores loaded earlier stay in
// memory, so pointers another thread still holds remain usable. Returns
// CONFD_OK, or CONFD_ERR (CONFD_ERR_PROTOUSAGE) for a malformed payload.
int install_schema_payload(const std::string &payload);

// Asks for the schemas over a connected MAAPI-kind socket and installs them.
// CONFD_OK or CONFD_ERR with confd_errno set.
int load_schemas_over(int sock);

} // namespace libconfd
