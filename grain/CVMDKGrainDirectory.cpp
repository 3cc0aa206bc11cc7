#include "harl/grain/CVMDKGrainDirectory.h"

#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/grain/CVMDKGrainSlotGuard.h"
#include "harl/grain/CVMDKGrainTable.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEntryArrays.h"

#include <algorithm>
#include <climits>
#include <exception>

namespace harl {

namespace {

constexpr long long kDirectoryEntrySizeBytes = 4;
constexpr long long kGrainTableEntrySizeBytes = 4;
constexpr long long kSlotSizeEntrySizeBytes = 2;

// Whole sectors that `count` directory or table entries of `entrySizeBytes` take.
long long sectorsForEntries(long long count, long long entrySizeBytes) {
    return (count * entrySizeBytes + kSectorSizeBytes - 1) / kSectorSizeBytes;
}

}  // namespace

CVMDKGrainDirectory::CVMDKGrainDirectory(kz::IIOStream* stream, kz::IIOStream::Access access,
                                         long long posSectors, long long redundantPosSectors,
                                         long long capacitySectors, long long grainSizeSectors,
                                         int grainsPerTable, bool compressed,
                                         CVMDKGrainTableCache* grainTableCache)
    : stream(stream),
      access(access),
      grainTableCache(grainTableCache),
      posSectors(posSectors),
      redundantPosSectors(redundantPosSectors),
      grainSizeSectors(grainSizeSectors),
      grainsPerTable(grainsPerTable),
      compressed(compressed),
      capacitySectors(capacitySectors) {
    if (stream == nullptr || grainTableCache == nullptr) {
        throw kz::CInvalidArgError("CVMDKGrainDirectory constructor",
                                   "stream and grainTableCache must not be NULL");
    }
    checkGeometry();
    extentGrainCount = calcExtentGrainCount(capacitySectors, grainSizeSectors);
    grainTableCount = calcExtentGrainTableCount(capacitySectors, grainSizeSectors, grainsPerTable);
    readDirectories();
    findSlotDirectory();
    if (slotDirectoryPosSectors > 0) {
        readVMDKEntriesWithinLength(*stream, slotDirectoryPosSectors, grainTableCount,
                                    slotDirectory);
    } else if (compressed) {
        throw kz::CError("Slot size directory not found in compressed VMDK.", kz::String(), -1,
                         kz::CProps().add("uri", getURIText()));
    }
}

CVMDKGrainDirectory::~CVMDKGrainDirectory() {
    try {
        flushChangesToStream();
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKGrainDirectory", error, true);
    }
    // Removed even after a failed flush: the keys hold this directory's address, and a later
    // directory at the same address must not meet these tables.
    try {
        grainTableCache->removeCachedTablesFromDirectory(this);
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKGrainDirectory", error, true);
    }
}

kz::String CVMDKGrainDirectory::getURIText() {
    return stream->getURI().toString(true);
}

void CVMDKGrainDirectory::checkGeometry() {
    // These values come from the header; they divide and size everything below, so a value no
    // extent can have is a corrupt file. The table size ceiling is the table's own.
    if (capacitySectors < 0 || grainSizeSectors <= 0 || grainsPerTable <= 0 ||
        grainsPerTable > CVMDKGrainTable::kMaxGrainCount) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK file has an invalid grain geometry (capacity: " +
                               kz::String::number(capacitySectors) +
                               " sectors, grain size: " + kz::String::number(grainSizeSectors) +
                               " sectors, grains per table: " + kz::String::number(grainsPerTable) +
                               ").",
                           kz::CProps().add("uri", getURIText()));
    }
}

long long CVMDKGrainDirectory::calcExtentGrainCount(long long capacitySectors,
                                                    long long grainSizeSectors) {
    // The same as (capacity + grainSize - 1) / grainSize, without the sum that could overflow.
    return capacitySectors / grainSizeSectors + (capacitySectors % grainSizeSectors > 0 ? 1 : 0);
}

long long CVMDKGrainDirectory::calcExtentGrainTableCount(long long capacitySectors,
                                                         long long grainSizeSectors,
                                                         int grainsPerTable) {
    const long long grainCount = calcExtentGrainCount(capacitySectors, grainSizeSectors);
    return grainCount / grainsPerTable + (grainCount % grainsPerTable > 0 ? 1 : 0);
}

void CVMDKGrainDirectory::readDirectories() {
    // The count comes from the header: each read first proves that the directory fits in the
    // file, so that a header claiming a huge extent in a small file costs no memory.
    readVMDKEntriesWithinLength(*stream, posSectors, grainTableCount, directory);
    if (redundantPosSectors > 0) {
        readVMDKEntriesWithinLength(*stream, redundantPosSectors, grainTableCount,
                                    redundantDirectory);
    }
}

