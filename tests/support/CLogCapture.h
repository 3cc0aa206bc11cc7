#pragma once

#include "harl/foundation/kz/Log.h"

#include <vector>

namespace harltest {

// Captures every log line for its lifetime, then restores the previous sink.
class CLogCapture {
public:
    struct CLine {
        kz::LogLevel level;
        kz::String message;
    };

    CLogCapture();
    ~CLogCapture();

    const std::vector<CLine>& getLines() const { return lines; }

    // The messages of one level, in order.
    std::vector<kz::String> messages(kz::LogLevel level) const;

    void clear() { lines.clear(); }

private:
    std::vector<CLine> lines;
    kz::LogSink previous;
};

}  // namespace harltest
