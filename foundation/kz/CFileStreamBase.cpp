#include "harl/foundation/kz/CFileStreamBase.h"

#include "harl/foundation/kz/CDummyWriteBarrier.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"

#include <algorithm>
#include <climits>

namespace kz {

namespace {

void checkCount(const char* where, int size) {
    if (size < 0) {
        throw CInvalidArgError(where, "Negative byte count", CProps().add("size", size));
    }
}

}  // namespace

CFileStreamBase::CFileStreamBase(const CURI& uri, Access access) : uri(uri), access(access) {
}

void CFileStreamBase::checkOpen() const {
    if (closed) {
        throw CIOError(CIOError::StreamClosed, "Stream is closed",
                       CProps().add("uri", uri.toString(true)));
    }
}

void CFileStreamBase::checkWritable(const char* what) const {
    if (access != AccessReadWrite) {
        throw CFileSystemError(CFileSystemError::AccessDenied,
                               CError(String("Stream is open for reading only: cannot ") + what,
                                      String(), -1, CProps().add("uri", uri.toString(true))));
    }
}

long long CFileStreamBase::getLength() {
    checkOpen();
    return doGetLength();
}

long long CFileStreamBase::getPosition() {
    checkOpen();
    return position;
}

CURI CFileStreamBase::getURI() {
    return uri;
}

void CFileStreamBase::seek(long long newPosition) {
    checkOpen();
    if (newPosition < 0) {
        throw CIOError(CIOError::BadSeek, "Seek to a negative position",
                       CProps().add("uri", uri.toString(true)).add("position", newPosition));
    }
    position = newPosition;
}

bool CFileStreamBase::lockRange(long long rangePosition, long long length, LockType type) {
    checkOpen();
    if (rangePosition < 0 || length < 0 || rangePosition > LLONG_MAX - length ||
        (type != Unlock && type != LockShared && type != LockExclusive)) {
        throw CInvalidArgError("lockRange", "Bad lock range or type",
                               CProps()
                                   .add("uri", uri.toString(true))
                                   .add("position", rangePosition)
                                   .add("length", length)
                                   .add("type", static_cast<int>(type)));
    }
    if (type == LockExclusive) {
        checkWritable("take an exclusive lock");
    }
    return doLockRange(rangePosition, length, type);
}

void CFileStreamBase::close() {
    if (closed) {
        return;
    }
    closed = true;
    doClose();
}

void CFileStreamBase::closeInDestructor(const char* className) noexcept {
    try {
        close();
    } catch (const std::exception& error) {
        onExceptionInDestructorIgnored(className, error, true);
    }
}

void CFileStreamBase::read(void* data, int size) {
    const long long start = position;
    if (readLax(data, size) != size) {
        throw CIOError(
            CIOError::EndOfData, "Unexpected end of data",
            CProps().add("uri", uri.toString(true)).add("position", start).add("size", size));
    }
}

int CFileStreamBase::readLax(void* data, int size) {
    checkOpen();
    checkCount("read", size);
    // Nothing lies behind the largest position; keeps position + size from overflowing.
    const int wanted = static_cast<int>(std::min<long long>(size, LLONG_MAX - position));
    int done = 0;
    while (done < wanted) {
        const int count = doRead(position, static_cast<unsigned char*>(data) + done, wanted - done);
        if (count <= 0) {
            break;
        }
        position += count;
        done += count;
    }
    return done;
}

int CFileStreamBase::readAvailable(void* data, int size) {
    return readLax(data, size);
}

bool CFileStreamBase::waitReadable(int) {
    checkOpen();
    return true;
}

bool CFileStreamBase::isEndOfStream() {
    checkOpen();
    return position >= doGetLength();
}

bool CFileStreamBase::isEndOfStream_NonBlocking() {
    return isEndOfStream();
}

void CFileStreamBase::write(const void* data, int size, IWriteBarrier*) {
    checkOpen();
    checkCount("write", size);
    checkWritable("write");
    if (size == 0) {
        return;
    }
    if (position > LLONG_MAX - size) {
        throw CIOError(
            CIOError::WritePastEnd, "Write past the largest file position",
            CProps().add("uri", uri.toString(true)).add("position", position).add("size", size));
    }
    doWrite(position, data, size);
    position += size;
}

void CFileStreamBase::writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                                      IWriteBarrier* barrier) {
    if (slice.getLength() > static_cast<size_t>(INT_MAX)) {
        throw CInvalidArgError("writeKeepBuffer", "Slice too long for one write",
                               CProps().add("length", String::numberUnsigned(slice.getLength())));
    }
    write(slice.getData(), static_cast<int>(slice.getLength()), barrier);
}

P<IWriteBarrier> CFileStreamBase::createWriteBarrier() {
    return P<IWriteBarrier>(new CDummyWriteBarrier);
}

void CFileStreamBase::flush() {
    checkOpen();
    // A stream that cannot write has nothing of its own to make durable.
    if (access == AccessReadWrite) {
        doFlush();
    }
}

void CFileStreamBase::setLength(long long length) {
    checkOpen();
    checkWritable("set the length");
    if (length < 0) {
        throw CInvalidArgError("setLength", "Negative length",
                               CProps().add("uri", uri.toString(true)).add("length", length));
    }
    doSetLength(length);
}

}  // namespace kz
