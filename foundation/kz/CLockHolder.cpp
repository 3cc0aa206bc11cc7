#include "harl/foundation/kz/CLockHolder.h"

#include "harl/foundation/kz/Log.h"
#include "harl/foundation/kz/Text.h"

#include <climits>
#include <cstring>
#include <exception>
#include <unistd.h>

namespace kz {

String CLockHolder::makeRecord() {
    char host[HOST_NAME_MAX + 1] = {};
    if (::gethostname(host, sizeof host - 1) != 0) {
        host[0] = '\0';
    }
    return "pid=" + String::number(::getpid()) + "\nhost=" + String::fromUTF8(host, strlen(host)) +
           "\n";
}

P<CLockHolder> CLockHolder::parse(const CURI& lockFileURI, const std::string& record) {
    long long processID = -1;
    String hostName;
    size_t start = 0;
    while (start < record.size()) {
        size_t end = record.find('\n', start);
        if (end == std::string::npos) {
            end = record.size();
        }
        const std::string line = record.substr(start, end - start);
        start = end + 1;
        try {
            if (line.rfind("pid=", 0) == 0) {
                processID = parseInt64(String::fromUTF8(line.data() + 4, line.size() - 4), false);
            } else if (line.rfind("host=", 0) == 0) {
                hostName = String::fromUTF8(line.data() + 5, line.size() - 5);
            }
        } catch (const std::exception&) {
            // Whatever else the file holds, it tells nothing about the holder.
        }
    }
    if (processID <= 0) {
        return nullptr;
    }
    return makeP<CLockHolder>(lockFileURI, processID, hostName);
}

CLockHolder::CLockHolder(const CURI& lockFileURI, long long processID, const String& hostName)
    : lockFileURI(lockFileURI), processID(processID), hostName(hostName) {
}

void CLockHolder::report() const {
    logInfo("The lock file '" + lockFileURI.toString(true) + "' is held by process " +
            String::number(processID) +
            (hostName.isEmpty() ? String() : " on host '" + hostName + "'") + ".");
}

}  // namespace kz
