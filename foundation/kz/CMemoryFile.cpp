#include "harl/foundation/kz/CMemoryFile.h"

#include <climits>
#include <cstring>

namespace kz {

void CMemoryFile::resize(long long length) {
    const size_t oldLength = content.getUsed();
    const size_t newLength = static_cast<size_t>(length);
    content.setUsed(newLength);
    if (newLength > oldLength) {
        std::memset(content.getData() + oldLength, 0, newLength - oldLength);
    }
}

void CMemoryFile::markFlushed() {
    if (keepFlushedImage) {
        flushed.assign(content.getData(), content.getUsed());
    }
}

void CMemoryFile::revertToFlushed() {
    content.assign(flushed.getData(), flushed.getUsed());
    locks.clear();
}

bool CMemoryFile::lock(const void* owner, long long position, long long length,
                       IStreamBase::LockType type) {
    const long long start = position;
    const long long end = length == 0 ? LLONG_MAX : position + length;
    const bool exclusive = type == IStreamBase::LockExclusive;
    if (type != IStreamBase::Unlock) {
        for (const CLock& held : locks) {
            if (held.owner != owner && held.start < end && start < held.end &&
                (exclusive || held.exclusive)) {
                return false;
            }
        }
    }
    // Cut the range out of the owner's own locks, keeping what lies on either side.
    std::vector<CLock> kept;
    for (const CLock& held : locks) {
        if (held.owner != owner || held.end <= start || end <= held.start) {
            kept.push_back(held);
            continue;
        }
        if (held.start < start) {
            kept.push_back({owner, held.start, start, held.exclusive});
        }
        if (end < held.end) {
            kept.push_back({owner, end, held.end, held.exclusive});
        }
    }
    if (type != IStreamBase::Unlock) {
        kept.push_back({owner, start, end, exclusive});
    }
    locks.swap(kept);
    return true;
}

void CMemoryFile::unlockAll(const void* owner) {
    std::erase_if(locks, [owner](const CLock& held) { return held.owner == owner; });
}

}  // namespace kz
