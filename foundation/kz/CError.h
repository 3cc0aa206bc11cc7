#pragma once

#include "harl/foundation/kz/CProps.h"
#include "harl/foundation/kz/String.h"

#include <exception>
#include <string>

namespace kz {

// The base of every error of the system, thrown by value.
//
// An error has a message, an optional detail, a numeric code (-1: none), properties in a
// fixed order and an optional cause. what() shows all of them, the cause's what() included,
// so that one log line says what failed and where:
//   "<message> (<detail>) [key=value, ...] <- caused by: <cause>"
class CError : public std::exception {
public:
    explicit CError(const String& message, const String& detail = String(), int code = -1,
                    const CProps& props = CProps(), std::exception_ptr cause = nullptr);

    const String& getMessage() const { return message; }

    const String& getDetail() const { return detail; }

    int getCode() const { return code; }

    const CProps& getProps() const { return props; }

    std::exception_ptr getCause() const { return cause; }

    // The cause's what(), or empty without a cause.
    const std::string& getCauseText() const { return causeText; }

    const char* what() const noexcept override { return text.c_str(); }

protected:
    // For subclasses that put something before the message in what().
    void setPrefix(const String& prefix);

private:
    void buildText(const String& prefix);

    String message;
    String detail;
    int code;
    CProps props;
    std::exception_ptr cause;
    std::string causeText;
    std::string text;
};

}  // namespace kz
