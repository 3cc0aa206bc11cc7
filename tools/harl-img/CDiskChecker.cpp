#include "CDiskChecker.h"

#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/disk/CVMDKImportDisk.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/grain/CVMDKDataPreparer.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTable.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "CSourceImage.h"

#include <algorithm>
#include <vector>

namespace harlimg {

namespace {

const kz::IIOStream::Access kRead = kz::IIOStream::AccessRead;
// A compressed extent ends with a footer marker, the footer and an end-of-stream marker.
constexpr long long kTrailSectors = 3;
constexpr long long kCipherBlockBytes = 16;
// Findings kept with their text; a badly damaged file may have millions, which are counted.
constexpr size_t kMaxFindings = 1000;

std::string text(long long value) {
    return std::to_string(value);
}

bool hasTrail(kz::IIOStream& stream, long long fileSectors) {
    if (fileSectors < kTrailSectors) {
        return false;
    }
    unsigned char sectors[kTrailSectors * harl::kSectorSizeBytes];
    stream.seek((fileSectors - kTrailSectors) * harl::kSectorSizeBytes);
    stream.read(sectors, sizeof sectors);
    return harl::isVMDKMarker(sectors, harl::VMDKMarkerFooter, nullptr) &&
           harl::isVMDKMarker(sectors + 2 * harl::kSectorSizeBytes, harl::VMDKMarkerEndOfStream,
                              nullptr);
}

}  // namespace

CDiskChecker::CDiskChecker(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                           const kz::String& password)
    : fileSystem(fileSystem), uri(uri.toNormalized()), password(password) {
}

void CDiskChecker::run() {
    checkDescriptor();
    if (!descriptor) {
        return;
    }
    const bool own = CSourceImage::isOwnDisk(fileSystem.get(), uri);
    openDisk();
    if (!own) {
        if (disk) {
            checkImportedDisk();
        }
        return;
    }
    kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
    descriptor->getExtentEntries(lines);
    long long startSector = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        CExtent extent;
        try {
            extent.uri = harl::vmdkFileReferenceToURI(uri.getParent(), lines[i]->getFilename());
        } catch (const kz::CError& e) {
            corrupt("descriptor", uri, e.what());
            return;
        }
        extent.startSector = startSector;
        extent.sizeSectors = lines[i]->getSizeSectors();
        if (extent.sizeSectors < 0 ||
            startSector > harl::CVMDKSparseExtentFile::kMaxCapacitySectors) {
            corrupt("descriptor", uri, "an extent line has a size no disk can have");
            return;
        }
        startSector += extent.sizeSectors;
        if (!fileSystem->exists(extent.uri)) {
            if (i == 0 || !descriptor->getKzCreateExtentFilesOnDemand()) {
                corrupt("missing-extent", extent.uri, "the extent file does not exist");
            }
            continue;
        }
        try {
            checkExtent(extent);
        } catch (const kz::CFileSystemError&) {
            throw;
        } catch (const kz::CError& e) {
            corrupt("extent", extent.uri, e.what());
        }
    }
}

void CDiskChecker::checkDescriptor() {
    const kz::P<kz::IIOStream> stream = harl::openVMDKFileStream(fileSystem.get(), uri, kRead);
    bool namesAnother = false;
    kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
    try {
        harl::CVMDKDescriptorAccessor accessor(stream.get(), kRead);
        descriptor = accessor.getDescriptor();
        descriptor->getExtentEntries(lines);
        namesAnother =
            accessor.getEmbeddedInSparseExtentFile() && lines.size() == 1 &&
            harl::vmdkFileReferenceToURI(uri.getParent(), lines[0]->getFilename()) != uri;
    } catch (const kz::CFileSystemError&) {
        throw;
    } catch (const kz::CError& e) {
        corrupt("descriptor", uri, e.what());
        descriptor = nullptr;
        return;
    }
    if (namesAnother) {
        warn("extent-name", uri,
             "the embedded extent line names '" + lines[0]->getFilename().toUTF8() +
                 "', not this file: a renamed copy of a disk reads and writes the original's "
                 "file");
    }
}

