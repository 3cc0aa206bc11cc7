#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/TBuffer.h"

#include <vector>

namespace harl {

// Where an extent file's metadata and grain data lie, so that the entries of a grain table can
// be checked when the table is read, before any grain is read or written through them. A file
// that another writer made, or that was damaged, may hold entries that point into the header,
// the descriptor, a directory or a table, behind the end of the data, or at the slot of another
// grain: used as they stand, a read would return metadata as disk data and a write would
// overwrite it.
//
// An entry passes when its slot (its position and its slot length: the slot-size entry with
// slot-size tracking, else the grain size) lies wholly in front of the end of the data, touches
// no metadata range and no slot of another entry of the same table. A slot shorter than a grain
// in an uncompressed extent fails too; a compressed slot-size entry of 0, which a power cut
// between a table and its slot-size table leaves, counts as one sector. Entries of 0
// (unallocated) and, in a file that uses them, the mark of a zeroed grain are no slots and pass.
//
// The cost stays away from the grain path: the metadata is kept as a few fixed ranges and, for
// the tables, sorted copies of the directories (as large as the directories themselves); an
// entry behind all metadata, as in every file of sane layout, is checked without a search, and
// a table's entries are checked against each other by one sort of at most the table's length.
// Slots that share sectors across two tables are not found: that would need a map of every slot
// of the file.
class CVMDKGrainSlotGuard : public kz::CBase {
public:
    // Why an entry fails; None for one that passes.
    enum Problem : unsigned char { None, IntoMetadata, PastDataEnd, SharedSlot, BadSlotSize };

    // `dataEndBytes`: where the data ends, in bytes (the file's length, less a trail that the
    // file ends with). `zeroedGrainEntry`: the entry that marks a zeroed grain, or 0 for none.
    CVMDKGrainSlotGuard(long long grainSizeSectors, bool compressed, long long zeroedGrainEntry,
                        long long dataEndBytes);

    // A run of metadata sectors. Values beyond any file are harmless, and saturate.
    void addMetadata(long long startSectors, long long lengthSectors);

    // Tables at the positions a directory holds (entries of 0 included, as they stand), each
    // `leadSectors` of marker in front of the position and `lengthSectors` behind it.
    void addTables(const kz::TBuffer<unsigned int>& positions, long long leadSectors,
                   long long lengthSectors);

    // A slot that this extent gave out: the data now reaches at least to its end.
    void noteSlot(long long posSectors, long long slotSizeSectors);

    // Checks the `count` entries of one table; `slotSizes` is null without slot-size tracking.
    // `problems` is left empty when every entry passes, else gets one Problem per entry.
    void checkTable(const unsigned int* positions, const unsigned short* slotSizes, int count,
                    std::vector<Problem>& problems);

    // The end, in sectors, of everything the file is known to claim: its metadata and the
    // slots of the entries refused so far for lying behind the end of the data. A new slot must
    // start at or behind it, or a table or a refused entry would later point into the new
    // grain; in a sane file it lies in front of the end of the data.
    long long getClaimedEndSectors() const { return claimedEndSectors; }

    // The text of an error for `problem`.
    static const char* describe(Problem problem);

private:
    struct CTables {
        std::vector<unsigned int> sortedPositions;
        long long leadSectors;
        long long lengthSectors;
    };

    struct CSlot {
        long long startSectors;
        long long endSectors;
        int index;
    };

    bool overlapsMetadata(long long startSectors, long long endSectors) const;
    Problem checkSlot(long long posSectors, long long slotSectors) const;
    static void findSharedSlots(std::vector<CSlot>& slots, int count,
                                std::vector<Problem>& problems);

    long long grainSizeSectors;
    bool compressed;
    long long zeroedGrainEntry;
    long long dataEndBytes;
    // Ranges of [start, end) sectors; metadataEndSectors is the largest end of all metadata.
    std::vector<std::pair<long long, long long>> ranges;
    std::vector<CTables> tables;
    long long metadataEndSectors = 0;
    long long claimedEndSectors = 0;
};

}  // namespace harl
