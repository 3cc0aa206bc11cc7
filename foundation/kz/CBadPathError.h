#pragma once

#include "harl/foundation/kz/CError.h"

namespace kz {

// A path that cannot be made valid, such as a ".." above the root of an absolute path.
class CBadPathError : public CError {
public:
    explicit CBadPathError(const String& path) : CError("Invalid path: " + path) {}
};

}  // namespace kz
