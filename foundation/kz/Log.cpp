#include "harl/foundation/kz/Log.h"

#include <cstdio>

namespace kz {

namespace {

void logToStderr(LogLevel level, const String& message) {
    const char* prefix = level == LogLevel::Info      ? "info"
                         : level == LogLevel::Warning ? "warning"
                                                      : "error";
    std::fprintf(stderr, "[harl %s] %s\n", prefix, message.toUTF8().c_str());
}

LogSink& currentSink() {
    static LogSink sink = logToStderr;
    return sink;
}

String withError(const String& message, const std::exception& error, const String& detail) {
    String text = message;
    if (!detail.isEmpty()) {
        text += " (" + detail + ")";
    }
    return text + ": " + String(error.what());
}

}  // namespace

LogSink setLogSink(LogSink sink) {
    LogSink previous = currentSink();
    currentSink() = sink ? std::move(sink) : LogSink(logToStderr);
    return previous;
}

void logInfo(const String& message) {
    currentSink()(LogLevel::Info, message);
}

void logWarning(const String& message) {
    currentSink()(LogLevel::Warning, message);
}

void logError(const String& message) {
    currentSink()(LogLevel::Error, message);
}

void logWarning(const String& message, const std::exception& error, const String& detail) {
    logWarning(withError(message, error, detail));
}

void logError(const String& message, const std::exception& error, const String& detail) {
    logError(withError(message, error, detail));
}

void onExceptionInDestructorIgnored(const char* className, const std::exception& error,
                                    bool log) noexcept {
    if (!log) {
        return;
    }
    try {
        logError(String("Exception in destructor of ") + className +
                 " ignored: " + String(error.what()));
    } catch (...) {
        // A sink that throws cannot be reported anywhere; the destructor must go on.
    }
}

}  // namespace kz
