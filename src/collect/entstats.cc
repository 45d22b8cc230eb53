// Entity collector (see entstats.h): UCI "systeminfo" and the firmware version file.
#include "entstats.h"

#include "core/sysenv.h"
#include "procfs.h"

#include <uci.h>

#include <cstring>
#include <string>

namespace
{

const char uci_dir[] = "/etc/config";
const char firmware_file[] = "/etc/firmware_version";

// Copies value into a fixed field, cut to fit.
template <size_t N> void copy_field(char (&field)[N], const char *value)
{
    snprintf(field, N, "%s", value);
}

} // namespace

void ent_apply_option(ent_physical *entity, const char *option, const char *value)
{
    if (strcmp(option, "pid") == 0) {
        copy_field(entity->model, value);
        copy_field(entity->name, value);
    } else if (strcmp(option, "vid") == 0) {
        copy_field(entity->hardware_rev, value);
    } else if (strcmp(option, "serial_number") == 0) {
        copy_field(entity->serial, value);
    } else if (strcmp(option, "prod_desc") == 0) {
        copy_field(entity->description, value);
    }
}

int ent_read_systeminfo(ent_physical *entity)
{
    struct uci_context *ctx = uci_alloc_context();
    if (ctx == nullptr) return -1;
    // The configuration directory is a fixed path like any other: tests
    // point it at their fixture tree.
    std::string dir = sys_path(uci_dir);
    if (dir != uci_dir) uci_set_confdir(ctx, dir.c_str());
    struct uci_package *package = nullptr;
    if (uci_load(ctx, "systeminfo", &package) != UCI_OK || package == nullptr) {
        uci_free_context(ctx);
        return -1;
    }
    struct uci_element *s;
    uci_foreach_element(&package->sections, s)
    {
        struct uci_element *o;
        uci_foreach_element(&uci_to_section(s)->options, o)
        {
            struct uci_option *option = uci_to_option(o);
            if (option->type == UCI_TYPE_STRING)
                ent_apply_option(entity, o->name, option->v.string);
        }
    }
    entity->loaded = 1;
    uci_unload(ctx, package);
    uci_free_context(ctx);
    return 0;
}

void ent_parse_firmware_version(FILE *in, ent_physical *entity)
{
    char word[sizeof entity->firmware];
    static_assert(sizeof word == 32, "the scan width below is the field size less one");
    if (fscanf(in, "%31s", word) == 1) copy_field(entity->firmware, word);
}

int ent_read_firmware_version(ent_physical *entity)
{
    file_ptr in(sys_fopen(firmware_file, "r"));
    if (!in) return -1;
    ent_parse_firmware_version(in.get(), entity);
    return 0;
}
