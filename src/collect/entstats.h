// Entity collector: the chassis record from the UCI package "systeminfo" and /etc/firmware_version.
#ifndef LEISOBEK_COLLECT_ENTSTATS_H
#define LEISOBEK_COLLECT_ENTSTATS_H

#include <cstdint>
#include <cstdio>

// The chassis row of entPhysicalTable. Every text is NUL-terminated and cut
// to its field.
struct ent_physical {
    uint32_t requests;     // counter of request_count_due (timedcache.h)
    int32_t loaded;        // 1 once "systeminfo" has been read
    char model[20];        // option "pid"
    char description[100]; // option "prod_desc"
    char name[20];         // option "pid" again
    char hardware_rev[5];  // option "vid"
    char serial[15];       // option "serial_number"
    char firmware[32];     // first word of /etc/firmware_version
};

// Takes one option of the package into the record: "pid" into model and
// name, "vid", "serial_number" and "prod_desc"; any other name is ignored.
void ent_apply_option(ent_physical *entity, const char *option, const char *value);

// Reads the UCI package "systeminfo": every string option of every section,
// in file order (a later section overwrites an earlier one), then sets
// loaded. Returns 0, or -1 (record unchanged) when no UCI context can be made
// or the package cannot be loaded.
int ent_read_systeminfo(ent_physical *entity);

// Reads the first blank-separated word of in into the firmware version
// (left as it was when there is none).
void ent_parse_firmware_version(FILE *in, ent_physical *entity);

// Reads "/etc/firmware_version". Returns 0, or -1 when it cannot be opened.
int ent_read_firmware_version(ent_physical *entity);

#endif
