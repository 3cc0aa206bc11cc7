#pragma once

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFileSystemError.h"

#include <functional>
#include <string>
#include <typeinfo>

namespace harltest {

// Runs `call` and describes what it threw as "<code> <what()>", so that one comparison checks
// the error's exact type, code, message and properties in order. Anything else is described
// so that the comparison fails readably.
template <class E, class F>
std::string thrownText(F&& call) {
    try {
        call();
    } catch (const std::exception& e) {
        if (typeid(e) != typeid(E)) {
            return std::string("unexpected ") + typeid(e).name() + ": " + e.what();
        }
        return std::to_string(static_cast<const E&>(e).getCode()) + " " + e.what();
    }
    return "nothing thrown";
}

// Runs `call` and describes what it threw, of any error class of the library, as
// "<code> <what()>"; a CFileSystemError as "problem <problem> <what()>".
inline std::string errorText(const std::function<void()>& call) {
    try {
        call();
    } catch (const kz::CFileSystemError& e) {
        return std::string("problem ") + std::to_string(e.getProblem()) + " " + e.what();
    } catch (const kz::CError& e) {
        return std::to_string(e.getCode()) + " " + e.what();
    }
    return "nothing thrown";
}

}  // namespace harltest
