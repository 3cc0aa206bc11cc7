#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CMemoryFileStream.h"

#include <random>

namespace kz {

namespace {

CFileSystemError notFound(const CURI& uri) {
    return CFileSystemError(
        CFileSystemError::NotFound,
        CError("No such file", String(), -1, CProps().add("uri", uri.toString(true))));
}

}  // namespace

CMemoryFileSystem::CMemoryFileSystem(bool keepFlushedImages)
    : keepFlushedImages(keepFlushedImages) {
}

String CMemoryFileSystem::keyOf(const CURI& uri) {
    return uri.toNormalized().toString(false);
}

void CMemoryFileSystem::checkWritable(const CURI& uri, const char* what) const {
    if (readOnly) {
        throw CFileSystemError(CFileSystemError::AccessDenied,
                               CError(String("The medium is read-only: cannot ") + what, String(),
                                      -1, CProps().add("uri", uri.toString(true))));
    }
}

P<IIOStream> CMemoryFileSystem::open(const CURI& uri, IIOStream::Access access, int flags) {
    if (flags != 0 || (access != IIOStream::AccessRead && access != IIOStream::AccessReadWrite)) {
        throw CInvalidArgError("CMemoryFileSystem::open", "Bad access or flags",
                               CProps()
                                   .add("uri", uri.toString(true))
                                   .add("access", static_cast<int>(access))
                                   .add("flags", flags));
    }
    const String key = keyOf(uri);
    auto found = files.find(key);
    if (access == IIOStream::AccessReadWrite) {
        checkWritable(uri, "open for writing");
        if (found == files.end()) {
            found = files.emplace(key, P<CMemoryFile>(new CMemoryFile(keepFlushedImages))).first;
        }
    } else if (found == files.end()) {
        throw notFound(uri);
    }
    return P<IIOStream>(new CMemoryFileStream(found->second.get(), uri, access));
}

bool CMemoryFileSystem::exists(const CURI& uri) {
    return files.count(keyOf(uri)) != 0;
}

void CMemoryFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    const auto found = files.find(keyOf(uri));
    if (found == files.end()) {
        if (!ignoreMissing) {
            throw notFound(uri);
        }
        return;
    }
    checkWritable(uri, "delete");
    files.erase(found);
}

P<CMemoryFile> CMemoryFileSystem::getFile(const CURI& uri) const {
    const auto found = files.find(keyOf(uri));
    return found == files.end() ? P<CMemoryFile>() : found->second;
}

void CMemoryFileSystem::dropUnflushedWrites() {
    if (!keepFlushedImages) {
        throw CError(
            "Internal error: CMemoryFileSystem::dropUnflushedWrites needs a file system made "
            "with keepFlushedImages");
    }
    for (auto& entry : files) {
        entry.second->revertToFlushed();
    }
}

void CMemoryFileSystem::cutPower(unsigned seed) {
    if (!keepFlushedImages) {
        throw CError(
            "Internal error: CMemoryFileSystem::cutPower needs a file system made with "
            "keepFlushedImages");
    }
    std::mt19937 random(seed);
    for (auto& entry : files) {
        entry.second->revertToFlushed([&random](size_t) { return random() % 2 == 0; });
    }
}

}  // namespace kz
