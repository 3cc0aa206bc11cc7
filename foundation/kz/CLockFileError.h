#pragma once

#include "harl/foundation/kz/CError.h"

namespace kz {

// A lock file could not be taken: another process holds it, or it could not be made.
class CLockFileError : public CError {
public:
    explicit CLockFileError(const String& message, const CProps& props = CProps(),
                            std::exception_ptr cause = nullptr)
        : CError(message, String(), -1, props, cause) {}
};

}  // namespace kz