long long CVMDKGrainDirectory::findSlotDirectoryMarkerSector() const {
    if (grainTableCount == 0) {
        const long long last = std::max(posSectors, redundantPosSectors);
        return last < LLONG_MAX ? last + 1 : LLONG_MAX;
    }
    const size_t lastIndex = static_cast<size_t>(grainTableCount - 1);
    unsigned int lastTableSectors = directory[lastIndex];
    if (redundantDirectory.getUsed() > 0) {
        lastTableSectors = std::max(lastTableSectors, redundantDirectory[lastIndex]);
    }
    return lastTableSectors + sectorsForEntries(grainsPerTable, kGrainTableEntrySizeBytes);
}

void CVMDKGrainDirectory::findSlotDirectory() {
    const long long markerSector = findSlotDirectoryMarkerSector();
    unsigned char sector[kSectorSizeBytes];
    stream->seek(vmdkSectorsToBytesSaturated(markerSector));
    if (stream->readLax(sector, kSectorSizeBytes) < kSectorSizeBytes) {
        return;
    }
    long long valueSectors = 0;
    if (!isVMDKMarker(sector, VMDKMarkerSlotSizeDirectory, &valueSectors)) {
        return;
    }
    const long long expectedSectors = sectorsForEntries(grainTableCount, kDirectoryEntrySizeBytes);
    if (valueSectors != expectedSectors) {
        kz::logWarning(
            "Found VMDK marker for kzSlotDirectory, but the slot directory size does not match "
            "the expected value (actual: " +
            kz::String::number(valueSectors) +
            ", expected: " + kz::String::number(expectedSectors) + ", uri: '" + getURIText() +
            "'). Ignoring the slot directory.");
        return;
    }
    slotDirectoryPosSectors = markerSector + 1;
}

kz::P<CVMDKGrainTable> CVMDKGrainDirectory::getGrainTable(long long tableIndex) {
    if (tableIndex < 0 || tableIndex >= grainTableCount) {
        throw kz::CInvalidArgError("CVMDKGrainDirectory::getGrainTable",
                                   "invalid table index: " + kz::String::number(tableIndex),
                                   kz::CProps().add("uri", getURIText()));
    }
    kz::P<CVMDKGrainTable> table = grainTableCache->getCachedTable(this, tableIndex);
    if (table) {
        return table;
    }
    return readTableBatch(tableIndex);
}

void CVMDKGrainDirectory::getGrainTablePositions(long long tableIndex, long long& posSectors,
                                                 long long& redundantPosSectors) const {
    if (tableIndex < 0 || tableIndex >= grainTableCount) {
        throw kz::CInvalidArgError("CVMDKGrainDirectory::getGrainTablePositions",
                                   "invalid table index: " + kz::String::number(tableIndex));
    }
    const size_t at = static_cast<size_t>(tableIndex);
    posSectors = directory[at];
    redundantPosSectors = redundantDirectory.getUsed() > 0 ? redundantDirectory[at] : 0;
}

kz::P<CVMDKGrainTable> CVMDKGrainDirectory::readTable(long long tableIndex) {
    const size_t at = static_cast<size_t>(tableIndex);
    kz::P<CVMDKGrainTable> table(
        new CVMDKGrainTable(stream.get(), access, grainSizeSectors, directory[at],
                            redundantDirectory.getUsed() > 0 ? redundantDirectory[at] : 0,
                            slotDirectory.getUsed() > 0 ? slotDirectory[at] : 0, grainsPerTable));
    if (slotGuard) {
        table->refuseBadEntries(*slotGuard);
    }
    return table;
}

bool CVMDKGrainDirectory::tableFitsInFile(long long tableIndex) {
    // A neighbour that lies behind the end of a corrupt or cut file is passed over here, which
    // costs less than the error its read would throw.
    const size_t at = static_cast<size_t>(tableIndex);
    const long long length = stream->getLength();
    const auto fits = [&](unsigned int posSectors, long long entryBytes) {
        return vmdkSectorsToBytesSaturated(posSectors) <= length - grainsPerTable * entryBytes;
    };
    return fits(directory[at], kGrainTableEntrySizeBytes) &&
           (slotDirectory.getUsed() == 0 || fits(slotDirectory[at], kSlotSizeEntrySizeBytes));
}

