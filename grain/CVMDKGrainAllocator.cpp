#include "harl/grain/CVMDKGrainAllocator.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/grain/CVMDKGrainDirectory.h"

#include <algorithm>
#include <cstring>

namespace harl {

namespace {

constexpr long long kSectorSizeBytes = 512;

}  // namespace

CVMDKGrainAllocator::CVMDKGrainAllocator(kz::IIOStream* stream, kz::IIOStream::Access access,
                                         long long grainSizeSectors,
                                         long long grainAlignmentSectors,
                                         CVMDKGrainDirectory* directory,
                                         const kz::TBuffer<unsigned char>& trailData)
    : stream(stream),
      access(access),
      directory(directory),
      grainSizeSectors(grainSizeSectors),
      grainSizeBytes(grainSizeSectors * kSectorSizeBytes),
      grainAlignmentSectors(grainAlignmentSectors),
      grainAlignmentBytes(grainAlignmentSectors * kSectorSizeBytes),
      zeroBuffer(static_cast<size_t>(std::max(2 * grainSizeBytes, grainAlignmentBytes))),
      trailData(trailData) {
    zeroBuffer.fill(0);
    const long long length = this->stream->getLength();
    nextPosBytes = length;
    if (trailData.getUsed() == 0) {
        return;
    }
    const long long trailBytes = static_cast<long long>(trailData.getUsed());
    bool endsWithTrail = false;
    if (length >= trailBytes) {
        const long long position = this->stream->getPosition();
        kz::TBuffer<unsigned char> tail(trailData.getUsed());
        this->stream->seek(length - trailBytes);
        this->stream->read(tail.getData(), static_cast<int>(trailBytes));
        this->stream->seek(position);
        endsWithTrail = tail == trailData;
    }
    if (endsWithTrail) {
        nextPosBytes = length - trailBytes;
        return;
    }
    kz::logWarning(
        "VMDK trail data is not what we expected. Assuming that it is not trail data - we "
        "won't overwrite it.");
    trailDirty = access != kz::IIOStream::AccessRead;
}

CVMDKGrainAllocator::~CVMDKGrainAllocator() {
    try {
        flushChangesToStream();
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKGrainAllocator", error, true);
    }
}

void CVMDKGrainAllocator::flushChangesToStream() {
    if (!trailDirty || trailData.getUsed() == 0) {
        return;
    }
    stream->seek(nextPosBytes);
    stream->write(trailData.getData(), static_cast<int>(trailData.getUsed()), nullptr);
    trailDirty = false;
}

long long CVMDKGrainAllocator::allocNewGrain(long long extentGrainIndex, const void* data, int size,
                                             int slotSizeSectors) {
    return allocate(extentGrainIndex, static_cast<const unsigned char*>(data), size,
                    slotSizeSectors, false);
}

long long CVMDKGrainAllocator::allocNewGrainKeepBuffer(
    long long extentGrainIndex, const kz::TConstBufferSlice<unsigned char>& data,
    int slotSizeSectors) {
    return allocate(extentGrainIndex, data.getData(), static_cast<int>(data.getLength()),
                    slotSizeSectors, true);
}

long long CVMDKGrainAllocator::allocate(long long extentGrainIndex, const unsigned char* data,
                                        int size, int slotSizeSectors, bool keepBuffer) {
    const long long slotBytes = slotSizeSectors * kSectorSizeBytes;
    if (slotBytes < size) {
        throw kz::CInvalidArgError("CVMDKGrainAllocator::allocNewGrain",
                                   "Slot size is smaller than grain data size (slot size: " +
                                       kz::String::number(slotBytes) + " bytes, grain data size: " +
                                       kz::String::number(size) + " bytes)");
    }
    if (access == kz::IIOStream::AccessRead) {
        throw kz::CError(
            "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain "
            "allocator was not opened for writing.");
    }
    const long long misalignment = nextPosBytes % grainAlignmentBytes;
    const long long start =
        misalignment == 0 ? nextPosBytes : nextPosBytes + grainAlignmentBytes - misalignment;
    // A corrupt file may claim space behind the end of its data, with a table or a grain entry;
    // a new grain there would later be read as that, or overwritten by it.
    if (directory->getClaimedEndSectors() * kSectorSizeBytes > start) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK file claims space behind the end of its grain data; no grain is "
                           "added to it.",
                           kz::CProps()
                               .add("uri", stream->getURI().toString(true))
                               .add("claimedEndSectors", directory->getClaimedEndSectors())
                               .add("dataEndBytes", nextPosBytes));
    }
    stream->seek(nextPosBytes);
    writeZeros(start - nextPosBytes);
    // From here on the trail, if any, is being overwritten.
    trailDirty = true;
    if (keepBuffer) {
        stream->writeKeepBuffer(kz::TConstBufferSlice<unsigned char>(data, size), nullptr);
    } else {
        stream->write(data, size, nullptr);
    }
    nextPosBytes = start + size;
    // Every byte of a slot is defined, so that a slot never shows stale data of the file.
    const long long slotEnd = start + slotBytes;
    writeZeros(slotEnd - nextPosBytes);
    nextPosBytes = slotEnd;
    directory->setGrainInfo(extentGrainIndex, start / kSectorSizeBytes, slotSizeSectors);
    return start / kSectorSizeBytes;
}

void CVMDKGrainAllocator::writeZeros(long long byteCount) {
    while (byteCount > 0) {
        const long long chunk = std::min(byteCount, static_cast<long long>(zeroBuffer.getUsed()));
        stream->write(zeroBuffer.getData(), static_cast<int>(chunk), nullptr);
        byteCount -= chunk;
    }
}

}  // namespace harl
