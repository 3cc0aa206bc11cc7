#include "CWriteBehindFileSystem.h"

#include "CWriteBehindStream.h"

#include <utility>

namespace harlimg {

CWriteBehindFileSystem::CWriteBehindFileSystem(kz::P<kz::IFileSystem> inner)
    : inner(std::move(inner)) {
}

kz::P<kz::IIOStream> CWriteBehindFileSystem::open(const kz::CURI& uri,
                                                  kz::IIOStream::Access access, int flags) {
    kz::P<kz::IIOStream> stream = inner->open(uri, access, flags);
    if (access == kz::IIOStream::AccessRead) {
        return stream;
    }
    return kz::makeP<CWriteBehindStream>(stream);
}

bool CWriteBehindFileSystem::exists(const kz::CURI& uri) {
    return inner->exists(uri);
}

void CWriteBehindFileSystem::deleteFile(const kz::CURI& uri, bool ignoreMissing) {
    inner->deleteFile(uri, ignoreMissing);
}

}  // namespace harlimg
