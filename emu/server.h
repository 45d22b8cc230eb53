// confd-emu's IPC server: accepts connections on 127.0.0.1 and serves each one on its own thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "cli_commands.h"
#include "datastore.h"
#include "registry.h"
#include "schema.h"

namespace emu
{

struct ServerOptions {
    int port = 4565;        // 0 = any free port
    int timeout_ms = 10000; // longest wait for a daemon's answer
    size_t walk_limit = 100000;
    int diff_timeout_ms = 0; // longest wait for a commit-diff subscriber's done; 0 = timeout_ms
};

class Server
{
  public:
    // Serves the schema's models with the configuration in ds.
    Server(const Schema &schema, Datastore &ds, const ServerOptions &opt);
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Binds and listens on 127.0.0.1. False with a message when the port cannot be had.
    bool listen(std::string &err);
    // The bound port (after listen).
    int port() const { return port_; }
    // The daemons' registry (front ends beside the CLI run their requests through it).
    Registry &registry() { return reg_; }
    // Serves until stop_fd becomes readable; then shuts every connection down and joins every
    // thread.
    void run(int stop_fd);
    // Serves one accepted connection on the calling thread until it closes: its hello, then the
    // frames of its kind. run() calls it on each connection's own thread.
    void serve(const ConnPtr &c);

  private:
    struct Thread {
        std::thread th;
        std::shared_ptr<std::atomic<bool>> done;
    };
    void reap(bool all);
    void serve_control(const ConnPtr &c, confd_wire::Reader &hello);
    void serve_worker(const ConnPtr &c, confd_wire::Reader &hello);
    void serve_maapi(const ConnPtr &c);
    void serve_events(const ConnPtr &c, confd_wire::Reader &hello);
    void serve_cli(const ConnPtr &c);
    // The next frame from an established connection: true on a frame; false when the peer
    // closed it or broke the protocol (oversized, half a frame then silence), logged then.
    bool next_frame(const ConnPtr &c, std::string &payload);
    // Handles one frame from a daemon after its registrations: a Reply, or an SNMP notification.
    // worker tells whether c is a worker socket (the only place SNMP notifications may come from).
    void read_daemon_frame(const ConnPtr &c, bool worker, confd_wire::Op op, confd_wire::Reader &r,
                           const std::string &payload);
    void snmp_notification(confd_wire::Reader &r);

    const Schema &schema_;
    Datastore &ds_;
    const ServerOptions opt_;
    Registry reg_;
    CliEnv cli_env_;
    int listen_fd_ = -1;
    int port_ = 0;
    uint32_t next_conn_ = 1;
    std::list<Thread> threads_;
};

} // namespace emu
