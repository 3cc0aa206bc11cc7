#include "harl/foundation/kz/CFaultInjectingStream.h"

#include "harl/foundation/kz/IWriteBarrier.h"

#include <climits>

namespace kz {

CFaultInjectingStream::CFaultInjectingStream(IIOStream* inner, CFaultInjectingFileSystem* owner)
    : inner(inner), owner(owner) {
}

void CFaultInjectingStream::read(void* data, int size) {
    owner->countOperation(inner->getURI());
    inner->read(data, size);
}

int CFaultInjectingStream::readLax(void* data, int size) {
    owner->countOperation(inner->getURI());
    return inner->readLax(data, size);
}

int CFaultInjectingStream::readAvailable(void* data, int size) {
    owner->countOperation(inner->getURI());
    return inner->readAvailable(data, size);
}

void CFaultInjectingStream::write(const void* data, int size, IWriteBarrier* barrier) {
    const int stored = owner->countWrite(inner->getURI(), size);
    inner->write(data, stored, barrier);
    if (stored < size) {
        owner->throwInjectedFault(inner->getURI());
    }
}

void CFaultInjectingStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                                            IWriteBarrier* barrier) {
    const int size = slice.getLength() > static_cast<size_t>(INT_MAX)
                         ? INT_MAX
                         : static_cast<int>(slice.getLength());
    const int stored = owner->countWrite(inner->getURI(), size);
    if (stored == size) {
        inner->writeKeepBuffer(slice, barrier);
        return;
    }
    inner->write(slice.getData(), stored, barrier);
    owner->throwInjectedFault(inner->getURI());
}

P<IWriteBarrier> CFaultInjectingStream::createWriteBarrier() {
    return inner->createWriteBarrier();
}

void CFaultInjectingStream::flush() {
    owner->countOperation(inner->getURI());
    inner->flush();
}

void CFaultInjectingStream::setLength(long long length) {
    owner->countOperation(inner->getURI());
    inner->setLength(length);
}

}  // namespace kz
