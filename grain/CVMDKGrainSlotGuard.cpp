#include "harl/grain/CVMDKGrainSlotGuard.h"

#include <algorithm>

namespace harl {

namespace {

constexpr long long kSectorSizeBytes = 512;
// Positions and lengths from a header are clamped here: far behind any file, and far from
// overflowing when added or turned into bytes.
constexpr long long kMaxSectors = 1LL << 50;

long long clampSectors(long long sectors) {
    return std::clamp(sectors, 0LL, kMaxSectors);
}

}  // namespace

CVMDKGrainSlotGuard::CVMDKGrainSlotGuard(long long grainSizeSectors, bool compressed,
                                         long long zeroedGrainEntry, long long dataEndBytes)
    : grainSizeSectors(grainSizeSectors),
      compressed(compressed),
      zeroedGrainEntry(zeroedGrainEntry),
      dataEndBytes(dataEndBytes) {
}

void CVMDKGrainSlotGuard::addMetadata(long long startSectors, long long lengthSectors) {
    const long long start = clampSectors(startSectors);
    const long long end = start + clampSectors(lengthSectors);
    if (end > start) {
        ranges.emplace_back(start, end);
        metadataEndSectors = std::max(metadataEndSectors, end);
        claimedEndSectors = std::max(claimedEndSectors, end);
    }
}

void CVMDKGrainSlotGuard::addTables(const kz::TBuffer<unsigned int>& positions,
                                    long long leadSectors, long long lengthSectors) {
    if (positions.getUsed() == 0) {
        return;
    }
    CTables added{
        std::vector<unsigned int>(positions.getData(), positions.getData() + positions.getUsed()),
        leadSectors, lengthSectors};
    std::sort(added.sortedPositions.begin(), added.sortedPositions.end());
    metadataEndSectors = std::max(metadataEndSectors, added.sortedPositions.back() + lengthSectors);
    tables.push_back(std::move(added));
}

void CVMDKGrainSlotGuard::noteSlot(long long posSectors, long long slotSizeSectors) {
    dataEndBytes = std::max(dataEndBytes, (posSectors + slotSizeSectors) * kSectorSizeBytes);
}

bool CVMDKGrainSlotGuard::overlapsMetadata(long long startSectors, long long endSectors) const {
    if (startSectors >= metadataEndSectors) {
        return false;
    }
    for (const auto& [start, end] : ranges) {
        if (start < endSectors && startSectors < end) {
            return true;
        }
    }
    // A table occupies [p - lead, p + length): it overlaps when start - length < p and
    // p < end + lead. The first position above start - length is the only candidate.
    for (const CTables& run : tables) {
        const auto first = std::upper_bound(run.sortedPositions.begin(), run.sortedPositions.end(),
                                            startSectors - run.lengthSectors,
                                            [](long long value, unsigned int position) {
                                                return value < static_cast<long long>(position);
                                            });
        if (first != run.sortedPositions.end() &&
            static_cast<long long>(*first) < endSectors + run.leadSectors) {
            return true;
        }
    }
    return false;
}

CVMDKGrainSlotGuard::Problem CVMDKGrainSlotGuard::checkSlot(long long posSectors,
                                                            long long slotSectors) const {
    if (!compressed && slotSectors < grainSizeSectors) {
        return BadSlotSize;
    }
    const long long endSectors = posSectors + slotSectors;
    if (endSectors * kSectorSizeBytes > dataEndBytes) {
        return PastDataEnd;
    }
    return overlapsMetadata(posSectors, endSectors) ? IntoMetadata : None;
}

void CVMDKGrainSlotGuard::checkTable(const unsigned int* positions, const unsigned short* slotSizes,
                                     int count, std::vector<Problem>& problems) {
    problems.clear();
    std::vector<CSlot> slots;
    slots.reserve(static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        const long long position = positions[i];
        if (position == 0 || position == zeroedGrainEntry) {
            continue;
        }
        // A compressed slot whose size did not reach the file is taken as its first sector.
        const long long slotSectors = std::max(
            slotSizes != nullptr ? slotSizes[i] : grainSizeSectors, compressed ? 1LL : 0LL);
        const Problem problem = checkSlot(position, slotSectors);
        if (problem == PastDataEnd) {
            claimedEndSectors = std::max(claimedEndSectors, position + slotSectors);
        }
        if (problem != None) {
            problems.resize(static_cast<size_t>(count), None);
            problems[static_cast<size_t>(i)] = problem;
            continue;
        }
        slots.push_back({position, position + slotSectors, i});
    }
    findSharedSlots(slots, count, problems);
}

void CVMDKGrainSlotGuard::findSharedSlots(std::vector<CSlot>& slots, int count,
                                          std::vector<Problem>& problems) {
    const auto byStart = [](const CSlot& a, const CSlot& b) {
        return a.startSectors < b.startSectors;
    };
    // Slots given out one after the other are in order already; the sort is for the others.
    if (!std::is_sorted(slots.begin(), slots.end(), byStart)) {
        std::sort(slots.begin(), slots.end(), byStart);
    }
    // The slot that reaches furthest so far is the one that a later start may overlap.
    const CSlot* furthest = nullptr;
    for (const CSlot& slot : slots) {
        if (furthest != nullptr && slot.startSectors < furthest->endSectors) {
            problems.resize(static_cast<size_t>(count), None);
            problems[static_cast<size_t>(slot.index)] = SharedSlot;
            problems[static_cast<size_t>(furthest->index)] = SharedSlot;
        }
        if (furthest == nullptr || slot.endSectors > furthest->endSectors) {
            furthest = &slot;
        }
    }
}

const char* CVMDKGrainSlotGuard::describe(Problem problem) {
    switch (problem) {
        case IntoMetadata:
            return "VMDK grain table entry points into the file's metadata.";
        case PastDataEnd:
            return "VMDK grain table entry points past the end of the file's grain data.";
        case SharedSlot:
            return "VMDK grain table entry points at a slot that another grain uses.";
        case BadSlotSize:
            return "VMDK grain table entry has an invalid slot size.";
        case None:
            break;
    }
    return "VMDK grain table entry is valid.";
}

}  // namespace harl
