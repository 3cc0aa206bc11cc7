#pragma once

#include <chrono>
#include <string>

namespace harlimg {

// Progress of one long piece of work on standard error: percent, throughput and time left. On
// a terminal one line is redrawn at most ten times a second; elsewhere (a log, a pipe) a line
// is written at every tenth of the work, so that the output stays readable. A disabled meter
// prints nothing. One thread reports at a time.
class CProgressMeter {
public:
    CProgressMeter(bool enabled, long long totalBytes);

    // `doneBytes` of the total are done; it never goes back.
    void report(long long doneBytes);

    // The work is done: the final line, with the time it took.
    void finish();

private:
    std::string line(long long doneBytes, double seconds) const;

    bool enabled;
    bool terminal;
    long long totalBytes;
    long long lastTenth = 0;
    std::chrono::steady_clock::time_point start;
    std::chrono::steady_clock::time_point lastDraw;
};

}  // namespace harlimg
