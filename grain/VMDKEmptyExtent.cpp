#include "harl/grain/VMDKEmptyExtent.h"

#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/Log.h"

#include <algorithm>

namespace harl {

namespace {

constexpr long long kSectorBytes = kSectorSizeBytes;
constexpr long long kDirectoryEntryBytes = 4;
constexpr long long kGrainTableSectors = kVMDKNewGrainTableEntryCount * 4 / kSectorBytes;
constexpr long long kSlotSizeTableSectors = kVMDKNewGrainTableEntryCount * 2 / kSectorBytes;
static_assert(kGrainTableSectors == 4 && kSlotSizeTableSectors == 2);

long long directorySectors(long long tableCount) {
    return (tableCount * kDirectoryEntryBytes + kSectorBytes - 1) / kSectorBytes;
}

// Writes `byteCount` bytes from `zeroBuffer`, in pieces of at most its length.
void writeZeros(kz::CDataOutStream& out, long long byteCount,
                const kz::TBuffer<unsigned char>& zeroBuffer) {
    vmdkWritePadding(out.getStream(), static_cast<int>(byteCount), zeroBuffer);
}

// Writes one directory: an entry per table, `firstEntry` + `stride` x i, then the rest of its
// last sector; checks that the tables start where the entries say.
void writeDirectory(kz::CDataOutStream& out, long long tableCount, long long firstEntryOffset,
                    long long stride, const kz::TBuffer<unsigned char>& zeroBuffer) {
    kz::IOutStream& stream = out.getStream();
    const long long blockStart =
        getStreamPositionVMDKSectors(stream) + directorySectors(tableCount);
    // Write the entries a sector's worth at a time, not four bytes at a time.
    kz::TBuffer<unsigned char> sector(static_cast<size_t>(kSectorBytes));
    for (long long first = 0; first < tableCount; first += kSectorBytes / kDirectoryEntryBytes) {
        const long long count = std::min(tableCount - first, kSectorBytes / kDirectoryEntryBytes);
        for (long long i = 0; i < count; ++i) {
            const auto entry =
                static_cast<unsigned int>(blockStart + firstEntryOffset + stride * (first + i));
            for (int b = 0; b < 4; ++b) {
                sector[static_cast<size_t>(i * 4 + b)] =
                    static_cast<unsigned char>(entry >> (8 * b));
            }
        }
        out.write(sector.getData(), static_cast<int>(count * kDirectoryEntryBytes));
    }
    const long long rest = stream.getPosition() % kSectorBytes;
    if (rest > 0) {
        out.write(zeroBuffer.getData(), static_cast<int>(kSectorBytes - rest));
    }
    const long long actual = getStreamPositionVMDKSectors(stream);
    if (actual != blockStart) {
        throw kz::CError(
            "Internal error. Stream position after writing VMDK grain directories is not the "
            "expected on (expected: " +
            kz::String::number(blockStart) + " sectors, actual: " + kz::String::number(actual) +
            " sectors)");
    }
}

void writeLayout(kz::CDataOutStream& out, CVMDKSparseExtentHeader& header, bool compressed,
                 long long tableCount, long long grainSizeSectors,
                 const kz::TBuffer<unsigned char>& zeroBuffer, CVMDKDescriptor* descriptor,
                 long long descriptorSizeSectors) {
    kz::IOutStream& stream = out.getStream();
    const long long directory = directorySectors(tableCount);
    if (descriptor != nullptr) {
        header.setDescriptorOffsetSectors(getStreamPositionVMDKSectors(stream));
        header.setDescriptorSizeSectors(descriptorSizeSectors);
        descriptor->store(stream, static_cast<int>(descriptorSizeSectors * kSectorBytes),
                          zeroBuffer);
    }
    for (int copy = 0; copy < 2; ++copy) {
        if (compressed) {
            writeVMDKMarker(out, VMDKMarkerGrainDirectory, directory, zeroBuffer);
        }
        const long long position = getStreamPositionVMDKSectors(stream);
        if (copy == 0) {
            header.setRedundantGrainDirectoryOffsetSectors(position);
        } else {
            header.setGrainDirectoryOffsetSectors(position);
        }
        writeEmptyVMDKGrainDirectoryAndTables(out, tableCount, zeroBuffer, compressed);
    }
    if (compressed) {
        writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, tableCount, zeroBuffer);
    }
    const long long grainBytes = grainSizeSectors * kSectorBytes;
    const long long rest = stream.getPosition() % grainBytes;
    if (rest > 0) {
        writeZeros(out, grainBytes - rest, zeroBuffer);
    }
    header.setOverheadSectors(getStreamPositionVMDKSectors(stream));
    if (compressed) {
        writeVMDKMarker(out, VMDKMarkerFooter, 1, zeroBuffer);
        header.store(out);
        writeVMDKMarker(out, VMDKMarkerEndOfStream, 0, zeroBuffer);
    }
}

}  // namespace

