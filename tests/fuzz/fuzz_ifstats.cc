// Fuzzes the interface statistics files of the IF-MIB collector: the same text as the layer-3
// file and as each switch-port file, read by a whole refresh, then looked up as the provider does.
#include "fuzz_util.h"

#include "core/sysenv.h"
#include "ifstats.h"

#include <cstring>
#include <string>

namespace
{

// The statistics script does not run: the files are the input.
FILE *no_pipe(const char *)
{
    return nullptr;
}
int no_close(FILE *)
{
    return -1;
}
int no_run(const char *)
{
    return 0;
}
const sys_runner no_script = {no_pipe, no_close, no_run};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = [] {
        fuzz::make_dirs("/tmp/stats");
        sys_set_root(fuzz::scratch().c_str());
        sys_set_runner(&no_script);
        return true;
    }();
    (void)ready;
    for (const char *file : {"snmp_iface_stats", "snmp_wanport_stats", "snmp_lanport_stats",
                             "snmp_wlan_port_stats"})
        fuzz::write(std::string("/tmp/stats/") + file, data, size);
    // Odd inputs take the model with the wireless-port file.
    if (if_state_refresh(size & 1 ? "TX520W" : "TX410") != 0) return 0;
    const int32_t *order = if_state_index_table();
    for (int i = 0; i < if_state_count(); i++) {
        // A listed index may lack a record (a repeated name); a record's texts are terminated.
        const IfStateRecord *rec = if_state_lookup(order[i]);
        if (rec != nullptr && (strnlen(rec->name, sizeof rec->name) == sizeof rec->name ||
                               strnlen(rec->label, sizeof rec->label) == sizeof rec->label))
            __builtin_trap();
    }
    return 0;
}
