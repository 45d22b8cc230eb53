// Fixed paths and the shell, redirectable for tests (see sysenv.h).
#include "sysenv.h"

#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace
{

// Set only by tests, before the daemon's threads start.
std::string path_root;

FILE *shell_open(const char *command) { return popen(command, "r"); }
int shell_close(FILE *stream) { return pclose(stream); }
int shell_run(const char *command) { return system(command); }

const sys_runner shell = {shell_open, shell_close, shell_run};
const sys_runner *runner = &shell;

} // namespace

std::string sys_path(const char *path)
{
    if (path_root.empty() || path[0] != '/') return path;
    return path_root + path;
}

void sys_set_root(const char *root) { path_root = root != nullptr ? root : ""; }

FILE *sys_fopen(const char *path, const char *mode) { return fopen(sys_path(path).c_str(), mode); }

bool sys_exists(const char *path)
{
    struct stat st;
    return stat(sys_path(path).c_str(), &st) == 0;
}

int sys_remove(const char *path) { return remove(sys_path(path).c_str()); }

void sys_set_runner(const sys_runner *r) { runner = r != nullptr ? r : &shell; }

FILE *sys_popen(const char *command) { return runner->open(command); }

int sys_pclose(FILE *stream) { return runner->close(stream); }

int sys_system(const char *command) { return runner->run(command); }

void read_command_line(const char *command, char *answer, int size)
{
    memset(answer, 0, static_cast<size_t>(size));
    sys_pipe pipe(command);
    if (!pipe) return;
    if (fgets(answer, size, pipe.get()) != nullptr) answer[strcspn(answer, "\n")] = '\0';
}
