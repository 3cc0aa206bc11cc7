#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IStreamBase.h"
#include "harl/foundation/kz/TBuffer.h"

#include <functional>
#include <vector>

namespace kz {

// One file of a CMemoryFileSystem: its bytes, the image of them that the last flush made
// durable, and the locks its streams hold. The file system's table and every stream open on
// the file share it, so a file deleted while open lives on for its streams, as on POSIX.
//
// Locks follow POSIX rules per owner (a stream): an owner's new lock replaces its own locks
// on the range, and a lock conflicts with an overlapping lock of another owner when either
// is exclusive.
class CMemoryFile : public CBase {
public:
    // Files are held whole in memory; this ceiling keeps a stray position from asking for
    // terabytes and is far above what any test writes.
    static constexpr long long kMaxLengthBytes = 1LL << 32;

    // `keepFlushedImage`: keep a copy of the content as of the last flush, for
    // revertToFlushed(). Without it flushes cost nothing and a revert empties the file.
    explicit CMemoryFile(bool keepFlushedImage) : keepFlushedImage(keepFlushedImage) {}

    TBuffer<unsigned char>& getContent() { return content; }

    long long getLength() const { return static_cast<long long>(content.getUsed()); }

    // Sets the length; new bytes are zeros. The caller checks against kMaxLengthBytes.
    void resize(long long length);
    // Stores `size` bytes at `position`, growing the file as needed. The caller checks the end
    // against kMaxLengthBytes.
    void write(long long position, const void* data, int size);

    // What the storage holds now becomes the durable image.
    void markFlushed();
    // A power cut: the content falls back to the durable image, and every lock goes with
    // the processes that held them. `keep` tells, for each write and length change since the
    // last flush (numbered from 0 in their order), whether the storage had made it durable
    // all the same; those are applied again in their order, as a medium that reorders writes
    // between flushes may leave them. Null keeps none.
    void revertToFlushed(const std::function<bool(size_t)>& keep = nullptr);

    // Takes, changes or drops (Unlock) `owner`'s lock on [position, position + length),
    // length 0 reaching to any end. False, with nothing changed, on a conflict.
    bool lock(const void* owner, long long position, long long length, IStreamBase::LockType type);
    void unlockAll(const void* owner);

private:
    struct CLock {
        const void* owner;
        long long start;
        long long end;  // exclusive
        bool exclusive;
    };

    // A write (`length` -1) or a length change (`bytes` empty) since the last flush.
    struct CChange {
        long long position;
        long long length;
        std::vector<unsigned char> bytes;
    };

    void apply(const CChange& change);

    TBuffer<unsigned char> content;
    TBuffer<unsigned char> flushed;
    // Kept only with the flushed image.
    std::vector<CChange> unflushedChanges;
    bool keepFlushedImage;
    std::vector<CLock> locks;
};

}  // namespace kz
