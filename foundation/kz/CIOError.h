#pragma once

#include "harl/foundation/kz/CError.h"

namespace kz {

// An I/O or format failure, with a code that says which.
class CIOError : public CError {
public:
    enum Code {
        WritePastEnd = 3,
        EndOfData = 4,
        CorruptFormat = 5,
        UnsupportedVersion = 6,
        BadSeek = 7,
        StreamClosed = 10,
        OffGrainBoundary = 11,
        Unsupported = 13,
    };

    CIOError(int code, const String& message, const CProps& props = CProps(),
             std::exception_ptr cause = nullptr)
        : CError(message, String(), code, props, cause) {}
};

}  // namespace kz
