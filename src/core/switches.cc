// Command-line parsing for the daemon.
#include "switches.h"

#include <cstdlib>
#include <unistd.h>

struct daemon_switches parse_switches(int argc, char *argv[])
{
    struct daemon_switches sw = {0, 1};
    // 0 makes both glibc's and musl's getopt start over from argv[1].
    optind = 0;
    int c;
    while ((c = getopt(argc, argv, "tdpsrn:")) != -1) {
        switch (c) {
        case 's':
            sw.debug_level = 0;
            break;
        case 'd':
            sw.debug_level = 1;
            break;
        case 't':
            sw.debug_level = 2;
            break;
        case 'p':
            sw.debug_level = 3;
            break;
        case 'r':
            break;
        case 'n':
            sw.start_mode = atoi(optarg);
            break;
        default:
            break;
        }
    }
    return sw;
}
