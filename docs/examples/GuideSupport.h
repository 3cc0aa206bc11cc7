#pragma once

// What the guide's example programs share outside the parts that the guide quotes: each
// program checks that the library does what the guide says, and fails loudly when it does not.

#include "harl/foundation/kz/CError.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <system_error>
#include <vector>

namespace guide {

// Throws when `condition` is false, naming what the guide promised.
inline void check(bool condition, const std::string& promise) {
    if (!condition) {
        throw std::runtime_error("Not as the guide says: " + promise);
    }
}

// The what() of the kz::CError that `call` throws. A call that throws nothing is a failure.
inline std::string thrownText(const std::function<void()>& call) {
    try {
        call();
    } catch (const kz::CError& e) {
        return e.what();
    }
    throw std::runtime_error("Not as the guide says: the call throws a kz::CError");
}

// A new, empty folder under the temporary folder, removed with its content at the end.
class CScratchFolder {
public:
    CScratchFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "harl-guide-XXXXXX");
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("Cannot create a folder from " + pattern);
        }
        path = name.data();
    }

    ~CScratchFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;

    const std::string& getPath() const { return path; }

private:
    std::string path;
};

// Runs one example program: 0 when it went as the guide says, else 1 with the reason.
inline int run(const std::function<void()>& example) {
    try {
        example();
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}

}  // namespace guide
