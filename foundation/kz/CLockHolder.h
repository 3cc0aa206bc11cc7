#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

#include <string>

namespace kz {

// Who holds a lock file, as far as its content tells: a writer records its process ID and host
// name in the file when it takes the lock, so that a user refused by the lock learns whom to
// wait for. A lock held by readers only records nobody.
//
// Lock file content, UTF-8 text of at most kMaxRecordBytes bytes, one "<key>=<value>" per line:
//
// | key  | value                                        |
// |------|----------------------------------------------|
// | pid  | process ID of the writer, decimal            |
// | host | host name of the writer's machine            |
//
// Unknown keys are ignored; a file that is empty or says nothing of a process records nobody.
class CLockHolder : public CBase {
public:
    // The most the record may hold; a longer file is not read as one.
    static constexpr int kMaxRecordBytes = 512;

    // The record of this process, as a writer writes it.
    static String makeRecord();

    // Parses a record; no holder (null) when it names no process.
    static P<CLockHolder> parse(const CURI& lockFileURI, const std::string& record);

    CLockHolder(const CURI& lockFileURI, long long processID, const String& hostName);

    long long getProcessID() const { return processID; }

    const String& getHostName() const { return hostName; }

    // Writes one info line to the log that names the lock file and its holder, for the user
    // who has just been refused by the lock.
    virtual void report() const;

private:
    CURI lockFileURI;
    long long processID;
    String hostName;
};

}  // namespace kz
