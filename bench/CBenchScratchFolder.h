#pragma once

#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CURI.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>

// A benchmark's scratch folder under the system's temporary folder, removed at exit unless the
// environment sets HARL_BENCH_KEEP (the path then goes to stderr), with the local file system
// that the cases hand the library.
class CBenchScratchFolder {
public:
    explicit CBenchScratchFolder(const std::string& prefix) {
        std::string pattern = std::filesystem::temp_directory_path() / (prefix + "-XXXXXX");
        if (mkdtemp(pattern.data()) == nullptr) {
            throw std::runtime_error("Cannot create a scratch folder from " + pattern);
        }
        path = pattern;
        keep = std::getenv("HARL_BENCH_KEEP") != nullptr;
        if (keep) {
            std::fprintf(stderr, "Scratch folder kept: %s\n", path.c_str());
        }
    }

    ~CBenchScratchFolder() {
        if (!keep) {
            std::error_code ignored;
            std::filesystem::remove_all(path, ignored);
        }
    }

    CBenchScratchFolder(const CBenchScratchFolder&) = delete;
    CBenchScratchFolder& operator=(const CBenchScratchFolder&) = delete;

    std::string file(const std::string& name) const { return path + "/" + name; }

    // Scratch paths hold no character that a URI would need to encode.
    kz::CURI uri(const std::string& name) const { return kz::CURI("file://" + file(name)); }

    kz::P<kz::IFileSystem> fs{new kz::CLocalFileSystem};

private:
    std::string path;
    bool keep = false;
};
