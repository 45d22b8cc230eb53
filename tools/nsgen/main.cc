// nsgen: writes the namespace headers of the YANG models for the daemon's build.
#include <cstdio>
#include <cstring>
#include <string>

#include "nsgen.h"

static void usage(FILE *f)
{
    std::fprintf(
        f, "usage: nsgen --models DIR --out DIR\n"
           "Loads every *.yang module in the models directory and writes <module>.h with the\n"
           "namespace, tag, callpoint and enumerator macros of each module into the output\n"
           "directory. Fails on a hash collision or a clash of macro names.\n");
}

int main(int argc, char **argv)
{
    std::string models, out;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            usage(stdout);
            return 0;
        }
        if (i + 1 < argc && !std::strcmp(argv[i], "--models"))
            models = argv[++i];
        else if (i + 1 < argc && !std::strcmp(argv[i], "--out"))
            out = argv[++i];
        else {
            usage(stderr);
            return 2;
        }
    }
    if (models.empty() || out.empty()) {
        usage(stderr);
        return 2;
    }
    std::string err;
    if (!nsgen::generate(models, out, err)) {
        std::fprintf(stderr, "nsgen: %s\n", err.c_str());
        return 1;
    }
    return 0;
}
