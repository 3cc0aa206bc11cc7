#pragma once

#include "harl/foundation/kz/IBase.h"

namespace kz {

// The implementation of IBase that every concrete class derives from. Copying an object does
// not copy its count: the copy starts unowned.
class CBase : public virtual IBase {
public:
    CBase() = default;

    CBase(const CBase&) {}

    CBase& operator=(const CBase&) { return *this; }

    void addRef() const override;
    void release() const override;
    bool checkCastAllowed(const std::type_info& target) const override;

    // The current count; for tests and assertions only.
    long getRefCount() const { return refCount; }

protected:
    ~CBase() override = default;

private:
    mutable long refCount = 0;
};

}  // namespace kz
