// Fuzzes the frame payload codec shared by the client library and confd-emu: any payload decodes
// without reading out of bounds, and every value that decodes encodes back to the same bytes.
#include "wire.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view payload(reinterpret_cast<const char *>(data), size);
    confd_wire::Reader r(payload);
    r.op();
    for (int i = 0; i < 64 && r.ok() && !r.at_end(); i++) {
        if (size > 0 && (data[0] & 1)) {
            confd_wire::KeyPath kp = r.keypath();
            (void)kp;
            continue;
        }
        confd_wire::Value v = r.value();
        if (!r.ok()) break;
        confd_wire::Writer w(confd_wire::Op{});
        w.value(v);
        confd_wire::Reader back(w.payload());
        back.op();
        confd_wire::Value again = back.value();
        confd_wire::Writer w2(confd_wire::Op{});
        w2.value(again);
        if (!back.ok() || w2.payload() != w.payload()) __builtin_trap();
    }
    return 0;
}
