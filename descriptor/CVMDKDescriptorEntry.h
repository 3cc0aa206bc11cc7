#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

namespace harl {

// One line of a descriptor text. The descriptor keeps its lines as entries in file order, so
// that a text this library did not write goes back with its comments, unknown keys and order.
class CVMDKDescriptorEntry : public kz::CBase {
public:
    // The line as it is written, without its line end.
    virtual kz::String toString() const = 0;
    // A new entry with the same content that shares nothing with this one.
    virtual kz::P<CVMDKDescriptorEntry> cloneDescriptorEntry() const = 0;

protected:
    ~CVMDKDescriptorEntry() override = default;
};

}  // namespace harl
