// Entry point of the leisobek daemon.
#include "core/daemon.h"

int main(int argc, char *argv[])
{
    daemon_main(argc, argv);
}
