#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/vesk/IDigestType.h"

namespace vesk {

// SHA-256: "sha256", 32-byte results.
class CDigestType_SHA256 : public kz::CBase, public virtual IDigestType {
public:
    kz::String getID() const override;
    int getSize() const override;
    // Throws kz::CError when the cryptographic library has no SHA-256.
    void createDigest(kz::P<IDigest>& digest) const override;
};

}  // namespace vesk
