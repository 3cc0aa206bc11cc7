#include "harl/foundation/kz/CMemoryFileStream.h"

#include "harl/foundation/kz/CFileSystemError.h"

#include <algorithm>
#include <cstring>

namespace kz {

CMemoryFileStream::CMemoryFileStream(CMemoryFile* file, const CURI& uri, Access access)
    : CFileStreamBase(uri, access), file(file) {
}

CMemoryFileStream::~CMemoryFileStream() {
    closeInDestructor("CMemoryFileStream");
}

void CMemoryFileStream::checkLength(long long length) {
    if (length > CMemoryFile::kMaxLengthBytes) {
        throw CFileSystemError(CFileSystemError::NoSpace,
                               CError("A file in memory cannot grow this large", String(), -1,
                                      CProps()
                                          .add("uri", getURI().toString(true))
                                          .add("length", length)
                                          .add("limit", CMemoryFile::kMaxLengthBytes)));
    }
}

int CMemoryFileStream::doRead(long long position, void* data, int size) {
    const long long length = file->getLength();
    if (position >= length) {
        return 0;
    }
    const int count = static_cast<int>(std::min<long long>(size, length - position));
    std::memcpy(data, file->getContent().getData() + position, static_cast<size_t>(count));
    return count;
}

void CMemoryFileStream::doWrite(long long position, const void* data, int size) {
    checkLength(position + size);
    file->write(position, data, size);
}

long long CMemoryFileStream::doGetLength() {
    return file->getLength();
}

void CMemoryFileStream::doSetLength(long long length) {
    checkLength(length);
    file->resize(length);
}

void CMemoryFileStream::doFlush() {
    file->markFlushed();
}

bool CMemoryFileStream::doLockRange(long long position, long long length, LockType type) {
    return file->lock(this, position, length, type);
}

void CMemoryFileStream::doClose() {
    file->unlockAll(this);
    file = nullptr;
}

}  // namespace kz
