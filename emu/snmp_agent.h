// The SNMP front end of confd-emu: an embedded net-snmp master agent that answers the MIB objects
// of the models (by their lx:snmp-oid) through transactions towards the daemons, and forwards the
// daemons' SNMP notifications as SNMPv2c traps.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "datastore.h"
#include "registry.h"
#include "schema.h"

namespace emu
{

struct SnmpOptions {
    std::string listen;                  // net-snmp transport, "udp:127.0.0.1:1161"
    std::vector<std::string> trap_sinks; // transports the traps go to
    std::vector<std::string> users;      // SNMPv3 USM users, "name:authpass[:privpass]"
    int diff_timeout_ms = 10000;         // longest wait of a SET's commit for each diff subscriber
};

class SnmpAgent
{
  public:
    // ds may be null: then only daemons answer.
    SnmpAgent(Registry &reg, const Schema &schema, Datastore *ds, SnmpOptions opt);
    // Stops the agent's thread.
    ~SnmpAgent();
    SnmpAgent(const SnmpAgent &) = delete;
    SnmpAgent &operator=(const SnmpAgent &) = delete;

    // Opens the listening transport and the trap sinks and starts the agent's thread. False with
    // a message when the transport cannot be opened. At most one agent per process (net-snmp's
    // state is global).
    bool start(std::string &err);
    // Queues a daemon's notification for the trap sinks; any thread.
    void notify(const Notification &n);

    struct Impl;

  private:
    std::unique_ptr<Impl> impl_;
};

} // namespace emu
