#pragma once

#include "harl/foundation/kz/CURI.h"

#include <string>

namespace harltest {

// A new, empty folder under the system's temporary folder, removed with everything in it when
// the object goes. Each object has a folder of its own, so tests may run in parallel.
class CScratchFolder {
public:
    CScratchFolder();
    ~CScratchFolder();
    CScratchFolder(const CScratchFolder&) = delete;
    CScratchFolder& operator=(const CScratchFolder&) = delete;

    // The folder's absolute path, without a final "/".
    const std::string& getPath() const { return path; }

    // The path of `name` inside the folder.
    std::string file(const std::string& name) const { return path + "/" + name; }

    // The "file:" URI of `name` inside the folder, as the library names files.
    kz::CURI uriOf(const std::string& name) const;

private:
    std::string path;
};

}  // namespace harltest
