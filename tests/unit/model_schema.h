// The project's YANG models loaded once for the model and keypath tests, with lookups.
#pragma once

#include "schema.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <unistd.h>

// The models of LEISOBEK_MODELS_DIR, loaded on first use (a load failure fails that test).
inline const emu::Schema &models()
{
    static const emu::Schema *s = [] {
        auto *sc = new emu::Schema;
        std::string err;
        EXPECT_TRUE(sc->load(LEISOBEK_MODELS_DIR, err)) << err;
        return sc;
    }();
    return *s;
}

// A scratch directory of YANG modules, removed when the object goes away.
struct ModelDir {
    std::string path;
    ModelDir()
    {
        char tmpl[] = "/tmp/leisobek-models-XXXXXX";
        path = mkdtemp(tmpl);
    }
    ~ModelDir() { std::system(("rm -rf '" + path + "'").c_str()); }
    void add(const std::string &file, const std::string &text)
    {
        std::ofstream(path + "/" + file) << text;
    }
    // Adds the project's extension module, which modules with callpoints import.
    void add_ext()
    {
        std::ifstream in(std::string(LEISOBEK_MODELS_DIR) + "/leisobek-ext.yang");
        add("leisobek-ext.yang", std::string(std::istreambuf_iterator<char>(in), {}));
    }
};
