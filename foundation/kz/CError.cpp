#include "harl/foundation/kz/CError.h"

namespace kz {

namespace {

std::string describe(std::exception_ptr cause) {
    if (!cause) {
        return std::string();
    }
    try {
        std::rethrow_exception(cause);
    } catch (const std::exception& error) {
        return error.what();
    } catch (...) {
        return "unknown exception";
    }
}

}  // namespace

CError::CError(const String& message, const String& detail, int code, const CProps& props,
               std::exception_ptr cause)
    : message(message),
      detail(detail),
      code(code),
      props(props),
      cause(cause),
      causeText(describe(cause)) {
    buildText(String());
}

void CError::setPrefix(const String& prefix) {
    buildText(prefix);
}

void CError::buildText(const String& prefix) {
    text = (prefix + message).toUTF8();
    if (!detail.isEmpty()) {
        text += " (" + detail.toUTF8() + ")";
    }
    if (!props.isEmpty()) {
        text += " [" + props.toString().toUTF8() + "]";
    }
    if (!causeText.empty()) {
        text += " <- caused by: " + causeText;
    }
}

}  // namespace kz
