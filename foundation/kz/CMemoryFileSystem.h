#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CMemoryFile.h"
#include "harl/foundation/kz/Containers.h"
#include "harl/foundation/kz/IFileSystem.h"

namespace kz {

// A file system in memory, for tests. Files are keyed by the normalized text of their URI,
// of any scheme; streams are CMemoryFileStream and share their file's bytes and locks.
//
// Power cuts: made with `keepFlushedImages`, each file keeps the image of its last flush and
// dropUnflushedWrites() reverts every file to it, as a machine that lost its power would;
// cutPower() keeps some of the writes since, as a medium that reorders them would.
// A file that was created and never flushed comes back empty; a deletion is durable at once.
// Tests drop the streams of the "crashed" process before they reopen.
//
// setReadOnly(true) makes it a medium that refuses changes: opens for writing and deletions
// throw CFileSystemError AccessDenied (streams already open for writing go on writing).
class CMemoryFileSystem : public CBase, public IFileSystem {
public:
    explicit CMemoryFileSystem(bool keepFlushedImages = false);

    P<IIOStream> open(const CURI& uri, IIOStream::Access access, int flags) override;
    bool exists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;

    // The file at `uri`, or null. Tests read and poke its bytes through getContent().
    P<CMemoryFile> getFile(const CURI& uri) const;

    void dropUnflushedWrites();

    // A power cut on a medium that reorders writes between flushes: each write and length
    // change since a file's last flush is kept or dropped by a draw from `seed`, and the kept
    // ones are applied to the flushed image in their order.
    void cutPower(unsigned seed);

    void setReadOnly(bool readOnly) { this->readOnly = readOnly; }

private:
    static String keyOf(const CURI& uri);
    void checkWritable(const CURI& uri, const char* what) const;

    TMap<String, P<CMemoryFile>> files;
    bool keepFlushedImages;
    bool readOnly = false;
};

}  // namespace kz
