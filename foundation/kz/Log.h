#pragma once

#include "harl/foundation/kz/String.h"

#include <exception>
#include <functional>

namespace kz {

// Logging. Messages go to one process-wide sink, stderr until a host sets its own. The sink
// is the host's configuration, set before the library is used; it is not guarded by a lock.

enum class LogLevel { Info, Warning, Error };

using LogSink = std::function<void(LogLevel level, const String& message)>;

// Replaces the sink and returns the previous one. An empty sink restores stderr.
LogSink setLogSink(LogSink sink);

void logInfo(const String& message);
void logWarning(const String& message);
void logError(const String& message);

// With an error: "<message> (<detail>): <error.what()>", the detail left out when empty.
void logWarning(const String& message, const std::exception& error, const String& detail);
void logError(const String& message, const std::exception& error, const String& detail);

// A destructor that caught `error` reports it here and goes on. Never throws.
void onExceptionInDestructorIgnored(const char* className, const std::exception& error,
                                    bool log) noexcept;

}  // namespace kz
