#pragma once

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CLockHolder.h"
#include "harl/foundation/kz/P.h"

namespace kz {

// A lock file could not be taken: another process holds it, or it could not be made.
class CLockFileError : public CError {
public:
    explicit CLockFileError(const String& message, const CProps& props = CProps(),
                            std::exception_ptr cause = nullptr, P<CLockHolder> holder = nullptr)
        : CError(message, String(), -1, props, cause), holder(std::move(holder)) {}

    // Who holds the lock, where the lock file names a writer; null otherwise.
    virtual P<CLockHolder> getLockHolder() const { return holder; }

private:
    P<CLockHolder> holder;
};

}  // namespace kz
