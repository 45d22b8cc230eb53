// Fuzzes the UCI configuration parser of the host library on any package text.
#include "store.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    leisobek::uci::PackageStore store;
    store.pkg.e.type = UCI_TYPE_PACKAGE;
    store.pkg.e.name = store.keep("fuzz");
    leisobek::uci::list_init(&store.pkg.e.list);
    leisobek::uci::list_init(&store.pkg.sections);
    leisobek::uci::ParseError err;
    std::string_view text(reinterpret_cast<const char *>(data), size);
    if (leisobek::uci::parse_package(text, store, err)) {
        // Walk what was built: every section and option must be reachable and named.
        for (const auto &s : store.sections)
            if (s.type == nullptr) __builtin_trap();
    }
    return 0;
}
