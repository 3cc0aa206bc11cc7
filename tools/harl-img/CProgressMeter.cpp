#include "CProgressMeter.h"

#include "CommandLine.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace harlimg {

namespace {

double secondsBetween(std::chrono::steady_clock::time_point a,
                      std::chrono::steady_clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

}  // namespace

CProgressMeter::CProgressMeter(bool enabled, long long totalBytes)
    : enabled(enabled),
      terminal(isatty(STDERR_FILENO) != 0),
      totalBytes(std::max(totalBytes, 1LL)),
      start(std::chrono::steady_clock::now()),
      lastDraw(start) {
}

void CProgressMeter::report(long long doneBytes) {
    if (!enabled) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (terminal) {
        if (secondsBetween(lastDraw, now) >= 0.1) {
            lastDraw = now;
            std::fprintf(stderr, "\r%s\033[K", line(doneBytes, secondsBetween(start, now)).c_str());
        }
        return;
    }
    const long long tenth = doneBytes * 10 / totalBytes;
    if (tenth > lastTenth && tenth < 10) {
        lastTenth = tenth;
        std::fprintf(stderr, "%s\n", line(doneBytes, secondsBetween(start, now)).c_str());
    }
}

void CProgressMeter::finish() {
    if (!enabled) {
        return;
    }
    const double seconds = secondsBetween(start, std::chrono::steady_clock::now());
    const double rate = seconds > 0 ? static_cast<double>(totalBytes) / seconds : 0;
    std::fprintf(stderr, "%s    (100.00/100%%) %10s/s, done in %.1f s\n",
                 terminal ? "\r\033[K" : "", formatSize(static_cast<long long>(rate)).c_str(),
                 seconds);
}

std::string CProgressMeter::line(long long doneBytes, double seconds) const {
    const double fraction = static_cast<double>(doneBytes) / static_cast<double>(totalBytes);
    const double rate = seconds > 0 ? static_cast<double>(doneBytes) / seconds : 0;
    char text[128];
    int length = std::snprintf(text, sizeof text, "    (%6.2f/100%%) %10s/s", 100 * fraction,
                               formatSize(static_cast<long long>(rate)).c_str());
    if (rate > 0 && fraction < 1) {
        std::snprintf(text + length, sizeof text - length, ", %.0f s left",
                      static_cast<double>(totalBytes - doneBytes) / rate);
    }
    return text;
}

}  // namespace harlimg
