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
// "operation" number.
//
// How the named operation fails (Fault):
// - Fail: it does not reach the wrapped file system; later operations work again.
// - TornWrite: a write stores the first half of its bytes (rounded down) and then fails, as a
//   medium that loses power in the middle of a write; any other operation fails as with Fail.
//   Later operations work again.
// - Die: the process dies there. Neither it nor any later operation reaches the wrapped file
//   system; each fails, so that the code that is still unwinding (destructors, error paths)
//   changes nothing. What reached the file before stays, as it does when a process is killed.
//
// For a power cut, wrap a CMemoryFileSystem that keeps flushed images: fail the Nth
// operation with Die, drop the streams, call its dropUnflushedWrites() and reopen through it.
class CFaultInjectingFileSystem : public CBase, public IFileSystem {
public:
    enum class Fault { Fail, TornWrite, Die };

    explicit CFaultInjectingFileSystem(IFileSystem* inner);

    P<IIOStream> open(const CURI& uri, IIOStream::Access access, int flags) override;
    bool exists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;

    // The `n`th counted operation from now fails in the way `fault` says (1: the next one).
    // 0 disarms.
    void failOperation(long long n, Fault fault);

    // The same, with Die for `sticky` and Fail otherwise.
    void failOperation(int n, bool sticky) { failOperation(n, sticky ? Fault::Die : Fault::Fail); }

    // Counted operations since construction.
    long long getOperationCount() const { return operationCount; }

    // True once an injected fault has fired.
    bool hasFailed() const { return failed; }

    // Counts one operation on `uri`, throwing when it is one to fail. For the streams.
    void countOperation(const CURI& uri);

    // For the streams' writes: counts one operation on `uri`. Returns how many of `size` bytes
    // the write stores before it fails: `size` when it does not fail, fewer for a torn write
    // (the caller stores them and then calls throwInjectedFault); throws for any other fault.
    int countWrite(const CURI& uri, int size);

    // The error of the operation that countWrite tore.
    [[noreturn]] void throwInjectedFault(const CURI& uri);

private:
    // True when the operation just counted is one to fail.
    bool failsNow();

    P<IFileSystem> inner;
    long long operationCount = 0;
    long long failAt = 0;  // the operation count that fails; 0: none
    Fault fault = Fault::Fail;
    bool failed = false;
};

}  // namespace kz
