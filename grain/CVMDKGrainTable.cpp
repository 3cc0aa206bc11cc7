#include "harl/grain/CVMDKGrainTable.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/grain/VMDKEntryArrays.h"

#include <exception>

namespace harl {

CVMDKGrainTable::CVMDKGrainTable(kz::IIOStream* stream, kz::IIOStream::Access access,
                                 long long grainSizeSectors, long long posSectors,
                                 long long redundantPosSectors, long long slotSizeTablePosSectors,
                                 int grainCount)
    : stream(stream),
      access(access),
      grainSizeSectors(grainSizeSectors),
      posSectors(posSectors),
      redundantPosSectors(redundantPosSectors),
      slotSizeTablePosSectors(slotSizeTablePosSectors),
      grainCount(grainCount) {
    // The directory refuses larger counts from a header; here the bound keeps every read of a
    // table to a size that a short file cannot turn into a large allocation.
    if (grainCount < 0 || grainCount > kMaxGrainCount) {
        throw kz::CInvalidArgError("CVMDKGrainTable constructor",
                                   "Invalid grain count: " + kz::String::number(grainCount),
                                   kz::CProps().add("uri", getURIText()));
    }
    if (access == kz::IIOStream::AccessReadWrite) {
        checkRedundantTableInFile();
    }
    readVMDKEntries(*stream, posSectors, grainCount, entries);
    if (slotSizeTablePosSectors > 0) {
        readVMDKEntries(*stream, slotSizeTablePosSectors, grainCount, slotSizes);
    }
}

CVMDKGrainTable::~CVMDKGrainTable() {
    try {
        flushDurablyToStream();
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKGrainTable", error, true);
    }
}

kz::String CVMDKGrainTable::getURIText() {
    return stream->getURI().toString(true);
}

void CVMDKGrainTable::checkRedundantTableInFile() {
    // The redundant copy is only ever written. In a file this library made it lies inside the
    // file like every table; a corrupt entry must not make a flush write far behind the end and
    // grow the file by that much.
    if (redundantPosSectors <= 0) {
        return;
    }
    const long long redundantPosBytes = vmdkSectorsToBytesSaturated(redundantPosSectors);
    if (redundantPosBytes > stream->getLength() - grainCount * 4LL) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK redundant grain table lies beyond the end of the file "
                           "(position: " +
                               kz::String::number(redundantPosSectors) + " sectors).",
                           kz::CProps().add("uri", getURIText()));
    }
}

void CVMDKGrainTable::checkGrainIndex(const char* where, long long grainIndex) {
    if (grainIndex < 0 || grainIndex >= grainCount) {
        throw kz::CInvalidArgError(where, "Invalid grain index: " + kz::String::number(grainIndex),
                                   kz::CProps().add("uri", getURIText()));
    }
}

void CVMDKGrainTable::checkEntryWidths(long long posSectors, long long slotSizeSectors) {
    // Callers keep within the widths of the entries; a value that does not fit would be cut
    // silently, so it is refused as a bad argument instead.
    if (posSectors < 0 || posSectors > kMaxPosSectors) {
        throw kz::CInvalidArgError("CVMDKGrainTable::setGrainInfo",
                                   "Invalid grain position: " + kz::String::number(posSectors),
                                   kz::CProps().add("uri", getURIText()));
    }
    if (slotSizeSectors > kMaxSlotSizeSectors) {
        throw kz::CInvalidArgError(
            "CVMDKGrainTable::setGrainInfo",
            "Invalid grain slot size - it does not fit a slot-size table entry (slot size: " +
                kz::String::number(slotSizeSectors) + ")",
            kz::CProps().add("uri", getURIText()));
    }
}

