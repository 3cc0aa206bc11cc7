#include "CConfinedFileSystem.h"

#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"

#include <algorithm>
#include <system_error>

namespace harlimg {

namespace {

// The path with links of its existing part resolved and "." and ".." removed; empty when the
// system cannot resolve it.
std::filesystem::path resolve(const std::filesystem::path& path) {
    std::error_code error;
    std::filesystem::path resolved = std::filesystem::weakly_canonical(path, error);
    return error ? std::filesystem::path() : resolved.lexically_normal();
}

bool isInside(const std::filesystem::path& path, const std::filesystem::path& folder) {
    auto [folderEnd, pathAt] =
        std::mismatch(folder.begin(), folder.end(), path.begin(), path.end());
    // A folder path that ends in "/" has an empty last element.
    return folderEnd == folder.end() ||
           (folderEnd->empty() && std::next(folderEnd) == folder.end());
}

}  // namespace

CConfinedFileSystem::CConfinedFileSystem() : localFileSystem(new kz::CLocalFileSystem) {
}

void CConfinedFileSystem::allowFolder(const std::filesystem::path& folder) {
    const std::filesystem::path resolved = resolve(std::filesystem::absolute(folder));
    if (!resolved.empty()) {
        allowedFolders.push_back(resolved);
    }
}

void CConfinedFileSystem::checkAllowed(const kz::CURI& uri) const {
    const std::filesystem::path path = resolve(kz::CLocalFileSystem::toLocalPath(uri).toUTF8());
    for (const std::filesystem::path& folder : allowedFolders) {
        if (!path.empty() && isInside(path, folder)) {
            return;
        }
    }
    throw kz::CFileSystemError(
        kz::CFileSystemError::AccessDenied,
        kz::CError("Refused to reach a file outside the folders of the images named on the "
                   "command line",
                   "allow its folder with --allow-dir", -1,
                   kz::CProps().add("uri", uri.toString(true))));
}

kz::P<kz::IIOStream> CConfinedFileSystem::open(const kz::CURI& uri, kz::IIOStream::Access access,
                                               int flags) {
    checkAllowed(uri);
    return localFileSystem->open(uri, access, flags);
}

bool CConfinedFileSystem::exists(const kz::CURI& uri) {
    checkAllowed(uri);
    return localFileSystem->exists(uri);
}

void CConfinedFileSystem::deleteFile(const kz::CURI& uri, bool ignoreMissing) {
    checkAllowed(uri);
    localFileSystem->deleteFile(uri, ignoreMissing);
}

}  // namespace harlimg
