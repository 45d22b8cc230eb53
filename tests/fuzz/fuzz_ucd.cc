// Fuzzes the system-file readers of the UCD-SNMP-MIB and ENTITY-MIB collectors on any text: /proc/stat
// and /proc/vmstat, /proc/meminfo, /proc/version, the process snapshot and the firmware version.
#include "fuzz_util.h"

#include "entstats.h"
#include "ucdstats.h"

#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The whole-file reader, as /proc/stat is read: growing its buffer while reads fill it.
    static const std::string path = fuzz::scratch() + "/stat";
    fuzz::write("/stat", data, size);
    std::vector<char> text;
    if (!ucd_read_text(path, text) || text.empty() || text.back() != '\0') __builtin_trap();
    for (int seven = 0; seven < 2; seven++) {
        ucd_sys_flags flags = {seven, seven};
        ucd_sys_stats stats;
        memset(&stats, 0, sizeof stats);
        ucd_parse_sys_stats(text.data(), flags.vmstat ? text.data() : nullptr, &flags, &stats);
    }

    ucd_memory memory;
    memset(&memory, 0, sizeof memory);
    ucd_parse_meminfo(fuzz::stream(data, size).get(), &memory);

    ucd_version version;
    memset(&version, 0, sizeof version);
    ucd_parse_version(fuzz::stream(data, size).get(), &version);
    if (strnlen(version.release, sizeof version.release) == sizeof version.release ||
        strnlen(version.build, sizeof version.build) == sizeof version.build)
        __builtin_trap();

    std::vector<ucd_process> processes;
    ucd_parse_processes(fuzz::stream(data, size).get(), processes);

    ent_physical entity;
    memset(&entity, 0, sizeof entity);
    ent_parse_firmware_version(fuzz::stream(data, size).get(), &entity);
    if (strnlen(entity.firmware, sizeof entity.firmware) == sizeof entity.firmware)
        __builtin_trap();
    return 0;
}
