#pragma once

#include "harl/foundation/kz/CFileStreamBase.h"
#include "harl/foundation/kz/CMemoryFile.h"

namespace kz {

// A stream on a CMemoryFile. Streams on one file share its bytes, so each sees the others'
// writes at once, and their locks meet in the file's lock table. A write or setLength past
// CMemoryFile::kMaxLengthBytes throws CFileSystemError NoSpace.
class CMemoryFileStream : public CFileStreamBase {
public:
    CMemoryFileStream(CMemoryFile* file, const CURI& uri, Access access);
    ~CMemoryFileStream() override;

protected:
    int doRead(long long position, void* data, int size) override;
    void doWrite(long long position, const void* data, int size) override;
    long long doGetLength() override;
    void doSetLength(long long length) override;
    void doFlush() override;
    bool doLockRange(long long position, long long length, LockType type) override;
    void doClose() override;

private:
    void checkLength(long long length);

    P<CMemoryFile> file;
};

}  // namespace kz
