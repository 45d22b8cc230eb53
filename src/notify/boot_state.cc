// Decides between coldStart and warmStart from the boot-state marker, once per start of the daemon.
#include "boot_state.h"

#include "notify.h"
#include "core/sysenv.h"

#include <cstring>
#include <memory>

namespace
{

struct file_closer {
    void operator()(FILE *f) const { fclose(f); }
};

} // namespace

bool boot_state_scan(FILE *marker)
{
    char line[100];
    for (;;) {
        memset(line, 0, sizeof line);
        if (fgets(line, sizeof line, marker) == nullptr) return false;
        if (strstr(line, "warmstart") != nullptr) return true;
    }
}

int boot_state_run(const char *path, int (*announce)(const char *notification))
{
    if (!sys_exists(path)) {
        announce("coldStart");
        // Nothing to remove; the call fails harmlessly.
        sys_remove(path);
        return 1;
    }
    {
        std::unique_ptr<FILE, file_closer> marker(sys_fopen(path, "r"));
        if (!marker) return -1;
        boot_state_scan(marker.get());
    }
    announce("warmStart");
    sys_remove(path);
    return 1;
}

int boot_state_notify(void)
{
    return boot_state_run(BOOT_STATE_MARKER, send_simple_notification);
}
