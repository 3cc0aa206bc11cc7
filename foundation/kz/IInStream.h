#pragma once

#include "harl/foundation/kz/IStreamBase.h"

namespace kz {

// A readable stream. Reads start at the position and advance it by what they return.
class IInStream : public virtual IStreamBase {
public:
    // Reads exactly `size` bytes, or throws a CIOError code 4 when the end comes first; what
    // was read before the end is then in `data` and the position is undefined.
    virtual void read(void* data, int size) = 0;

    // Reads up to `size` bytes; fewer only at the end. Returns the count.
    virtual int readLax(void* data, int size) = 0;

    // Reads what can be had without waiting, at least 1 byte unless at the end.
    virtual int readAvailable(void* data, int size) = 0;

    // True when a read would not wait; files are always readable.
    virtual bool waitReadable(int timeoutMilliseconds) = 0;

    virtual bool isEndOfStream() = 0;
    virtual bool isEndOfStream_NonBlocking() = 0;
};

}  // namespace kz
