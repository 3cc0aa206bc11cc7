#include "harl/foundation/kz/CFaultInjectingStream.h"

#include "harl/foundation/kz/IWriteBarrier.h"

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
    owner->countOperation(inner->getURI());
    inner->write(data, size, barrier);
}

void CFaultInjectingStream::writeKeepBuffer(const TConstBufferSlice<unsigned char>& slice,
                                            IWriteBarrier* barrier) {
    owner->countOperation(inner->getURI());
    inner->writeKeepBuffer(slice, barrier);
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
