#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CLockHolder.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"

namespace kz {

// A lock between processes, held through a file for the life of the object. Readers take it
// shared, so that they exclude a writer but not each other; a writer takes it exclusive.
//
// The lock is a lockRange on the file's first byte through a stream that stays open, so the
// operating system drops it when the process dies: a stale file holds no lock.
//
// On release the file is deleted when no one else holds it (the object's own lock becomes
// exclusive first), unless `keepFile`. A process that tries the lock meanwhile fails as if it
// were held. A process that opened the file just before the deletion would lock a file without
// a name: so after taking its lock the constructor checks that the file still exists, and
// starts again if not. What remains is a third process that re-creates the file within that
// check; the two would then both hold a lock.
//
// A writer records its process in the file (see CLockHolder), and an error of a lock held by
// another user carries what the file records.
class CLockFile : public CBase {
public:
    enum Type { Shared = 1, Exclusive = 2 };

    // Takes the lock at `uri`, `type` 1 or 2. A missing file is created if `createIfMissing`;
    // a reader on a medium where the file cannot be opened for writing takes its shared lock
    // through a read-only stream. Throws CLockFileError with the "uri" property when the lock
    // is held elsewhere or the file cannot be made or opened (the file system's error is then
    // its cause); CInvalidArgError for a bad type.
    CLockFile(IFileSystem* fileSystem, const CURI& uri, int type, bool keepFile = false,
              bool createIfMissing = true);
    // Releases the lock; never throws.
    ~CLockFile() override;

    const CURI& getURI() const { return uri; }

    int getType() const { return type; }

private:
    // One try; false when the file was deleted under the new lock.
    bool tryLock(bool createIfMissing);
    P<IIOStream> openStream(bool createIfMissing);
    // Writes this process into the file it has just locked for writing; a reader clears a
    // record that no writer holds any more.
    void recordHolder(IIOStream& locked);
    // Who holds the lock that `held` could not take, as the file records it.
    P<CLockHolder> readHolder(IIOStream& held) const;
    void unlock();

    P<IFileSystem> fileSystem;
    CURI uri;
    int type;
    bool keepFile;
    bool writable = false;  // whether `stream` was opened for writing
    P<IIOStream> stream;
};

}  // namespace kz