void CDiskChecker::openDisk() {
    try {
        disk = CSourceImage::openDisk(fileSystem.get(), uri, password);
    } catch (const kz::CIOError& e) {
        corrupt("disk", uri, e.what());
    }
}

void CDiskChecker::checkImportedDisk() {
    const auto& imported = dynamic_cast<const harl::CVMDKImportDisk&>(*disk);
    const long long grainBytes = disk->getGrainSizeBytes();
    totalGrains = (disk->getSizeBytes() + grainBytes - 1) / grainBytes;
    for (const harl::CVMDKImportDisk::CExtentLine& line : imported.getExtentLines()) {
        const long long startBytes = line.startSector * harl::kSectorSizeBytes;
        const long long endBytes = startBytes + line.sizeSectors * harl::kSectorSizeBytes;
        try {
            // Opens the extent, which checks its file: a flat file's length, a stream-optimized
            // file's header, footer and directory, or its markers when it has no directory.
            disk->seek(startBytes);
            disk->isGrainWritten();
        } catch (const kz::CFileSystemError&) {
            throw;
        } catch (const kz::CError& e) {
            corrupt("extent", line.uri.isEmpty() ? uri : line.uri, e.what());
            continue;
        }
        if (line.kind == harl::CVMDKImportDisk::ExtentKind::Flat) {
            allocatedGrains += (endBytes - startBytes + grainBytes - 1) / grainBytes;
        } else if (line.kind == harl::CVMDKImportDisk::ExtentKind::Sparse) {
            readImportedGrains(line.uri, startBytes, endBytes);
        }
    }
}

void CDiskChecker::readImportedGrains(const kz::CURI& extentURI, long long startBytes,
                                      long long endBytes) {
    const long long grainBytes = disk->getGrainSizeBytes();
    std::vector<unsigned char> data(static_cast<size_t>(grainBytes));
    // An extent counts its grains from its own start, which need not be a grain of the disk.
    for (long long position = startBytes; position < endBytes; position += grainBytes) {
        const long long count = std::min(grainBytes, endBytes - position);
        try {
            disk->seek(position);
            if (!disk->isGrainWritten()) {
                continue;
            }
            ++allocatedGrains;
            compressedGrains += disk->getCompressed() ? 1 : 0;
            disk->read(data.data(), static_cast<int>(count));
        } catch (const kz::CFileSystemError&) {
            throw;
        } catch (const kz::CError& e) {
            corrupt("grain", extentURI,
                    "the grain at byte " + text(position - startBytes) +
                        " of the extent does not read: " + e.what());
        }
    }
}

void CDiskChecker::checkExtent(CExtent& extent) {
    openExtent(extent);
    checkTables(extent);
    std::vector<CSlot> slots;
    checkGrains(extent, slots);
    long long liveSectors = 0;
    for (const CSlot& slot : slots) {
        liveSectors += slot.sizeSectors;
    }
    checkOverlaps(extent, slots);
    const long long overhead = static_cast<long long>(extent.header->getOverheadSectors());
    leakedBytes +=
        std::max(0LL, extent.dataEndSectors - overhead - liveSectors) * harl::kSectorSizeBytes;
}

