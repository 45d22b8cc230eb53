// The commands of confd-emu-cli, run inside confd-emu: each takes the client's argv, answers JSON.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "datastore.h"
#include "registry.h"
#include "schema.h"

namespace emu
{

struct CliEnv {
    Registry &reg;
    const Schema &schema;
    size_t walk_limit;          // most rows a walk may return unless it says --limit
    Datastore *ds = nullptr;    // the configuration; without it only daemons answer
    int diff_timeout_ms = 10000; // longest wait for a commit-diff subscriber's done
};

// Runs one command line (argv[0] is the command) and returns its JSON answer: usage errors,
// unknown paths and daemon failures are answered as {"error":"..."}. A walk that cannot end (a
// cookie handed back again, more rows than its limit) returns "" with `failure` saying why, for
// the client to report on stderr with a non-zero exit.
std::string run_cli(CliEnv &env, const std::vector<std::string> &argv, std::string &failure);

} // namespace emu
