#include "harl/foundation/kz/CLockFile.h"

#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CLockFileError.h"
#include "harl/foundation/kz/Log.h"

namespace kz {

namespace {

// Each new try answers a deletion of the file by its last holder between our open and our
// lock; that this happens three times in a row means something else deletes it.
constexpr int kMaxAttempts = 3;

}  // namespace

CLockFile::CLockFile(IFileSystem* fileSystem, const CURI& uri, int type, bool keepFile,
                     bool createIfMissing)
    : fileSystem(fileSystem), uri(uri), type(type), keepFile(keepFile) {
    if (fileSystem == nullptr || (type != Shared && type != Exclusive)) {
        throw CInvalidArgError("CLockFile",
                               "Needs a file system and a type of 1 (shared) or 2 (exclusive)",
                               CProps().add("uri", uri.toString(true)).add("type", type));
    }
    for (int attempt = 1; !tryLock(createIfMissing); ++attempt) {
        if (attempt == kMaxAttempts) {
            throw CLockFileError("Cannot take the lock file: it is deleted each time it is taken",
                                 CProps().add("uri", uri.toString(true)).add("type", type));
        }
    }
}

CLockFile::~CLockFile() {
    try {
        unlock();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored("CLockFile", error, true);
    }
}

P<IIOStream> CLockFile::openStream(bool createIfMissing) {
    try {
        if (!createIfMissing && !fileSystem->exists(uri)) {
            throw CLockFileError("Cannot take the lock file: it does not exist",
                                 CProps().add("uri", uri.toString(true)).add("type", type));
        }
        try {
            P<IIOStream> opened = fileSystem->open(uri, IIOStream::AccessReadWrite, 0);
            writable = true;
            return opened;
        } catch (const CFileSystemError& error) {
            // A reader on a read-only medium can still share a lock file that exists.
            if (type != Shared || error.getProblem() != CFileSystemError::AccessDenied ||
                !fileSystem->exists(uri)) {
                throw;
            }
        }
        writable = false;
        return fileSystem->open(uri, IIOStream::AccessRead, 0);
    } catch (const CLockFileError&) {
        throw;
    } catch (const CError&) {
        throw CLockFileError("Cannot open the lock file", CProps().add("uri", uri.toString(true)),
                             std::current_exception());
    }
}

bool CLockFile::tryLock(bool createIfMissing) {
    const P<IIOStream> candidate = openStream(createIfMissing);
    bool locked;
    try {
        const auto lockType =
            type == Exclusive ? IStreamBase::LockExclusive : IStreamBase::LockShared;
        locked = candidate->lockRange(0, 1, lockType);
        if (locked && !fileSystem->exists(uri)) {
            candidate->close();
            return false;
        }
    } catch (const CError&) {
        throw CLockFileError("Cannot take the lock file", CProps().add("uri", uri.toString(true)),
                             std::current_exception());
    }
    if (!locked) {
        throw CLockFileError("Cannot take the lock file: another user holds it",
                             CProps().add("uri", uri.toString(true)).add("type", type), nullptr,
                             readHolder(*candidate));
    }
    if (writable) {
        recordHolder(*candidate);
    }
    stream = candidate;
    return true;
}

void CLockFile::recordHolder(IIOStream& locked) {
    // The record is a courtesy to whoever is refused next; failing to write it must not cost
    // the lock.
    try {
        if (type == Exclusive) {
            const std::string record = CLockHolder::makeRecord().toUTF8();
            locked.setLength(0);
            locked.seek(0);
            locked.write(record.data(), static_cast<int>(record.size()), nullptr);
        } else if (locked.lockRange(0, 1, IStreamBase::LockExclusive)) {
            // The first reader clears what a writer that died left behind; with other readers
            // present the record is theirs to keep (it is empty, or names a live writer's
            // predecessor only if that one died while readers were in).
            locked.setLength(0);
            locked.lockRange(0, 1, IStreamBase::LockShared);
        }
    } catch (const CError&) {
    }
}

P<CLockHolder> CLockFile::readHolder(IIOStream& held) const {
    try {
        const long long length = held.getLength();
        if (length <= 0 || length > CLockHolder::kMaxRecordBytes) {
            return nullptr;
        }
        std::string record(static_cast<size_t>(length), '\0');
        held.seek(0);
        record.resize(static_cast<size_t>(held.readLax(record.data(), static_cast<int>(length))));
        return CLockHolder::parse(uri, record);
    } catch (const CError&) {
        return nullptr;
    }
}

void CLockFile::unlock() {
    if (!stream) {
        return;
    }
    // Dropping the reference closes the stream even when a step below throws.
    const P<IIOStream> holding = std::move(stream);
    if (!keepFile && writable && holding->lockRange(0, 1, IStreamBase::LockExclusive)) {
        fileSystem->deleteFile(uri, true);
    }
    holding->close();
}

}  // namespace kz