void CDiskChecker::openExtent(CExtent& extent) {
    extent.stream = harl::openVMDKFileStream(fileSystem.get(), extent.uri, kRead);
    extent.header = new harl::CVMDKSparseExtentHeader;
    kz::CDataInStream in(extent.stream.get());
    extent.header->load(in);
    const harl::CVMDKSparseExtentHeader& header = *extent.header;
    const long long grainSectors = static_cast<long long>(header.getGrainSizeSectors());
    const auto capacity = static_cast<long long>(header.getCapacitySectors());
    extent.fileSectors = extent.stream->getLength() / harl::kSectorSizeBytes;
    if (grainSectors <= 0 || grainSectors > harl::CVMDKSparseExtentFile::kMaxGrainSizeSectors ||
        capacity < 0 || capacity > harl::CVMDKSparseExtentFile::kMaxCapacitySectors ||
        header.getOverheadSectors() > static_cast<uint64_t>(extent.fileSectors)) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "the header's grain size, capacity or overhead is impossible");
    }
    if (capacity < extent.sizeSectors) {
        corrupt("header", extent.uri,
                "the extent holds " + text(capacity) + " sectors, its extent line says " +
                    text(extent.sizeSectors));
    }
    const bool compressed = (header.getFlags() & harl::kVMDKHeaderFlagCompressed) != 0;
    extent.encrypted = header.getEncryptionExtensionEnabled() && header.getEncryptionAlgorithm();
    extent.dataEndSectors = extent.fileSectors;
    if (compressed && hasTrail(*extent.stream, extent.fileSectors)) {
        extent.dataEndSectors -= kTrailSectors;
    } else if (compressed) {
        warn("trail", extent.uri,
             "the compressed extent does not end with its footer; it was not closed");
    }
    extent.directory = new harl::CVMDKGrainDirectory(
        extent.stream.get(), kRead, static_cast<long long>(header.getGrainDirectoryOffsetSectors()),
        static_cast<long long>(header.getRedundantGrainDirectoryOffsetSectors()), capacity,
        grainSectors, static_cast<int>(header.getGrainTableEntryCount()), compressed,
        new harl::CVMDKGrainTableCache);
}

void CDiskChecker::checkTables(CExtent& extent) {
    harl::CVMDKGrainDirectory& directory = *extent.directory;
    const int perTable = directory.getGrainsPerTable();
    const long long tableSectors =
        (perTable * 4LL + harl::kSectorSizeBytes - 1) / harl::kSectorSizeBytes;
    extent.badTables.assign(static_cast<size_t>(directory.getGrainTableCount()), false);
    for (long long t = 0; t < directory.getGrainTableCount(); ++t) {
        long long pos = 0;
        long long redundantPos = 0;
        directory.getGrainTablePositions(t, pos, redundantPos);
        const bool redundant = extent.header->getRedundantGrainDirectoryOffsetSectors() > 0;
        const auto inFile = [&](long long at) {
            return at > 0 && at + tableSectors <= extent.fileSectors;
        };
        if (!inFile(pos) || (redundant && !inFile(redundantPos))) {
            corrupt("directory", extent.uri,
                    "grain table " + text(t) + " or its redundant copy lies outside the file " +
                        "(sectors " + text(pos) + " and " + text(redundantPos) + ")");
            extent.badTables[t] = true;
        }
        if (!redundant || extent.badTables[t]) {
            continue;
        }
        const kz::P<harl::CVMDKGrainTable> table = directory.getGrainTable(t);
        harl::CVMDKGrainTable copy(extent.stream.get(), kRead, directory.getGrainSizeSectors(),
                                   redundantPos, 0, 0, perTable);
        for (long long g = 0; g < perTable; ++g) {
            long long a = 0, b = 0, slotA = 0, slotB = 0;
            table->getGrainInfo(g, a, slotA);
            copy.getGrainInfo(g, b, slotB);
            if (a != b) {
                corrupt("redundant-directory", extent.uri,
                        "grain table " + text(t) + " and its redundant copy differ at entry " +
                            text(g) + " (sector " + text(a) + ", copy " + text(b) + ")");
                break;
            }
        }
    }
}

void CDiskChecker::checkGrains(CExtent& extent, std::vector<CSlot>& slots) {
    harl::CVMDKGrainDirectory& directory = *extent.directory;
    const long long grainSectors = directory.getGrainSizeSectors();
    const long long overhead = static_cast<long long>(extent.header->getOverheadSectors());
    const long long count = std::min(directory.getExtentGrainCount(),
                                     (extent.sizeSectors + grainSectors - 1) / grainSectors);
    totalGrains += count;
    for (long long g = 0; g < count; ++g) {
        const size_t table = static_cast<size_t>(g / directory.getGrainsPerTable());
        long long pos = 0;
        long long slot = 0;
        if (extent.badTables[table]) {
            continue;
        }
        try {
            directory.getGrainInfo(g, pos, slot);
        } catch (const kz::CFileSystemError&) {
            throw;
        } catch (const kz::CError& e) {
            corrupt("directory", extent.uri, e.what());
            extent.badTables[table] = true;
            continue;
        }
        if (pos == 0) {
            continue;
        }
        ++allocatedGrains;
        const std::string grain = "grain " + text(extent.startSector / grainSectors + g);
        if (pos < overhead || pos + slot > extent.dataEndSectors) {
            corrupt("table-entry", extent.uri,
                    grain + " lies outside the data (sectors " + text(pos) + " to " +
                        text(pos + slot) + "; data from " + text(overhead) + " to " +
                        text(extent.dataEndSectors) + ")");
        } else if (slot <= 0 || (!directory.getCompressed() && slot < grainSectors)) {
            corrupt("slot-size", extent.uri, grain + " has a slot of " + text(slot) + " sectors");
        } else {
            slots.push_back({pos, slot, g});
            if (directory.getCompressed()) {
                checkCompressedGrain(extent, g, pos, slot);
            }
        }
    }
}

