#pragma once

#include "harl/foundation/kz/IBase.h"

namespace harl {

// A byte-addressed disk with one position, as a host would drive any disk. The library itself
// neither implements nor calls it; it fixes the shape for hosts that wrap a disk of their own.
class IDisk : public virtual kz::IBase {
public:
    IDisk() = default;
    IDisk(const IDisk&) = default;
    IDisk(IDisk&&) = default;
    IDisk& operator=(const IDisk&) = default;
    IDisk& operator=(IDisk&&) = default;

    // Sets the byte position; 0 to the disk size, both included.
    virtual void seek(long long position) = 0;
    virtual long long getPosition() const = 0;
    // Read or write `bytes` bytes at the position and advance it.
    virtual void read(void* buffer, int bytes) = 0;
    virtual void write(const void* buffer, int bytes) = 0;
    virtual long long getSizeBytes() const = 0;
    // Brings every change held in memory to the disk's files.
    virtual void flushChanges() = 0;

protected:
    ~IDisk() override = default;
};

}  // namespace harl
