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

void CFaultInjectingFileSystem::failOperation(long long n, Fault fault) {
    failAt = n > 0 ? operationCount + n : 0;
    this->fault = fault;
    failed = false;
}

bool CFaultInjectingFileSystem::failsNow() {
    ++operationCount;
    if (failAt == 0 || operationCount < failAt ||
        (operationCount > failAt && fault != Fault::Die)) {
        return false;
    }
    failed = true;
    return true;
}

void CFaultInjectingFileSystem::throwInjectedFault(const CURI& uri) {
    throw CFileSystemError(
        CFileSystemError::Other,
        CError("Injected fault", String(), -1,
               CProps().add("uri", uri.toString(true)).add("operation", operationCount)));
}

void CFaultInjectingFileSystem::countOperation(const CURI& uri) {
    if (failsNow()) {
        throwInjectedFault(uri);
    }
}

int CFaultInjectingFileSystem::countWrite(const CURI& uri, int size) {
    if (!failsNow()) {
        return size;
    }
    // Only the operation that the fault names is torn; a dead process writes nothing more.
    if (fault == Fault::TornWrite && operationCount == failAt) {
        return size / 2;
    }
    throwInjectedFault(uri);
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
