#include "harl/disk/CVMDKDisk.h"

#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CLockFile.h"
#include "harl/foundation/kz/Log.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include <algorithm>
#include <exception>
#include <limits>

namespace harl {

namespace {

// The largest disk whose every byte position fits a long long.
constexpr long long kMaxSizeSectors = std::numeric_limits<long long>::max() / kSectorSizeBytes;

const char* const kShortPreparedRead =
    "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::tryRreparedGrainData returned less "
    "than the grain size.";
const char* const kShortPreparedWrite =
    "Internal error: CVMDKDisk::beginIOOp in CVMDKDisk::writePreparedGrainData returned less "
    "than the grain size.";
const char* const kNotWritable =
    "Internal error: CVMDKDisk::write was called, but the disk was not opened for writing.";

}  // namespace

CVMDKDisk::CVMDKDisk(kz::IFileSystem* fileSystem, const kz::CURI& mainFileURI,
                     kz::IIOStream::Access access, int compressionLevel)
    : fileSystem(fileSystem),
      mainFileURI(mainFileURI.toNormalized()),
      access(access),
      compressionLevel(compressionLevel),
      grainTableCache(new CVMDKGrainTableCache),
      grainSizeSectors(getGrainSizeSectors()),
      grainSizeBytes(getGrainSizeSectors() * kSectorSizeBytes) {
}

void CVMDKDisk::setAutomaticGrainTableFlushingEnabled(bool enabled) {
    const kz::P<CVMDKGrainTableCache> cache = grainTableCache;
    cache->setAutoEnforceLimit(enabled);
}

void CVMDKDisk::setContentIDUpdatesEnabled(bool enabled) {
    if (contentIDUpdater) {
        contentIDUpdater->setContentIDUpdatesEnabled(enabled);
    }
}

CVMDKDisk::~CVMDKDisk() {
    if (access != kz::IIOStream::AccessRead && currentExtent) {
        try {
            currentExtent->flushChanges();
        } catch (const std::exception& e) {
            kz::onExceptionInDestructorIgnored("harl::CVMDKDisk", e, true);
        }
    }
}

void CVMDKDisk::appendExtentRange(const kz::CURI& fileURI, long long rangeSizeSectors) {
    // A disk larger than this could not be addressed in bytes, so such a descriptor is corrupt.
    if (rangeSizeSectors < 0 || rangeSizeSectors > kMaxSizeSectors - sizeSectors) {
        throw kz::CIOError(
            kz::CIOError::CorruptFormat,
            "VMDK disk has an extent of invalid size: " + kz::String::number(rangeSizeSectors),
            kz::CProps().add("uri", mainFileURI.toString(true)));
    }
    if (firstExtentFileURI.isEmpty()) {
        firstExtentFileURI = fileURI;
    }
    if (rangeSizeSectors > 0) {
        extentMap.insert_or_assign(CExtentKey{sizeSectors, rangeSizeSectors},
                                   CExtentValue{fileURI, -1});
    }
    sizeSectors += rangeSizeSectors;
    sizeBytes = sizeSectors * kSectorSizeBytes;
}

void CVMDKDisk::finishExtentMap(long long diskGrainSizeSectors, bool diskCompressed) {
    // Extents hand the grain size on as an int of bytes.
    if (diskGrainSizeSectors <= 0 ||
        diskGrainSizeSectors > std::numeric_limits<int>::max() / kSectorSizeBytes) {
        throw kz::CInvalidArgError(
            "CVMDKDisk::finishExtentMap",
            "Invalid grain size: " + kz::String::number(diskGrainSizeSectors), mainFileProps());
    }
    grainSizeSectors = diskGrainSizeSectors;
    grainSizeBytes = grainSizeSectors * kSectorSizeBytes;
    compressed = diskCompressed;
    for (auto& [key, value] : extentMap) {
        value.startGrainIndex = (key.startSector + grainSizeSectors - 1) / grainSizeSectors;
    }
    sizeBytes = sizeSectors * kSectorSizeBytes;
    currentExtentStartBytes = -1;
    currentExtentSizeBytes = 0;
    position = 0;
}

void CVMDKDisk::seek(long long newPosition) {
    if (newPosition < 0 || newPosition > sizeBytes) {
        throw kz::CIOError(kz::CIOError::BadSeek,
                           "Bad seek position in VMDK disk: " + kz::String::number(newPosition),
                           mainFileProps().add("diskSize", sizeBytes));
    }
    position = newPosition;
}

void CVMDKDisk::read(void* buffer, int bytes) {
    if (bytes > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::EndOfData, "Read exceeds VMDK disk size.",
                           mainFileProps().add("position", position).add("bytesToRead", bytes));
    }
    auto* out = static_cast<unsigned char*>(buffer);
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    while (bytes > 0) {
        beginIOOp(bytes, extent, opBytes);
        extent->read(out, static_cast<int>(opBytes));
        out += opBytes;
        bytes -= static_cast<int>(opBytes);
        position += opBytes;
    }
}

