#pragma once

#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CIOError.h"

#include <vector>

// Header-only, so that benchmarks can use it without the test support library.
namespace harltest {

// An in-memory stream that records every write and counts reads, and fails writes on request:
// for tests of what reaches a file, in which order, and what happens when a write fails.
class CRecordingStream : public kz::CBufferStream {
public:
    struct CWrite {
        long long positionBytes;
        int sizeBytes;
        friend bool operator==(const CWrite&, const CWrite&) = default;
    };

    using kz::CBufferStream::CBufferStream;

    void write(const void* data, int size, kz::IWriteBarrier* barrier) override {
        if (failingFrom >= 0 && static_cast<int>(writes.size()) >= failingFrom) {
            throw kz::CIOError(kz::CIOError::WritePastEnd, "Injected write failure");
        }
        writes.push_back({getPosition(), size});
        CBufferStream::write(data, size, barrier);
    }

    int readLax(void* data, int size) override {
        ++readCount;
        return CBufferStream::readLax(data, size);
    }

    // The write with this number (counting recorded writes from 0) and all after it throw;
    // -1 lets writes pass again.
    void failWritesFrom(int writeNumber) { failingFrom = writeNumber; }

    std::vector<CWrite> writes;
    int readCount = 0;

private:
    int failingFrom = -1;
};

}  // namespace harltest
