#include "CWriteBehindStream.h"

#include "harl/foundation/kz/CDummyWriteBarrier.h"
#include "harl/foundation/kz/Log.h"

#include <algorithm>
#include <utility>

namespace harlimg {

CWriteBehindStream::CWriteBehindStream(kz::P<kz::IIOStream> inner)
    : inner(std::move(inner)), chunks(kChunkCount) {
    uri = this->inner->getURI();
    position = this->inner->getPosition();
    length = this->inner->getLength();
}

CWriteBehindStream::~CWriteBehindStream() {
    try {
        close();
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harlimg::CWriteBehindStream", error, true);
    }
}

long long CWriteBehindStream::getLength() {
    return closed ? inner->getLength() : length;
}

long long CWriteBehindStream::getPosition() {
    return closed ? inner->getPosition() : position;
}

kz::CURI CWriteBehindStream::getURI() {
    return uri;
}

void CWriteBehindStream::seek(long long to) {
    if (closed || to < 0) {
        inner->seek(to);  // throws the wrapped stream's own error
    }
    position = to;
}

bool CWriteBehindStream::lockRange(long long at, long long bytes, LockType type) {
    drain();
    return inner->lockRange(at, bytes, type);
}

void CWriteBehindStream::close() {
    if (closed) {
        return;
    }
    std::exception_ptr error;
    try {
        drain();
    } catch (...) {
        error = std::current_exception();
    }
    closed = true;
    stopThread();
    try {
        inner->close();
    } catch (...) {
        if (!error) {
            error = std::current_exception();
        }
    }
    if (error) {
        std::rethrow_exception(error);
    }
}

void CWriteBehindStream::read(void* data, int size) {
    drain();
    try {
        inner->read(data, size);
    } catch (...) {
        position = inner->getPosition();
        throw;
    }
    position = inner->getPosition();
}

int CWriteBehindStream::readLax(void* data, int size) {
    drain();
    const int count = inner->readLax(data, size);
    position = inner->getPosition();
    return count;
}

int CWriteBehindStream::readAvailable(void* data, int size) {
    drain();
    const int count = inner->readAvailable(data, size);
    position = inner->getPosition();
    return count;
}

bool CWriteBehindStream::waitReadable(int timeoutMilliseconds) {
    drain();
    return inner->waitReadable(timeoutMilliseconds);
}

bool CWriteBehindStream::isEndOfStream() {
    drain();
    return inner->isEndOfStream();
}

bool CWriteBehindStream::isEndOfStream_NonBlocking() {
    return isEndOfStream();
}

void CWriteBehindStream::write(const void* data, int size, kz::IWriteBarrier* barrier) {
    if (closed || size < 0 || (data == nullptr && size > 0)) {
        inner->write(data, size, barrier);  // throws the wrapped stream's own error
        return;
    }
    throwIfFailed();
    const auto* bytes = static_cast<const unsigned char*>(data);
    while (size > 0) {
        CChunk* chunk = &chunks[static_cast<size_t>(filling)];
        const bool continues =
            chunk->position + static_cast<long long>(chunk->bytes.size()) == position;
        if (!chunk->bytes.empty() &&
            (!continues || chunk->bytes.size() == static_cast<size_t>(kChunkBytes))) {
            submitFilling();
            chunk = &chunks[static_cast<size_t>(filling)];
        }
        if (chunk->bytes.empty()) {
            chunk->bytes.reserve(static_cast<size_t>(kChunkBytes));
            chunk->position = position;
        }
        const int count = std::min(size, kChunkBytes - static_cast<int>(chunk->bytes.size()));
        chunk->bytes.insert(chunk->bytes.end(), bytes, bytes + count);
        bytes += count;
        size -= count;
        position += count;
    }
    length = std::max(length, position);
}

void CWriteBehindStream::writeKeepBuffer(const kz::TConstBufferSlice<unsigned char>& slice,
                                         kz::IWriteBarrier* barrier) {
    write(slice.getData(), static_cast<int>(slice.getLength()), barrier);
}

// Every write is copied before write() returns, so a barrier has nothing to wait for.
kz::P<kz::IWriteBarrier> CWriteBehindStream::createWriteBarrier() {
    return kz::makeP<kz::CDummyWriteBarrier>();
}

void CWriteBehindStream::flush() {
    drain();
    inner->flush();
}

void CWriteBehindStream::setLength(long long newLength) {
    drain();
    inner->setLength(newLength);
    length = inner->getLength();
}

void CWriteBehindStream::submitFilling() {
    if (chunks[static_cast<size_t>(filling)].bytes.empty()) {
        return;
    }
    std::unique_lock<std::mutex> lock(mutex);
    if (!thread.joinable()) {
        thread = std::thread([this] { run(); });
    }
    // The chunk being filled and the queued ones share the ring.
    workDone.wait(lock, [this] { return queued < kChunkCount - 1 || failure; });
    if (failure) {
        std::rethrow_exception(failure);
    }
    ++queued;
    filling = (filling + 1) % kChunkCount;
    workToDo.notify_one();
}

void CWriteBehindStream::drain() {
    if (closed) {
        return;
    }
    submitFilling();
    {
        std::unique_lock<std::mutex> lock(mutex);
        workDone.wait(lock, [this] { return queued == 0; });
    }
    throwIfFailed();
    inner->seek(position);
}

void CWriteBehindStream::throwIfFailed() {
    std::lock_guard<std::mutex> lock(mutex);
    if (failure) {
        std::rethrow_exception(failure);
    }
}

void CWriteBehindStream::stopThread() {
    {
        std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    workToDo.notify_one();
    if (thread.joinable()) {
        thread.join();
    }
}

// The thread's loop: writes the chunk at `first` outside the lock, then hands it back. After a
// failure it only hands chunks back, so that nothing behind the failed write reaches the file.
void CWriteBehindStream::run() {
    std::unique_lock<std::mutex> lock(mutex);
    for (;;) {
        workToDo.wait(lock, [this] { return queued > 0 || stopping; });
        if (queued == 0) {
            return;
        }
        CChunk& chunk = chunks[static_cast<size_t>(first)];
        const bool skip = failure != nullptr;
        lock.unlock();
        std::exception_ptr error;
        if (!skip) {
            try {
                inner->seek(chunk.position);
                inner->write(chunk.bytes.data(), static_cast<int>(chunk.bytes.size()), nullptr);
            } catch (...) {
                error = std::current_exception();
            }
        }
        chunk.bytes.clear();
        lock.lock();
        if (error && !failure) {
            failure = error;
        }
        first = (first + 1) % kChunkCount;
        --queued;
        workDone.notify_all();
    }
}

}  // namespace harlimg
