#include "tests/support/CLogCapture.h"

namespace harltest {

CLogCapture::CLogCapture() {
    previous = kz::setLogSink([this](kz::LogLevel level, const kz::String& message) {
        lines.push_back({level, message});
    });
}

CLogCapture::~CLogCapture() {
    kz::setLogSink(previous);
}

std::vector<kz::String> CLogCapture::messages(kz::LogLevel level) const {
    std::vector<kz::String> out;
    for (const CLine& line : lines) {
        if (line.level == level) {
            out.push_back(line.message);
        }
    }
    return out;
}

}  // namespace harltest