kz::P<CVMDKGrainTable> CVMDKGrainDirectory::readTableBatch(long long tableIndex) {
    // Batches are aligned, so that neighbouring misses share one; a sequential walk thus finds
    // 31 of each 32 tables cached.
    const long long start = tableIndex - tableIndex % kTableBatchSize;
    const long long end = std::min(start + kTableBatchSize, grainTableCount);
    const kz::P<CVMDKGrainTable> result = readTable(tableIndex);
    for (long long index = start; index < end; ++index) {
        // A cached table may hold changes that are not on file yet: never replace it.
        if (index == tableIndex || grainTableCache->hasCachedTable(this, index)) {
            continue;
        }
        if (!tableFitsInFile(index)) {
            continue;
        }
        kz::P<CVMDKGrainTable> table;
        try {
            table = readTable(index);
        } catch (const kz::CError&) {
            // A neighbour that cannot be read stays out of the cache; its error comes when it
            // is asked for itself, and does not keep the tables around it from being read.
            continue;
        }
        // May evict other tables, which are written first; the limit runs between tables.
        grainTableCache->setCachedTable(this, index, table.get());
    }
    // The requested table goes in last, as the most recently used, so that its neighbours do
    // not evict it before the caller has used it: a change to a table outside the cache would
    // reach the file only through its destructor, where a failure cannot be reported.
    grainTableCache->setCachedTable(this, tableIndex, result.get());
    return result;
}

void CVMDKGrainDirectory::getGrainInfo(long long grainIndex, long long& posSectors,
                                       long long& slotSizeSectors) {
    getGrainTable(grainIndex / grainsPerTable)
        ->getGrainInfo(grainIndex % grainsPerTable, posSectors, slotSizeSectors);
}

void CVMDKGrainDirectory::setGrainInfo(long long grainIndex, long long posSectors,
                                       long long slotSizeSectors) {
    const long long tableIndex = grainIndex / grainsPerTable;
    const kz::P<CVMDKGrainTable> table = getGrainTable(tableIndex);
    table->setGrainInfo(grainIndex % grainsPerTable, posSectors, slotSizeSectors);
    // Only a cache of limit 0 holds no table; the change is then written at once, where a
    // failure reaches the caller.
    if (!grainTableCache->hasCachedTable(this, tableIndex)) {
        table->flushDurablyToStream();
    }
    if (slotGuard) {
        slotGuard->noteSlot(posSectors, slotSizeSectors);
    }
}

long long CVMDKGrainDirectory::getClaimedEndSectors() const {
    return slotGuard ? slotGuard->getClaimedEndSectors() : 0;
}

void CVMDKGrainDirectory::checkSlots(
    const std::vector<std::pair<long long, long long>>& fileMetadata, long long dataEndBytes,
    long long zeroedGrainEntry) {
    slotGuard = kz::makeP<CVMDKGrainSlotGuard>(grainSizeSectors, compressed, zeroedGrainEntry,
                                               dataEndBytes);
    for (const auto& [start, end] : fileMetadata) {
        slotGuard->addMetadata(start, end - start);
    }
    // With markers, each directory and table has one in the sector in front of it.
    const long long marker = compressed ? 1 : 0;
    const long long directoryLength = sectorsForEntries(grainTableCount, kDirectoryEntrySizeBytes);
    slotGuard->addMetadata(posSectors - marker, directoryLength + marker);
    if (redundantPosSectors > 0) {
        slotGuard->addMetadata(redundantPosSectors - marker, directoryLength + marker);
    }
    const long long tableLength = sectorsForEntries(grainsPerTable, kGrainTableEntrySizeBytes);
    slotGuard->addTables(directory, marker, tableLength);
    slotGuard->addTables(redundantDirectory, marker, tableLength);
    if (slotDirectoryPosSectors > 0) {
        // The slot directory and its tables always stand behind markers.
        slotGuard->addMetadata(slotDirectoryPosSectors - 1, directoryLength + 1);
        slotGuard->addTables(slotDirectory, 1,
                             sectorsForEntries(grainsPerTable, kSlotSizeEntrySizeBytes));
    }
}

void CVMDKGrainDirectory::flushChangesToStream() {
    // Positions first and durable, slot sizes after them: a slot size that reached the file
    // without its position would make the old slot look larger than it is.
    bool slotSizesDirty = false;
    grainTableCache->visitCachedTablesFromDirectory(this, [&](CVMDKGrainTable& table) {
        slotSizesDirty = slotSizesDirty || table.hasUnflushedSlotSizes();
        table.flushEntriesToStream();
    });
    if (!slotSizesDirty) {
        return;
    }
    stream->flush();
    grainTableCache->visitCachedTablesFromDirectory(
        this, [](CVMDKGrainTable& table) { table.flushSlotSizesToStream(); });
}

}  // namespace harl
