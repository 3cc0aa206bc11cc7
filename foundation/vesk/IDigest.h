#pragma once

#include "harl/foundation/kz/IBase.h"

namespace vesk {

// A running message digest: update() with the data in any number of pieces, finish(), then
// getData() gives getSize() bytes that stay valid until the next reset() or the object's end.
// Calls out of that order (update or finish after finish, getData before it) throw an
// "Internal error" kz::CError; reset() starts a new message at any time.
class IDigest : public virtual kz::IBase {
public:
    virtual void reset() = 0;
    virtual int getSize() const = 0;
    // A negative length, or a null pointer with a length above 0, throws
    // kz::CInvalidArgError.
    virtual void update(const void* data, int length) = 0;
    virtual void finish() = 0;
    virtual bool isFinished() const = 0;
    virtual const unsigned char* getData() const = 0;
};

}  // namespace vesk