void CVMDKDisk::write(const void* buffer, int bytes) {
    if (bytes > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::WritePastEnd, "Write exceeds VMDK disk size.",
                           mainFileProps().add("position", position).add("bytesToWrite", bytes));
    }
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(kNotWritable);
    }
    const auto* in = static_cast<const unsigned char*>(buffer);
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    while (bytes > 0) {
        beginIOOp(bytes, extent, opBytes);
        extent->write(in, static_cast<int>(opBytes));
        in += opBytes;
        bytes -= static_cast<int>(opBytes);
        position += opBytes;
    }
}

void CVMDKDisk::checkPreparedGrainRange(const char* what) const {
    if (grainSizeBytes > sizeBytes - position) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           kz::String("Prepared grain ") + what + " exceeds VMDK disk size.",
                           mainFileProps()
                               .add("position", position)
                               .add("grainSize", grainSizeBytes)
                               .add("diskSize", sizeBytes));
    }
    if (position % grainSizeBytes != 0) {
        throw kz::CIOError(
            kz::CIOError::OffGrainBoundary,
            kz::String("Prepared grain ") + what +
                " in VMDK disk can only be done on a grain boundary.",
            mainFileProps().add("position", position).add("grainSize", grainSizeBytes));
    }
}

void CVMDKDisk::readPreparedGrainData(kz::TBuffer<unsigned char>& buffer) {
    checkPreparedGrainRange("read");
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(grainSizeBytes, extent, opBytes);
    testGrainOpBytes(opBytes, kShortPreparedRead);
    extent->readPreparedGrainData(buffer);
    position += opBytes;
}

void CVMDKDisk::writePreparedGrainData(const kz::TBuffer<unsigned char>& buffer) {
    checkPreparedGrainRange("write");
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(kNotWritable);
    }
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(grainSizeBytes, extent, opBytes);
    testGrainOpBytes(opBytes, kShortPreparedWrite);
    extent->writePreparedGrainData(buffer);
    position += opBytes;
}

bool CVMDKDisk::isGrainWritten() {
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWritten();
}

bool CVMDKDisk::isGrainWrittenAndIndependentOfParent() {
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(1, extent, opBytes);
    return extent->isGrainWrittenAndIndependentOfParent();
}

