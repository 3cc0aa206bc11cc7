#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"

#include <utility>
#include <vector>

namespace harl {

class CVMDKGrainSlotGuard;
class CVMDKGrainTable;
class CVMDKGrainTableCache;

// The top of an extent's grain metadata: the grain directory held in memory, the slot-size
// directory when the file has one, and the way from an extent grain index to a grain table and
// a place in it. Entry i of a directory is a fixed pointer: every table is allocated when the
// extent is created, so the directory never changes and never writes its own arrays. All
// changes happen in the tables, which live in a CVMDKGrainTableCache that the directories of a
// disk share; the directory's flush is the flush of its cached tables.
//
// Directories as read, little-endian, sectors of 512 bytes; grainTableCount is
// calcExtentGrainTableCount(capacitySectors, grainSizeSectors, grainsPerTable):
//
// | structure       | place in the file                 | content                               |
// |-----------------|-----------------------------------|---------------------------------------|
// | grain directory | posSectors x 512                  | grainTableCount unsigned 32-bit       |
// |                 |                                   | entries: entry i is the sector of     |
// |                 |                                   | grain table i                         |
// | redundant       | redundantPosSectors x 512, when   | the same layout, pointing at the      |
// | directory       | that value is above 0             | redundant copies of the tables        |
// | slot directory  | markerSector (below)              | one marker sector (VMDKMarkers.h) of  |
// | marker          |                                   | type VMDKMarkerSlotSizeDirectory; its |
// |                 |                                   | value is the slot directory's length  |
// |                 |                                   | in sectors, (grainTableCount x 4 +    |
// |                 |                                   | 511) / 512                            |
// | slot directory  | markerSector + 1                  | grainTableCount unsigned 32-bit       |
// |                 |                                   | entries, zero-filled to a whole       |
// |                 |                                   | sector: entry i is the sector of      |
// |                 |                                   | slot-size table i                     |
//
// markerSector is the sector behind the last grain table: the greater (unsigned) of the last
// entries of the two directories plus the length of a table, (grainsPerTable x 4 + 511) / 512
// sectors; for an extent without tables, the greater of the two directory positions plus 1.
//
// The slot directory is this library's own addition and has no field in the extent header: it
// is found only by its place and its marker. Without it a file is a valid uncompressed extent
// and an invalid compressed one. An uncompressed extent that has one gets slot-size tracking
// in its tables all the same.
//
// Counts and positions come from a header that another writer may have made: the geometry is
// checked before it divides anything, and a directory that cannot fit between its position and
// the end of the file fails before its buffer is sized. A directory entry is read as it stands;
// one that points past the end fails when that table is read, with the stream's own error. The
// entries of a table are checked as it is read once the owner has said where the rest of the
// file's metadata and the end of its data lie (checkSlots).
//
// Every operation that touches the file seeks first; the stream's position is shared with the
// tables, the allocator and the grain of the extent. Not thread-safe.
class CVMDKGrainDirectory : public kz::CBase {
public:
    // Tables read together on a miss: an aligned batch, so that neighbouring misses share it.
    static constexpr int kTableBatchSize = 32;

    // Reads the directory, the redundant directory if `redundantPosSectors` is above 0, and
    // looks for the slot directory behind its marker. A wrong slot directory length is logged as
    // a warning and the slot directory ignored. Throws, in this order: kz::CIOError code 5 for a
    // geometry no file can have (a negative capacity, a grain size or table size of 0 or less,
    // more than CVMDKGrainTable::kMaxGrainCount grains per table); the stream's errors, and
    // kz::CIOError code 4 for a directory that cannot fit in the file; kz::CError "Slot size
    // directory not found in compressed VMDK." for a compressed extent without slot directory.
    CVMDKGrainDirectory(kz::IIOStream* stream, kz::IIOStream::Access access, long long posSectors,
                        long long redundantPosSectors, long long capacitySectors,
                        long long grainSizeSectors, int grainsPerTable, bool compressed,
                        CVMDKGrainTableCache* grainTableCache);

    // Flushes its cached tables, then removes them from the cache, so that no later directory
    // meets them. A failure goes to kz::onExceptionInDestructorIgnored; the tables are removed
    // all the same, and a dirty one then tries its own write once more as it is destroyed.
    ~CVMDKGrainDirectory() override;

    // Grains in an extent, a partial grain at the end counting as one. For a capacity of 0 or
    // more and a positive grain size; never overflows.
    static long long calcExtentGrainCount(long long capacitySectors, long long grainSizeSectors);

