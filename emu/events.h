// Event notifications of confd-emu: audit messages, and commits that wait for their diff subscribers.
#pragma once

#include <cstdint>
#include <string>

#include "datastore.h"
#include "registry.h"

namespace emu
{

// Log number of an audit/log symbol ("SNMP_AUTHENTICATION_FAILED", also with a "CONFD_" prefix,
// or a number), -1 when unknown.
int log_symbol_number(const std::string &name);
// Symbol name of a log number (without "CONFD_"), null when unknown.
const char *log_symbol_name(int logno);

// Sends an audit event to every subscriber of CONFD_NOTIF_AUDIT; returns how many it reached.
int send_audit(Registry &reg, int logno, const std::string &user, const std::string &msg,
               int32_t usid);

// Commits transaction th in the datastore and, when it changed anything, sends a commit-diff
// event naming th to every subscriber of CONFD_NOTIF_COMMIT_DIFF, then waits until each has
// answered with its done (or closed its socket), at most timeout_ms; a subscriber that stays
// silent longer is reported on stderr and the commit goes on. Returns 0, or the commit's
// CONFD_ERR_* number with a message.
int commit_and_notify(Registry &reg, Datastore &ds, uint32_t th, int timeout_ms, std::string &err);

} // namespace emu
