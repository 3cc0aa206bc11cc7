#include "harl/foundation/kz/CLocalFileStream.h"

#include "harl/foundation/kz/CLocalFileSystem.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kz {

namespace {

// Written bytes that start writeback: large enough that the system gets long runs to write,
// small enough that the disk starts early and dirty memory stays small.
constexpr long long kWritebackBytes = 8LL << 20;

}  // namespace

static_assert(sizeof(off_t) == 8, "file positions need 64-bit offsets");

CLocalFileStream::CLocalFileStream(int fd, const CURI& uri, Access access)
    : CFileStreamBase(uri, access), fd(fd) {
}

CLocalFileStream::~CLocalFileStream() {
    closeInDestructor("CLocalFileStream");
}

int CLocalFileStream::doRead(long long position, void* data, int size) {
    ssize_t count;
    do {
        count = ::pread(fd, data, static_cast<size_t>(size), static_cast<off_t>(position));
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        throw CLocalFileSystem::makeError("Cannot read file", errno, getURI());
    }
    return static_cast<int>(count);
}

void CLocalFileStream::doWrite(long long position, const void* data, int size) {
    const long long start = position;
    const long long end = position + size;
    const unsigned char* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        const ssize_t count =
            ::pwrite(fd, bytes, static_cast<size_t>(size), static_cast<off_t>(position));
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            // A write that makes no progress without an error means the medium is full.
            throw CLocalFileSystem::makeError("Cannot write file", count < 0 ? errno : ENOSPC,
                                              getURI());
        }
        bytes += count;
        position += count;
        size -= static_cast<int>(count);
    }
    unstartedFrom = unstartedBytes == 0 ? start : std::min(unstartedFrom, start);
    unstartedTo = unstartedBytes == 0 ? end : std::max(unstartedTo, end);
    unstartedBytes += end - start;
    if (unstartedBytes >= kWritebackBytes) {
        startWriteback();
    }
}

void CLocalFileStream::startWriteback() {
#ifdef __linux__
    // Only a hint: an error here shows again, and is reported, at the next flush().
    ::sync_file_range(fd, static_cast<off_t>(unstartedFrom),
                      static_cast<off_t>(unstartedTo - unstartedFrom), SYNC_FILE_RANGE_WRITE);
#endif
    unstartedBytes = 0;
}

long long CLocalFileStream::doGetLength() {
    struct stat info;
    if (::fstat(fd, &info) != 0) {
        throw CLocalFileSystem::makeError("Cannot query file", errno, getURI());
    }
    return static_cast<long long>(info.st_size);
}

void CLocalFileStream::doSetLength(long long length) {
    int result;
    do {
        result = ::ftruncate(fd, static_cast<off_t>(length));
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        throw CLocalFileSystem::makeError("Cannot set the length of file", errno, getURI());
    }
}

void CLocalFileStream::doFlush() {
    int result;
    do {
        result = ::fdatasync(fd);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        throw CLocalFileSystem::makeError("Cannot flush file", errno, getURI());
    }
    // What was written is on the disk now: nothing is left to start.
    unstartedBytes = 0;
}

bool CLocalFileStream::doLockRange(long long position, long long length, LockType type) {
    struct flock lock = {};
    lock.l_type = type == LockExclusive ? F_WRLCK : type == LockShared ? F_RDLCK : F_UNLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(position);
    lock.l_len = static_cast<off_t>(length);
    int result;
    do {
        result = ::fcntl(fd, F_OFD_SETLK, &lock);
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
        return true;
    }
    if (errno == EAGAIN || errno == EACCES) {
        return false;
    }
    // Old kernels and some network file systems know no open-file-description locks.
    const int errorNumber = errno == EINVAL ? EOPNOTSUPP : errno;
    throw CLocalFileSystem::makeError("Cannot lock a range of file", errorNumber, getURI());
}

void CLocalFileStream::doClose() {
    const int closing = fd;
    fd = -1;
    // The descriptor is gone after close() even when it fails (EINTR included), so no retry.
    if (::close(closing) != 0 && errno != EINTR) {
        throw CLocalFileSystem::makeError("Cannot close file", errno, getURI());
    }
}

}  // namespace kz
