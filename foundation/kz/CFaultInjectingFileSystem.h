#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IFileSystem.h"

namespace kz {

// Wraps another file system and fails the operation that a test names, in the manner of
// storage that breaks: for each write path a test fails the 1st, 2nd, ... operation until
// the path completes, and checks what survived.
//
// Counted operations: open and deleteFile here; read, readLax, readAvailable, write,
// writeKeepBuffer, flush and setLength on the streams it hands out (CFaultInjectingStream).
// Queries, seeks, locks and close pass through uncounted. A failed operation throws a
// CFileSystemError with problem Other around "Injected fault", with the "uri" and the
// "operation" number, and does not reach the wrapped file system.
//
// For a power cut, wrap a CMemoryFileSystem that keeps flushed images: fail the Nth
// operation with `sticky` (the machine is off from then on), drop the streams, call its
// dropUnflushedWrites() and reopen through it.
class CFaultInjectingFileSystem : public CBase, public IFileSystem {
public:
    explicit CFaultInjectingFileSystem(IFileSystem* inner);

    P<IIOStream> open(const CURI& uri, IIOStream::Access access, int flags) override;
    bool exists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;

    // The `n`th counted operation from now fails (1: the next one); `sticky` fails every
    // one after it too. 0 disarms.
    void failOperation(int n, bool sticky);

    // Counted operations since construction.
    long long getOperationCount() const { return operationCount; }

    // True once an injected fault has fired.
    bool hasFailed() const { return failed; }

    // Counts one operation on `uri`, throwing when it is the one to fail. For the streams.
    void countOperation(const CURI& uri);

private:
    P<IFileSystem> inner;
    long long operationCount = 0;
    long long failAt = 0;  // the operation count that fails; 0: none
    bool sticky = false;
    bool failed = false;
};

}  // namespace kz
