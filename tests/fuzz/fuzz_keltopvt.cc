// Fuzzes the private model MIB's reading of its scripts' output: the input is what every script
// prints, split into fields as each table reads it and copied into the provider's texts.
#include "fuzz_util.h"

#include "core/sysenv.h"
#include "mibs/keltopvtmib_parts.h"

#include <cstring>
#include <string>

namespace
{

std::string input;

// Every command prints the input (one command at a time); none runs.
FILE *print_input(const char *)
{
    return fmemopen(&input[0], input.size(), "r");
}
int close_output(FILE *f)
{
    return fclose(f);
}
int no_run(const char *)
{
    return 0;
}
const sys_runner scripts = {print_input, close_output, no_run};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    input.assign(reinterpret_cast<const char *>(data), size);
    if (input.empty()) input = "\n";
    sys_set_runner(&scripts);
    for (int max_fields : {3, 5, 8}) {
        keltopvt_read_script("sh /usr/bin/getwandns.sh", max_fields, [&](char **fields, int count) {
            if (count < 1 || count > max_fields) __builtin_trap();
            char text[256];
            for (int i = 0; i < count; i++) {
                keltopvt_copy_text(text, sizeof text, fields[i]);
                if (strnlen(text, sizeof text) == sizeof text || strpbrk(text, "\r\n")) __builtin_trap();
            }
            return true;
        });
    }
    keltopvt_iface_fields iface;
    if (!keltopvt_read_iface("sh /usr/bin/getiface.sh wan", iface)) __builtin_trap();
    for (const char *field : iface.field)
        if (strnlen(field, 256) == 256) __builtin_trap();
    sys_set_runner(nullptr);
    return 0;
}