void CVMDKGrainTable::getGrainInfo(long long grainIndex, long long& posSectors,
                                   long long& slotSizeSectors) {
    checkGrainIndex("CVMDKGrainTable::getGrainInfo", grainIndex);
    const size_t index = static_cast<size_t>(grainIndex);
    if (!problems.empty() && problems[index] != CVMDKGrainSlotGuard::None) {
        throwRefused(grainIndex);
    }
    posSectors = entries[index];
    if (posSectors == 0) {
        slotSizeSectors = 0;
    } else if (getSlotSizeTrackingEnabled()) {
        slotSizeSectors = slotSizes[index];
    } else {
        slotSizeSectors = grainSizeSectors;
    }
}

void CVMDKGrainTable::setGrainInfo(long long grainIndex, long long posSectors,
                                   long long slotSizeSectors) {
    const char* where = "CVMDKGrainTable::setGrainInfo";
    checkGrainIndex(where, grainIndex);
    const bool tracking = getSlotSizeTrackingEnabled();
    if (!tracking && slotSizeSectors != grainSizeSectors) {
        throw kz::CInvalidArgError(
            where,
            "Invalid grain slot size - it must equal the grain size (slot size: " +
                kz::String::number(slotSizeSectors) +
                ", grain size: " + kz::String::number(grainSizeSectors) + ")",
            kz::CProps().add("uri", getURIText()));
    }
    if (slotSizeSectors <= 0) {
        throw kz::CInvalidArgError(where, "Invalid grain slot size.",
                                   kz::CProps()
                                       .add("uri", getURIText())
                                       .add("slotSizeSectors", slotSizeSectors)
                                       .add("grainSizeSectors", grainSizeSectors)
                                       .add("posSectors", posSectors));
    }
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not "
            "opened for writing.");
    }
    checkEntryWidths(posSectors, tracking ? slotSizeSectors : 0);
    const size_t index = static_cast<size_t>(grainIndex);
    if (!problems.empty()) {
        problems[index] = CVMDKGrainSlotGuard::None;
    }
    if (static_cast<long long>(entries[index]) != posSectors) {
        entries[index] = static_cast<unsigned int>(posSectors);
        entriesDirty = true;
    }
    if (tracking && static_cast<long long>(slotSizes[index]) != slotSizeSectors) {
        slotSizes[index] = static_cast<unsigned short>(slotSizeSectors);
        slotSizesDirty = true;
    }
}

void CVMDKGrainTable::refuseBadEntries(CVMDKGrainSlotGuard& guard) {
    guard.checkTable(entries.getData(),
                     getSlotSizeTrackingEnabled() ? slotSizes.getData() : nullptr, grainCount,
                     problems);
}

void CVMDKGrainTable::throwRefused(long long grainIndex) {
    const size_t index = static_cast<size_t>(grainIndex);
    throw kz::CIOError(kz::CIOError::CorruptFormat, CVMDKGrainSlotGuard::describe(problems[index]),
                       kz::CProps()
                           .add("uri", getURIText())
                           .add("tablePosSectors", posSectors)
                           .add("grainIndex", grainIndex)
                           .add("posSectors", static_cast<long long>(entries[index]))
                           .add("slotSizeSectors", getSlotSizeTrackingEnabled()
                                                       ? static_cast<long long>(slotSizes[index])
                                                       : grainSizeSectors));
}

void CVMDKGrainTable::flushChangesToStream() {
    flushEntriesToStream();
    flushSlotSizesToStream();
}

void CVMDKGrainTable::flushDurablyToStream() {
    if (entriesDirty) {
        stream->flush();
        flushEntriesToStream();
    }
    if (slotSizesDirty) {
        stream->flush();
        flushSlotSizesToStream();
    }
}

void CVMDKGrainTable::flushEntriesToStream() {
    if (entriesDirty) {
        writeVMDKEntries(*stream, posSectors, entries);
        if (redundantPosSectors > 0) {
            writeVMDKEntries(*stream, redundantPosSectors, entries);
        }
        entriesDirty = false;
    }
}

void CVMDKGrainTable::flushSlotSizesToStream() {
    if (slotSizesDirty) {
        writeVMDKEntries(*stream, slotSizeTablePosSectors, slotSizes);
        slotSizesDirty = false;
    }
}

}  // namespace harl
