#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/grain/CVMDKGrainSlotGuard.h"

#include <vector>

namespace harl {

// One grain table held in memory: it maps the grains of one stretch of an extent to their
// place in the extent file. It reads its entries when it is built, answers and records grain
// positions in memory, and writes its changes back when told to or when it is destroyed.
//
// Grain table, redundant grain table and slot-size table, little-endian, sectors of 512 bytes:
//
// | place in the file                          | size in bytes  | entry                        |
// |--------------------------------------------|----------------|------------------------------|
// | grain table at posSectors x 512            | grainCount x 4 | unsigned 32-bit              |
// | redundant table at redundantPosSectors x   | grainCount x 4 | the same bytes as the grain  |
// | 512, when that value is above 0            |                | table                        |
// | slot-size table at slotSizeTablePosSectors | grainCount x 2 | unsigned 16-bit              |
// | x 512, when that value is above 0          |                |                              |
//
// Grain table entry: the sector in the extent file of the grain's first byte. 0 means that the
// grain has no place in this extent (unallocated); every other value is a position, 1 included
// unless the header's flag bit 2 makes it the mark of a grain written as zeros
// (kVMDKZeroedGrainEntry; the extent tells). Slot-size table entry: the length in sectors of the
// slot, the run of sectors that belongs to the grain; it means something only beside a grain table
// entry that is not 0, and a new slot-size table holds zeros. So a grain lies below sector 2^32 and
// a slot is shorter than 2^16 sectors; the file size and the grain size keep callers within that,
// and setGrainInfo refuses a value that would not fit rather than cut it.
//
// The slot-size table is this library's own addition: a compressed grain takes a varying number
// of sectors, so the position alone does not say how much room the grain has. Slot-size
// tracking is on exactly when the table was built with a slot-size table position above 0.
//
// A table knows nothing of which grains of the disk it covers: indices count inside the table.
// CVMDKGrainDirectory creates every table and CVMDKGrainTableCache keeps them between uses; the
// library keeps one object per table, although the class copies member by member.
//
// Every operation that touches the file seeks first and leaves the shared stream's position
// somewhere else. Not thread-safe.
// The entry that marks a grain written as zeros in a file whose header has flag bit 2.
constexpr long long kVMDKZeroedGrainEntry = 1;

class CVMDKGrainTable : public kz::CBase {
public:
    // The largest grainCount a table accepts. Every known writer uses 512; the ceiling keeps a
    // table from a corrupt header at 16 KiB (8 KiB of slot sizes), so that a batch of 32 tables
    // and a full default cache of 1024 stay small whatever the header says.
    static constexpr int kMaxGrainCount = 4096;
    // The widths of the entries.
    static constexpr long long kMaxPosSectors = 0xffffffffLL;
    static constexpr long long kMaxSlotSizeSectors = 0xffff;

    // Stores its arguments and reads the grain table and, if `slotSizeTablePosSectors` is above
    // 0, the slot-size table; the redundant copy is never read. A short file fails with the
    // stream's own error (kz::CIOError code 4). `grainCount` from 0 to kMaxGrainCount, else
    // kz::CInvalidArgError. A writable table whose redundant copy would lie behind the end of
    // the file throws kz::CIOError code 5 before reading, since a flush would write there.
    CVMDKGrainTable(kz::IIOStream* stream, kz::IIOStream::Access access, long long grainSizeSectors,
                    long long posSectors, long long redundantPosSectors,
                    long long slotSizeTablePosSectors, int grainCount);

    // Writes what is dirty (flushDurablyToStream). A failure goes to
    // kz::onExceptionInDestructorIgnored and the changes that could not be written are lost.
    ~CVMDKGrainTable() override;

    // The grain's position (0: unallocated) and slot length: 0 for an unallocated grain, the
    // slot-size entry with tracking, else the grain size. A bad index throws
    // kz::CInvalidArgError; an entry that refuseBadEntries refused throws kz::CIOError code 5.
    void getGrainInfo(long long grainIndex, long long& posSectors, long long& slotSizeSectors);

    // Records a grain's position and slot length. Checks, in this order, before anything
    // changes: the index (kz::CInvalidArgError), without tracking a slot length other than the
    // grain size (kz::CInvalidArgError), a slot length of 0 or less (kz::CInvalidArgError), a
    // table opened read-only (internal kz::CError); then a position or, with tracking, a slot
    // length too wide for its entry (kz::CInvalidArgError). Values equal to those held change
    // nothing.
    void setGrainInfo(long long grainIndex, long long posSectors, long long slotSizeSectors);

    // Writes, in this order, the dirty grain table, its redundant copy and the dirty slot-size
    // table, without a write barrier. A dirty flag is cleared only after all of its writes
    // have returned, so after a failure the next flush writes them again. A clean table touches
    // neither the file nor the stream's position.
    void flushChangesToStream();

    // The two halves of flushChangesToStream: the grain table with its redundant copy, and the
    // slot-size table. A slot-size entry must not become durable before the position it goes
    // with, or a rewrite in place could take the old slot for a larger one; so a flush of
    // many tables writes the first halves, flushes the stream, then writes the second halves.
    void flushEntriesToStream();
    void flushSlotSizesToStream();

    bool hasUnflushedSlotSizes() const { return slotSizesDirty; }

    // Writes what is dirty outside a flush of the extent, as when the cache evicts the table:
    // first a flush of the stream, so that the grains that new entries point at are durable
    // before them, then the grain table, and with dirty slot sizes another flush and the
    // slot-size table. Throws what the stream throws; what was not written stays dirty.
    void flushDurablyToStream();

    // Checks every entry with `guard`; an entry that fails is refused from now on, until
    // setGrainInfo gives the grain a new place. The entries themselves stay as they are.
    void refuseBadEntries(CVMDKGrainSlotGuard& guard);

    bool hasUnflushedChanges() const { return entriesDirty || slotSizesDirty; }

    bool getSlotSizeTrackingEnabled() const { return slotSizes.getUsed() > 0; }

private:
    void checkGrainIndex(const char* where, long long grainIndex);
    void checkEntryWidths(long long posSectors, long long slotSizeSectors);
    void checkRedundantTableInFile();
    [[noreturn]] void throwRefused(long long grainIndex);
    kz::String getURIText();

    kz::P<kz::IIOStream> stream;
    kz::IIOStream::Access access;
    long long grainSizeSectors;
    long long posSectors;
    long long redundantPosSectors;
    long long slotSizeTablePosSectors;
    int grainCount;
    kz::TBuffer<unsigned int> entries;
    bool entriesDirty = false;
    kz::TBuffer<unsigned short> slotSizes;
    bool slotSizesDirty = false;
    // Empty when no entry is refused, else the problem of each entry.
    std::vector<CVMDKGrainSlotGuard::Problem> problems;
};

}  // namespace harl
