#pragma once

#include "harl/foundation/kz/CError.h"

namespace kz {

// A caller passed an argument out of range. `where` names the operation; what() shows it
// before the message.
class CInvalidArgError : public CError {
public:
    CInvalidArgError(const String& where, const String& message, const CProps& props = CProps())
        : CError(message, String(), -1, props), where(where) {
        setPrefix(where + ": ");
    }

    const String& getWhere() const { return where; }

private:
    String where;
};

}  // namespace kz
