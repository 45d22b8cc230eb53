// Where the daemon meets the router outside ConfD and the kernel: fixed file paths and the shell.
//
// Every fixed path outside /proc (the boot-state marker, the statistics files
// under /tmp/stats, /etc/firmware_version, the UCI directory, ...) is opened
// through sys_path, and every script or command through sys_popen/sys_system.
// On the router both are the identity. Tests point the paths at a fixture tree
// with sys_set_root and put a runner of their own in place of the shell with
// sys_set_runner, so that providers are exercised on fixtures and no real
// reboot or factory reset can ever run. Free of ConfD: the collectors use it.
#ifndef LEISOBEK_CORE_SYSENV_H
#define LEISOBEK_CORE_SYSENV_H

#include <cstdio>
#include <string>

// The path a fixed absolute path is read at: path itself, or below the root a
// test set ("/tmp/stats/x" becomes "<root>/tmp/stats/x").
std::string sys_path(const char *path);

// Sets the fixture root; null or "" restores the real paths.
void sys_set_root(const char *root);

// fopen, stat-exists and remove on sys_path(path).
FILE *sys_fopen(const char *path, const char *mode);
bool sys_exists(const char *path);
int sys_remove(const char *path);

// The shell, replaceable by a test. open starts command with its standard output
// readable from the returned stream (null when it cannot be started); close
// waits for it and returns its status as pclose does; run is system().
struct sys_runner {
    FILE *(*open)(const char *command);
    int (*close)(FILE *stream);
    int (*run)(const char *command);
};

// Installs runner (it must outlive its use); null restores popen/pclose/system.
void sys_set_runner(const sys_runner *runner);

// popen(command, "r") through the runner; pair it with sys_pclose.
FILE *sys_popen(const char *command);
int sys_pclose(FILE *stream);
// system(command) through the runner.
int sys_system(const char *command);

// A command's output stream, closed with sys_pclose when it goes out of scope.
struct sys_pipe {
    explicit sys_pipe(const char *command) : stream(sys_popen(command)) {}
    ~sys_pipe()
    {
        if (stream != nullptr) sys_pclose(stream);
    }
    sys_pipe(const sys_pipe &) = delete;
    sys_pipe &operator=(const sys_pipe &) = delete;
    explicit operator bool() const { return stream != nullptr; }
    FILE *get() const { return stream; }

    FILE *stream;
};

// Runs command and copies the first line of its output (at most size - 1
// characters, newline cut off) into answer; answer is empty when the command
// cannot be started or prints nothing.
void read_command_line(const char *command, char *answer, int size);

#endif
