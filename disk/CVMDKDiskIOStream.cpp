#include "harl/disk/CVMDKDiskIOStream.h"

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CDummyWriteBarrier.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/Log.h"

#include <algorithm>

namespace harl {

CVMDKDiskIOStream::CVMDKDiskIOStream(CVMDKDisk* disk) {
    construct(disk);
}

CVMDKDiskIOStream::CVMDKDiskIOStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                     kz::IIOStream::Access access, const kz::String& password) {
    const kz::P<CVMDKDisk> opened(
        new CVMDKDisk(fileSystem, uri, access, password, -1, nullptr, nullptr));
    construct(opened.get());
}

CVMDKDiskIOStream::CVMDKDiskIOStream(const CVMDKDiskIOStream&) = default;
CVMDKDiskIOStream& CVMDKDiskIOStream::operator=(const CVMDKDiskIOStream&) = default;

CVMDKDiskIOStream::~CVMDKDiskIOStream() {
    try {
        disk = nullptr;
    } catch (const std::exception& e) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKDiskIOStream", e, true);
    }
}

void CVMDKDiskIOStream::construct(CVMDKDisk* openDisk) {
    disk = openDisk;
    uri = disk->getMainFileURI();
}

CVMDKDisk& CVMDKDiskIOStream::openDisk() const {
    if (!disk) {
        throw kz::CIOError(kz::CIOError::StreamClosed, kz::String());
    }
    return *disk;
}

long long CVMDKDiskIOStream::getLength() {
    return openDisk().getSizeBytes();
}

long long CVMDKDiskIOStream::getPosition() {
    return openDisk().getPosition();
}

kz::CURI CVMDKDiskIOStream::getURI() {
    return uri;
}

void CVMDKDiskIOStream::seek(long long position) {
    openDisk().seek(position);
}

bool CVMDKDiskIOStream::lockRange(long long, long long, LockType) {
    throw kz::CFileSystemError(kz::CFileSystemError::Unsupported,
                               kz::CError("VMDK Disk I/O stream does not support lockRange."));
}

void CVMDKDiskIOStream::close() {
    disk = nullptr;
}

void CVMDKDiskIOStream::read(void* data, int size) {
    openDisk().read(data, size);
}

int CVMDKDiskIOStream::readLax(void* data, int size) {
    CVMDKDisk& open = openDisk();
    const int count =
        static_cast<int>(std::min<long long>(size, open.getSizeBytes() - open.getPosition()));
    open.read(data, count);
    return std::max(count, 0);
}

int CVMDKDiskIOStream::readAvailable(void* data, int size) {
    return readLax(data, size);
}

bool CVMDKDiskIOStream::waitReadable(int) {
    openDisk();
    return true;
}

bool CVMDKDiskIOStream::isEndOfStream() {
    CVMDKDisk& open = openDisk();
    return !(open.getSizeBytes() > open.getPosition());
}

bool CVMDKDiskIOStream::isEndOfStream_NonBlocking() {
    return isEndOfStream() ? 1 : 0;
}

void CVMDKDiskIOStream::write(const void* data, int size, kz::IWriteBarrier*) {
    openDisk().write(data, size);
}

void CVMDKDiskIOStream::writeKeepBuffer(const kz::TConstBufferSlice<unsigned char>& slice,
                                        kz::IWriteBarrier* barrier) {
    write(slice.getData(), static_cast<int>(slice.getLength()), barrier);
}

kz::P<kz::IWriteBarrier> CVMDKDiskIOStream::createWriteBarrier() {
    flush();
    return kz::makeP<kz::CDummyWriteBarrier>();
}

void CVMDKDiskIOStream::flush() {
    openDisk().flushChanges();
}

void CVMDKDiskIOStream::setLength(long long) {
    openDisk();
    throw kz::CIOError(kz::CIOError::Unsupported, kz::String());
}

}  // namespace harl
