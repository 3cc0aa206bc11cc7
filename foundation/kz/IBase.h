#pragma once

#include <typeinfo>

namespace kz {

// The root of every reference-counted object. Interfaces inherit it virtually, so that an
// object that implements several interfaces has exactly one count.
//
// Contract: an object starts with a count of 0 and is deleted by the `release` that takes the
// count back to 0. Counts are not atomic: an object and everything it owns belong to one
// caller at a time.
class IBase {
public:
    virtual void addRef() const = 0;
    virtual void release() const = 0;

    // Asked by P<T> before a down-cast to `target`. An object answers false to keep a caller
    // from reaching behind the interface it was handed out as.
    virtual bool checkCastAllowed(const std::type_info& target) const = 0;

protected:
    virtual ~IBase() = default;
};

}  // namespace kz
