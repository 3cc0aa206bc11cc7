#include "harl/foundation/kz/CFaultInjectingFileSystem.h"

#include "harl/foundation/kz/CFaultInjectingStream.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

namespace kz {

CFaultInjectingFileSystem::CFaultInjectingFileSystem(IFileSystem* inner) : inner(inner) {
    if (inner == nullptr) {
        throw CInvalidArgError("CFaultInjectingFileSystem", "No file system to wrap");
    }
}

void CFaultInjectingFileSystem::failOperation(int n, bool sticky) {
    failAt = n > 0 ? operationCount + n : 0;
    this->sticky = sticky;
    failed = false;
}

void CFaultInjectingFileSystem::countOperation(const CURI& uri) {
    ++operationCount;
    if (failAt == 0 || operationCount < failAt || (operationCount > failAt && !sticky)) {
        return;
    }
    failed = true;
    throw CFileSystemError(
        CFileSystemError::Other,
        CError("Injected fault", String(), -1,
               CProps().add("uri", uri.toString(true)).add("operation", operationCount)));
}

P<IIOStream> CFaultInjectingFileSystem::open(const CURI& uri, IIOStream::Access access, int flags) {
    countOperation(uri);
    return P<IIOStream>(new CFaultInjectingStream(inner->open(uri, access, flags).get(), this));
}

bool CFaultInjectingFileSystem::exists(const CURI& uri) {
    return inner->exists(uri);
}

void CFaultInjectingFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    countOperation(uri);
    inner->deleteFile(uri, ignoreMissing);
}

}  // namespace kz
