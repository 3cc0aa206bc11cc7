#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/P.h"

#include <filesystem>
#include <vector>

namespace harlimg {

// The local file system, confined to a set of folders: images are often untrusted, and a
// descriptor names extent and parent files by itself, so the tool hands the library this file
// system rather than the whole machine. A URI is let through when its file, with "." and ".."
// removed and every symbolic link of the existing part of its path resolved, lies inside an
// allowed folder (or is one); anything else is refused with a CFileSystemError, problem
// AccessDenied, before the file is touched. Every other answer is the local file system's.
class CConfinedFileSystem : public kz::CBase, public kz::IFileSystem {
public:
    CConfinedFileSystem();

    // Allows `folder` and everything below it. The folder is resolved now, so that a link
    // changed later does not widen what is allowed.
    void allowFolder(const std::filesystem::path& folder);

    kz::P<kz::IIOStream> open(const kz::CURI& uri, kz::IIOStream::Access access,
                              int flags) override;
    bool exists(const kz::CURI& uri) override;
    void deleteFile(const kz::CURI& uri, bool ignoreMissing) override;

private:
    // Throws unless `uri` is inside an allowed folder.
    void checkAllowed(const kz::CURI& uri) const;

    kz::P<kz::IFileSystem> localFileSystem;
    std::vector<std::filesystem::path> allowedFolders;
};

}  // namespace harlimg
