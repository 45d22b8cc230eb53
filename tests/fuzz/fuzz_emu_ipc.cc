// Fuzzes confd-emu's end of the IPC: the input is the byte stream of one client connection (its
// hello, then registrations and replies of a daemon, MAAPI requests, event dones or commands),
// served frame by frame as the connection's thread serves it, on the demo configuration. A daemon
// is already connected (id 1), so a worker connection has one to join.
#include "fuzz_util.h"

#include "datastore.h"
#include "schema.h"
#include "server.h"

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static emu::Schema *schema = [] {
        auto *s = new emu::Schema;
        std::string err;
        if (!s->load(LEISOBEK_MODELS_DIR, err)) abort();
        return s;
    }();
    // A fresh configuration each time, so that no input depends on what earlier ones committed.
    emu::Datastore ds(*schema);
    std::string err;
    if (!ds.load(LEISOBEK_MODELS_DIR "/demo-init.xml", err)) abort();
    emu::ServerOptions opt;
    opt.timeout_ms = 200;
    opt.walk_limit = 1000;
    emu::Server server(*schema, ds, opt);

    fuzz::socket_feed daemon(nullptr, 0);
    auto control = std::make_shared<emu::Conn>(daemon.near, 1, "127.0.0.1", 4001);
    daemon.near = -1; // the connection owns it now
    server.registry().add_conn(control);
    server.registry().add_daemon("fuzz", control, 0, 0);

    fuzz::socket_feed client(data, size);
    auto conn = std::make_shared<emu::Conn>(client.near, 2, "127.0.0.1", 4002);
    client.near = -1;
    server.registry().add_conn(conn);
    server.serve(conn);
    return 0;
}