long long CVMDKDisk::makeGrainIndependentOfParent(long long grainIndex) {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKDisk::makeGrainIndependentOfParent was called, but the disk "
            "was not opened for writing.");
    }
    // An index whose byte position overflows lies far behind any disk; it cannot be named in
    // the seek error, so it gets its own.
    if (grainIndex > std::numeric_limits<long long>::max() / grainSizeBytes ||
        grainIndex < std::numeric_limits<long long>::min() / grainSizeBytes) {
        throw kz::CInvalidArgError("CVMDKDisk::makeGrainIndependentOfParent",
                                   "Invalid grain index: " + kz::String::number(grainIndex),
                                   mainFileProps().add("diskSize", sizeBytes));
    }
    seek(grainIndex * grainSizeBytes);
    kz::P<IVMDKExtentFile> extent;
    long long opBytes = 0;
    beginIOOp(grainSizeBytes, extent, opBytes);
    testGrainOpBytes(opBytes, kShortPreparedWrite);
    const long long result =
        extent->makeGrainIndependentOfParent(grainIndex - extent->getStartGrainIndex());
    position += opBytes;
    return result;
}

void CVMDKDisk::flushChanges() {
    // Only the open extent can hold changes: an extent is flushed whenever it is left.
    if (access != kz::IIOStream::AccessRead && currentExtent) {
        currentExtent->flushChanges();
    }
}

kz::P<CVMDKDataPreparer> CVMDKDisk::createDataPreparer() const {
    return kz::makeP<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKDisk::beginIOOp(long long bytes, kz::P<IVMDKExtentFile>& extent, long long& opBytes) {
    // The caller's reference to the previous extent must not keep it alive: a split disk
    // closes one file before it opens the next.
    extent = nullptr;
    // The end of the range is not part of it: a position at an extent's first byte belongs to
    // the next extent. A failing flush leaves the extent open and current.
    if (currentExtent && (position < currentExtentStartBytes ||
                          position - currentExtentStartBytes >= currentExtentSizeBytes)) {
        currentExtent->flushChanges();
        currentExtent = nullptr;
        currentExtentURI = kz::CURI();
    }
    if (!currentExtent) {
        openExtentAtPosition();
    }
    // Sequential work inside one extent needs no extent seek.
    const long long offset = position - currentExtentStartBytes;
    if (currentExtent->getPosition() != offset) {
        currentExtent->seek(offset);
    }
    opBytes = std::min(bytes, currentExtentSizeBytes - offset);
    extent = currentExtent;
}

// The one place where extent objects are made. On failure no extent is open and the same
// position can be tried again.
void CVMDKDisk::openExtentAtPosition() {
    const long long sector = position / kSectorSizeBytes;
    const auto entry = extentMap.lower_bound(CExtentKey{sector, 1});
    if (entry == extentMap.end() || entry->first.startSector > sector) {
        throw kz::CError(
            "Internal error: cannot find VMDK extent for position " + kz::String::number(position),
            kz::String(), -1, kz::CProps().add("mainURI", mainFileURI.toString(true)));
    }
    const CExtentKey& key = entry->first;
    const CExtentValue& value = entry->second;
    try {
        currentExtentURI = value.uri.toNormalized();
        currentExtent = makeExtentFile(currentExtentURI, value.startGrainIndex, key.sizeSectors);
    } catch (const kz::CError& e) {
        currentExtentURI = kz::CURI();
        kz::logError("Error opening VMDK extent file on demand (path: '" +
                         value.uri.toString(true) + "'). Letting exception through.",
                     e, "");
        throw;
    } catch (...) {
        currentExtentURI = kz::CURI();
        throw;
    }
    currentExtentStartBytes = key.startSector * kSectorSizeBytes;
    currentExtentSizeBytes = key.sizeSectors * kSectorSizeBytes;
}

void CVMDKDisk::testGrainOpBytes(long long opBytes, const char* message) const {
    if (opBytes != grainSizeBytes) {
        throw kz::CError(message, kz::String(), -1,
                         mainFileProps()
                             .add("position", position)
                             .add("grainSize", grainSizeBytes)
                             .add("opBytes", opBytes)
                             .add("diskSize", sizeBytes));
    }
}

kz::CProps CVMDKDisk::mainFileProps() const {
    return kz::CProps().add("mainFileURI", mainFileURI.toString(true));
}

}  // namespace harl
