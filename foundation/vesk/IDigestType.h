#pragma once

#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"
#include "harl/foundation/vesk/IDigest.h"

namespace vesk {

// A digest algorithm: names it and makes digests of it.
class IDigestType : public virtual kz::IBase {
public:
    virtual kz::String getID() const = 0;
    // The size of a result in bytes.
    virtual int getSize() const = 0;
    // Puts a new digest, ready for update(), into `digest`.
    virtual void createDigest(kz::P<IDigest>& digest) const = 0;
};

}  // namespace vesk
