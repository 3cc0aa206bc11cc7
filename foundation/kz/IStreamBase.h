#pragma once

#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IBase.h"

namespace kz {

// What every stream has: a length, a position and the file it stands for.
//
// Contract: positions are bytes from the start. seek() to a negative position throws a
// CIOError code 7; a position behind the end is allowed (a read there finds the end, a write
// there extends a file). Any call on a closed stream throws a CIOError code 10.
class IStreamBase : public virtual IBase {
public:
    enum LockType { Unlock = 0, LockShared = 1, LockExclusive = 2 };

    virtual long long getLength() = 0;
    virtual long long getPosition() = 0;
    virtual CURI getURI() = 0;
    virtual void seek(long long position) = 0;

    // Takes or drops an advisory lock on a byte range, without waiting. Returns false when a
    // conflicting lock is held through another stream; locks go with the stream at close.
    // A stream that cannot lock throws a CFileSystemError with problem Unsupported.
    virtual bool lockRange(long long position, long long length, LockType type) = 0;

    // Writes out what is buffered and releases the file. Closing twice is allowed.
    virtual void close() = 0;
};

}  // namespace kz
