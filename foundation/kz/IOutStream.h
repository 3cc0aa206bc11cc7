#pragma once

#include "harl/foundation/kz/IStreamBase.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TConstBufferSlice.h"

namespace kz {

class IWriteBarrier;

// A writable stream. Writes start at the position and advance it.
class IOutStream : public virtual IStreamBase {
public:
    // Writes all `size` bytes or throws. `barrier` may be null.
    virtual void write(const void* data, int size, IWriteBarrier* barrier) = 0;

    // As write(), but the stream may keep reading the caller's bytes until `barrier` is
    // waited for, so a stream that completes writes later need not copy them.
    virtual void writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                                 IWriteBarrier* barrier) = 0;

    virtual P<IWriteBarrier> createWriteBarrier() = 0;

    // Makes every write made so far durable: buffers go to the file and the file to its
    // storage. What was flushed survives a crash of the process or of the machine.
    virtual void flush() = 0;

    // Cuts or extends the file; the position stays.
    virtual void setLength(long long length) = 0;
};

}  // namespace kz