void writeEmptyVMDKGrainDirectoryAndTables(kz::CDataOutStream& out, long long tableCount,
                                           const kz::TBuffer<unsigned char>& zeroBuffer,
                                           bool withMarkers) {
    const long long blockSectors = kGrainTableSectors + (withMarkers ? 1 : 0);
    writeDirectory(out, tableCount, withMarkers ? 1 : 0, blockSectors, zeroBuffer);
    for (long long i = 0; i < tableCount; ++i) {
        if (withMarkers) {
            writeVMDKMarker(out, VMDKMarkerGrainTable, kGrainTableSectors, zeroBuffer);
        }
        writeZeros(out, kGrainTableSectors * kSectorBytes, zeroBuffer);
    }
}

void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
    kz::CDataOutStream& out, long long tableCount, const kz::TBuffer<unsigned char>& zeroBuffer) {
    writeVMDKMarker(out, VMDKMarkerSlotSizeDirectory, directorySectors(tableCount), zeroBuffer);
    writeDirectory(out, tableCount, 1, kSlotSizeTableSectors + 1, zeroBuffer);
    for (long long i = 0; i < tableCount; ++i) {
        writeVMDKMarker(out, VMDKMarkerSlotSizeTable, kSlotSizeTableSectors, zeroBuffer);
        writeZeros(out, kSlotSizeTableSectors * kSectorBytes, zeroBuffer);
    }
}

void createEmptyVMDKSparseExtentFile(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                     bool compressed, long long grainCount,
                                     long long grainSizeSectors,
                                     const kz::TBuffer<unsigned char>& zeroBuffer,
                                     CVMDKDescriptor* descriptor, long long descriptorSizeSectors,
                                     const kz::TBuffer<unsigned char>& encryptionKeyHash) {
    kz::P<kz::IIOStream> stream;
    try {
        stream = openVMDKFileStream(fileSystem, uri, kz::IIOStream::AccessReadWrite);
        kz::CDataOutStream out(stream.get());
        CVMDKSparseExtentHeader header;
        header.setVersion(compressed ? 3 : 1);
        header.setFlags(kVMDKHeaderFlagValidNewLineDetection |
                        kVMDKHeaderFlagRedundantGrainDirectory |
                        (compressed ? kVMDKHeaderFlagCompressed | kVMDKHeaderFlagMetaMarkers : 0));
        header.setCompressAlgorithm(compressed ? 1 : 0);
        header.setCapacitySectors(static_cast<uint64_t>(grainCount * grainSizeSectors));
        header.setGrainSizeSectors(static_cast<uint64_t>(grainSizeSectors));
        header.setGrainTableEntryCount(static_cast<uint32_t>(kVMDKNewGrainTableEntryCount));
        if (encryptionKeyHash.getUsed() > 0) {
            header.setEncryptionExtensionEnabled(true);
            header.setEncryptionAlgorthm(1);
            header.setEncryptionKeyHashAlgorthm(1);
            header.setEncryptionKeyHash(encryptionKeyHash);
        }
        header.store(out);
        const long long tableCount =
            (grainCount + kVMDKNewGrainTableEntryCount - 1) / kVMDKNewGrainTableEntryCount;
        writeLayout(out, header, compressed, tableCount, grainSizeSectors, zeroBuffer, descriptor,
                    descriptorSizeSectors);
        stream->seek(0);
        header.store(out);
        stream->close();
        stream.reset();
    } catch (const std::exception& error) {
        stream.reset();
        kz::logError("Error in CVMDKDisk::createEmptySparseExtentFile ('" + uri.toString(true) +
                         "'). Deleting file and letting error through.",
                     error, kz::String());
        try {
            fileSystem->deleteFile(uri, true);
        } catch (const std::exception& deleteError) {
            kz::logError("Error deleting half-finished extent file. Ignoring.", deleteError,
                         kz::String());
        }
        throw;
    }
}

}  // namespace harl
