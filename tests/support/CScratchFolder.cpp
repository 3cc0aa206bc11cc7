#include "tests/support/CScratchFolder.h"

#include <filesystem>
#include <stdexcept>
#include <stdlib.h>
#include <system_error>
#include <vector>

namespace harltest {

CScratchFolder::CScratchFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "harl-test-XXXXXX").string();
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("Cannot create a scratch folder from " + pattern);
    }
    path = name.data();
}

CScratchFolder::~CScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

kz::CURI CScratchFolder::uriOf(const std::string& name) const {
    // Scratch paths hold no character that a URI would need to encode.
    return kz::CURI(kz::String("file://" + file(name)));
}

}  // namespace harltest
