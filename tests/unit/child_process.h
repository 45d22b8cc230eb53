// Runs a piece of test code in a forked child and collects its exit status and output.
#ifndef LEISOBEK_TESTS_UNIT_CHILD_PROCESS_H
#define LEISOBEK_TESTS_UNIT_CHILD_PROCESS_H

#include <cstdio>
#include <functional>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

// What a child left behind: its wait status and everything it wrote.
struct child_outcome {
    int status = -1;
    std::string out;
    std::string err;

    bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool killed_by(int sig) const { return WIFSIGNALED(status) && WTERMSIG(status) == sig; }
};

inline std::string slurp(FILE *f)
{
    std::string text;
    rewind(f);
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0)
        text.append(buf, n);
    return text;
}

// Forks, runs body in the child with stdout and stderr sent to temporary
// files, and waits for it. A body that returns ends the child with status 0.
inline child_outcome run_in_child(const std::function<void()> &body)
{
    child_outcome result;
    FILE *out = tmpfile();
    FILE *err = tmpfile();
    if (out == nullptr || err == nullptr) return result;
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(out), STDOUT_FILENO);
        dup2(fileno(err), STDERR_FILENO);
        body();
        fflush(stdout);
        fflush(stderr);
        _exit(0);
    }
    if (pid > 0) waitpid(pid, &result.status, 0);
    result.out = slurp(out);
    result.err = slurp(err);
    // Under qemu user-mode emulation (the ARM build's tests) the emulator adds its own line for
    // a child that a signal ended; it is not the child's output.
    size_t emulator = result.err.rfind("qemu: uncaught target signal ");
    if (emulator != std::string::npos && (emulator == 0 || result.err[emulator - 1] == '\n') &&
        result.err.find('\n', emulator) == result.err.size() - 1)
        result.err.erase(emulator);
    fclose(out);
    fclose(err);
    return result;
}

#endif
