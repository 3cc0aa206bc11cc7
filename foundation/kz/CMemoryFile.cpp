#include "harl/foundation/kz/CMemoryFile.h"

#include <climits>
#include <cstring>

namespace kz {

void CMemoryFile::apply(const CChange& change) {
    const long long end = change.length >= 0
                              ? change.length
                              : change.position + static_cast<long long>(change.bytes.size());
    const size_t oldLength = content.getUsed();
    if (change.length >= 0 || static_cast<size_t>(end) > oldLength) {
        content.setUsed(static_cast<size_t>(end));
        if (static_cast<size_t>(end) > oldLength) {
            std::memset(content.getData() + oldLength, 0, static_cast<size_t>(end) - oldLength);
        }
    }
    if (!change.bytes.empty()) {
        std::memcpy(content.getData() + change.position, change.bytes.data(), change.bytes.size());
    }
}

void CMemoryFile::resize(long long length) {
    CChange change{0, length, {}};
    apply(change);
    if (keepFlushedImage) {
        unflushedChanges.push_back(std::move(change));
    }
}

void CMemoryFile::write(long long position, const void* data, int size) {
    const auto* bytes = static_cast<const unsigned char*>(data);
    CChange change{position, -1, std::vector<unsigned char>(bytes, bytes + size)};
    apply(change);
    if (keepFlushedImage) {
        unflushedChanges.push_back(std::move(change));
    }
}

void CMemoryFile::markFlushed() {
    if (keepFlushedImage) {
        flushed.assign(content.getData(), content.getUsed());
        unflushedChanges.clear();
    }
}

void CMemoryFile::revertToFlushed(const std::function<bool(size_t)>& keep) {
    content.assign(flushed.getData(), flushed.getUsed());
    for (size_t i = 0; keep && i < unflushedChanges.size(); ++i) {
        if (keep(i)) {
            apply(unflushedChanges[i]);
        }
    }
    unflushedChanges.clear();
    markFlushed();
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