    // Tables in an extent, a partial table counting as one. Same preconditions.
    static long long calcExtentGrainTableCount(long long capacitySectors,
                                               long long grainSizeSectors, int grainsPerTable);

    // The table with that index, out of the cache (which makes it the most recently used) or
    // read from the file with its batch. Never null; the reference keeps the table valid even
    // after the cache has evicted it. An index out of range throws kz::CInvalidArgError.
    kz::P<CVMDKGrainTable> getGrainTable(long long tableIndex);

    // The grain's position and slot length (CVMDKGrainTable::getGrainInfo). `grainIndex` counts
    // from the extent's first grain; only the table's own bound applies inside the last table.
    void getGrainInfo(long long grainIndex, long long& posSectors, long long& slotSizeSectors);

    // Records a grain's position and slot length in its table (CVMDKGrainTable::setGrainInfo).
    // The change stays in the cached table until it is flushed or evicted.
    void setGrainInfo(long long grainIndex, long long posSectors, long long slotSizeSectors);

    // Flushes the cached tables of this directory, in ascending table index: the grain tables,
    // then, if slot sizes changed, a flush of the stream and the slot-size tables, so that a
    // slot size never reaches the file before its position.
    void flushChangesToStream();

    // From now on each table read from the file is checked before it is used: an entry whose
    // slot reaches into metadata (this directory's own structures, the tables and
    // `fileMetadata`, ranges of [start, end) sectors), past `dataEndBytes`, or into another
    // slot of its table is refused with kz::CIOError code 5 (CVMDKGrainSlotGuard). New slots
    // recorded through setGrainInfo move the end of the data. `zeroedGrainEntry` is the entry
    // that marks a zeroed grain, 0 for none. Call it before the first look-up.
    void checkSlots(const std::vector<std::pair<long long, long long>>& fileMetadata,
                    long long dataEndBytes, long long zeroedGrainEntry);

    // Where the file's known claims end, in sectors (CVMDKGrainSlotGuard::getClaimedEndSectors);
    // 0 before checkSlots.
    long long getClaimedEndSectors() const;

    // True when the file has a slot directory of the right length.
    bool getHaveSlotSizeInfo() const { return slotDirectory.getUsed() > 0; }

    long long getExtentGrainCount() const { return extentGrainCount; }

    long long getGrainTableCount() const { return grainTableCount; }

    int getGrainsPerTable() const { return grainsPerTable; }

    long long getGrainSizeSectors() const { return grainSizeSectors; }

    // True for an extent of compressed grains, which requires a slot directory.
    bool getCompressed() const { return compressed; }

    // The slot directory's sector, 0 when there is none.
    long long getSlotDirectoryPosSectors() const { return slotDirectoryPosSectors; }

    // Where table `tableIndex` and its redundant copy lie, as the two directories say, in
    // sectors; the redundant position is 0 for a file without a redundant directory. For a
    // checker that compares the copies. An index out of range throws kz::CInvalidArgError.
    void getGrainTablePositions(long long tableIndex, long long& posSectors,
                                long long& redundantPosSectors) const;

private:
    void checkGeometry();
    void readDirectories();
    long long findSlotDirectoryMarkerSector() const;
    void findSlotDirectory();
    // Reads one table and checks its entries; throws what the table and the stream throw.
    kz::P<CVMDKGrainTable> readTable(long long tableIndex);
    // True when the table and its slot-size table lie within the file.
    bool tableFitsInFile(long long tableIndex);
    kz::P<CVMDKGrainTable> readTableBatch(long long tableIndex);
    kz::String getURIText();

    kz::P<kz::IIOStream> stream;
    kz::IIOStream::Access access;
    kz::P<CVMDKGrainTableCache> grainTableCache;
    long long posSectors;
    long long redundantPosSectors;
    long long slotDirectoryPosSectors = 0;
    long long grainSizeSectors;
    int grainsPerTable;
    bool compressed;
    long long extentGrainCount = 0;
    long long grainTableCount = 0;
    kz::TBuffer<unsigned int> directory;
    kz::TBuffer<unsigned int> redundantDirectory;
    kz::TBuffer<unsigned int> slotDirectory;
    long long capacitySectors;
    // Null until checkSlots.
    kz::P<CVMDKGrainSlotGuard> slotGuard;
};

}  // namespace harl
