#include "harl/foundation/kz/CBase.h"

namespace kz {

void CBase::addRef() const {
    ++refCount;
}

void CBase::release() const {
    if (--refCount == 0) {
        delete this;
    }
}

bool CBase::checkCastAllowed(const std::type_info&) const {
    return true;
}

}  // namespace kz