void CDiskChecker::checkCompressedGrain(CExtent& extent, long long grainIndex, long long posSectors,
                                        long long slotSectors) {
    ++compressedGrains;
    const long long grainSectors = extent.directory->getGrainSizeSectors();
    const long long grainBytes = grainSectors * harl::kSectorSizeBytes;
    const long long diskGrain = extent.startSector / grainSectors + grainIndex;
    const std::string grain = "grain " + text(diskGrain);
    extent.stream->seek(posSectors * harl::kSectorSizeBytes);
    kz::CDataInStream in(extent.stream.get());
    const unsigned long long lba = in.readUInt64();
    const long long size = in.readUInt32();
    const long long block = extent.encrypted ? kCipherBlockBytes : 1;
    const long long stored =
        harl::CVMDKDataPreparer::kHeaderSizeBytes + (size + block - 1) / block * block;
    if (lba != static_cast<unsigned long long>(diskGrain * grainSectors)) {
        corrupt("lba", extent.uri,
                grain + " carries the place of another grain (lba " + std::to_string(lba) +
                    ", expected " + text(diskGrain * grainSectors) + ")");
    } else if (size > 2 * grainBytes || stored > slotSectors * harl::kSectorSizeBytes) {
        corrupt("slot-size", extent.uri,
                grain + " needs " + text(stored) + " bytes, its slot holds " +
                    text(slotSectors * harl::kSectorSizeBytes));
    } else if (disk && disk->getGrainSizeBytes() == grainBytes) {
        std::vector<unsigned char> data(static_cast<size_t>(grainBytes));
        try {
            disk->seek(diskGrain * grainBytes);
            disk->read(data.data(), static_cast<int>(grainBytes));
        } catch (const kz::CFileSystemError&) {
            throw;
        } catch (const kz::CError& e) {
            corrupt("decompression", extent.uri, grain + " does not decompress: " + e.what());
        }
    }
}

void CDiskChecker::checkOverlaps(const CExtent& extent, std::vector<CSlot>& slots) {
    std::sort(slots.begin(), slots.end(),
              [](const CSlot& a, const CSlot& b) { return a.posSectors < b.posSectors; });
    const long long first = extent.startSector / extent.directory->getGrainSizeSectors();
    for (size_t i = 1; i < slots.size(); ++i) {
        if (slots[i - 1].posSectors + slots[i - 1].sizeSectors > slots[i].posSectors) {
            corrupt("overlap", extent.uri,
                    "grains " + text(first + slots[i - 1].grainIndex) + " and " +
                        text(first + slots[i].grainIndex) + " share sector " +
                        text(slots[i].posSectors));
        }
    }
}

void CDiskChecker::corrupt(const std::string& kind, const kz::CURI& file,
                           const std::string& message) {
    if (corruptions.size() < kMaxFindings) {
        corruptions.push_back({kind, kz::CLocalFileSystem::toLocalPath(file).toUTF8(), message});
    }
    ++corruptionCount;
}

void CDiskChecker::warn(const std::string& kind, const kz::CURI& file, const std::string& message) {
    warnings.push_back({kind, kz::CLocalFileSystem::toLocalPath(file).toUTF8(), message});
}

}  // namespace harlimg
