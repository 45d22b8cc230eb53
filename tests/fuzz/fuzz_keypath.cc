// Fuzzes confd-emu's keypath parser (the CLI's and the daemon's path text) against the project's
// models: any text parses or is refused with a reason, and a parsed path prints back to text that
// parses to the same path. A key forced to another type than its key leaf's ("C_HEXSTR:..." on an
// integer key) prints as bare text, the way ConfD prints keypaths, so such paths only need to print.
#include "keypath.h"
#include "schema.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static emu::Schema *schema = [] {
        auto *s = new emu::Schema;
        std::string err;
        if (!s->load(LEISOBEK_MODELS_DIR, err)) {
            fprintf(stderr, "models: %s\n", err.c_str());
            abort();
        }
        return s;
    }();
    std::string text(reinterpret_cast<const char *>(data), size);
    emu::ParsedPath path;
    std::string err;
    if (!emu::parse_keypath(*schema, text, path, err)) return 0;
    std::string printed = emu::pp_path(*schema, path);
    for (const emu::PathStep &st : path.steps)
        for (size_t k = 0; k < st.keys.size() && k < st.node->keys.size(); ++k)
            if (st.keys[k].type != st.node->keys[k]->vtype) return 0;
    emu::ParsedPath again;
    if (!emu::parse_keypath(*schema, printed, again, err)) {
        fprintf(stderr, "printed path %s does not parse: %s\n", printed.c_str(), err.c_str());
        abort();
    }
    if (emu::pp_path(*schema, again) != printed) {
        fprintf(stderr, "path %s prints differently after a round trip\n", printed.c_str());
        abort();
    }
    return 0;
}
