#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTable.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/GrainMetadataLayout.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <tuple>

namespace {

using harl::CVMDKGrainDirectory;
using harl::CVMDKGrainTableCache;

constexpr long long kGrainSectors = 8;
constexpr int kPerTable = 128;  // one sector per grain table
constexpr long long kTables = 40;
// Five grains into the last table, the last of them partial.
constexpr long long kCapacitySectors = ((kTables - 1) * kPerTable + 5) * kGrainSectors - 3;
constexpr int kMaxGrains = harl::CVMDKGrainTable::kMaxGrainCount;

struct CVMDKGrainDirectoryTest : ::testing::Test {
    // The metadata of an extent of kTables tables behind a header sector.
    void layOut(harltest::CGrainMetadataOptions options = {}) {
        options.tableCount = kTables;
        options.grainsPerTable = kPerTable;
        stream->setLength(512);
        layout = harltest::layOutGrainMetadata(*stream, options);
        stream->writes.clear();
    }

    kz::P<CVMDKGrainDirectory> open(bool compressed = false, long long capacity = kCapacitySectors,
                                    long long grainSectors = kGrainSectors,
                                    int perTable = kPerTable) {
        return new CVMDKGrainDirectory(stream.get(), kz::IIOStream::AccessReadWrite,
                                       layout.directorySectors, layout.redundantDirectorySectors,
                                       capacity, grainSectors, perTable, compressed, cache.get());
    }

    // What the construction throws, as "<code> <what()>".
    std::string openError(bool compressed = false, long long capacity = kCapacitySectors,
                          long long grainSectors = kGrainSectors, int perTable = kPerTable) {
        return harltest::errorText([&] { open(compressed, capacity, grainSectors, perTable); });
    }

    kz::P<harltest::CRecordingStream> stream{
        new harltest::CRecordingStream(kz::CURI("file:///x/a.vmdk"))};
    kz::P<CVMDKGrainTableCache> cache{new CVMDKGrainTableCache};
    harltest::CGrainMetadataLayout layout;
};

// Grains and tables are counted up, partial ones included, without overflow; the tables of an
// extent are read in batches aligned to the batch size, the short last one included.
TEST_F(CVMDKGrainDirectoryTest, ReadsTablesInAlignedBatches) {
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(128 * 8 + 1, 8, 128), 2);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(LLONG_MAX, 1, 1), LLONG_MAX);

    layOut();
    harltest::pokeUInt32(*stream, layout.tableSectors[33] * 512, 777);
    harltest::pokeUInt32(*stream, layout.tableSectors[39] * 512 + 4 * 127, 555);
    kz::P<CVMDKGrainDirectory> directory = open();
    EXPECT_EQ(directory->getExtentGrainCount(), 39 * kPerTable + 5);
    long long pos = 0, slot = 0;
    const int readsBefore = stream->readCount;
    directory->getGrainInfo(33 * kPerTable, pos, slot);
    EXPECT_EQ(std::pair(pos, slot), std::pair(777LL, kGrainSectors));
    EXPECT_EQ(cache->getCachedTableCount(), 8);  // 32 to 39
    // Past the extent's last grain but inside the last table: only the table's bound applies.
    directory->getGrainInfo(39 * kPerTable + 127, pos, slot);
    EXPECT_EQ(pos, 555);
    EXPECT_EQ(stream->readCount - readsBefore, 8);
    directory->getGrainTable(5);  // the batch from 0, which ends where the last one began
    EXPECT_EQ(cache->getCachedTableCount(), kTables);
    EXPECT_THROW(directory->getGrainTable(-1), kz::CInvalidArgError);
    EXPECT_THROW(directory->getGrainTable(kTables), kz::CInvalidArgError);
    EXPECT_THROW(directory->getGrainTablePositions(kTables, pos, slot), kz::CInvalidArgError);
    // A cache smaller than a batch still hands out the requested table.
    cache = new CVMDKGrainTableCache(0);
    EXPECT_NE(open()->getGrainTable(kTables - 1), nullptr);
}

// The slot directory's marker stands behind the last table of whichever directory reaches
// further, or behind the later directory when there are no tables. Counts and offsets that
// the file cannot hold are refused before they size anything.
TEST_F(CVMDKGrainDirectoryTest, FindsTheSlotDirectoryAndRefusesCorruptCountsAndOffsets) {
    layOut({.slotSizes = true});
    EXPECT_EQ(open(true)->getSlotDirectoryPosSectors(), layout.slotMarkerSector + 1);
    EXPECT_TRUE(open(false)->getGrainTable(0)->getSlotSizeTrackingEnabled());
    stream->setLength(512);
    layout =
        harltest::layOutGrainMetadata(*stream, {.grainsPerTable = kPerTable, .slotSizes = true});
    std::swap(layout.directorySectors, layout.redundantDirectorySectors);
    EXPECT_TRUE(open(true, kPerTable * kGrainSectors)->getHaveSlotSizeInfo());
    kz::TBuffer<unsigned char> zeros(512);
    zeros.fill(0);
    stream->seek(3 * 512);
    kz::CDataOutStream out(stream.get());
    harl::writeVMDKMarker(out, harl::VMDKMarkerSlotSizeDirectory, 0, zeros);
    layout.directorySectors = 2;
    layout.redundantDirectorySectors = 1;
    EXPECT_EQ(open(true, 0)->getSlotDirectoryPosSectors(), 4);

    layOut({.slotSizes = true});
    // The ceilings are still a geometry: an empty extent, a table of kMaxGrainCount grains.
    EXPECT_EQ(open(false, 0)->getGrainTableCount(), 0);
    EXPECT_EQ(open(false, kCapacitySectors, kGrainSectors, kMaxGrains)->getGrainTableCount(), 2);
    for (auto [capacity, grainSectors, perTable] :
         {std::tuple{64LL, 8LL, 0}, {-1, 8, 128}, {64, 0, 128}, {64, 8, kMaxGrains + 1}}) {
        const std::string error = openError(false, capacity, grainSectors, perTable);
        EXPECT_EQ(error.find("5 VMDK file has an invalid grain geometry"), 0u) << error;
    }
    // An extent of 2^63 sectors in a file of 1 MiB: its directories are refused before they
    // are sized.
    stream->setLength(1 << 20);
    const std::string endOfData = "4 Unexpected end of data [uri=file:///x/a.vmdk]";
    EXPECT_EQ(openError(false, LLONG_MAX, 1, 1), endOfData);
    layout.redundantDirectorySectors = LLONG_MAX / 2;
    EXPECT_EQ(openError(), endOfData);

    layOut();  // the file ends where the slot directory's marker would stand
    EXPECT_FALSE(open(false)->getHaveSlotSizeInfo());
    EXPECT_EQ(openError(true),
              "-1 Slot size directory not found in compressed VMDK. [uri=file:///x/a.vmdk]");
    // A directory that ends where the file does fits.
    stream->setLength(layout.directorySectors * 512 + kTables * 4);
    EXPECT_EQ(open()->getGrainTableCount(), kTables);
    layOut({.slotSizes = true});  // a slot directory cut off behind its marker
    stream->setLength((layout.slotMarkerSector + 1) * 512);
    EXPECT_EQ(openError(true)[0], '4');
}

// A directory that goes flushes its tables and takes them out of the shared cache, also when
// the flush fails, which is only logged.
TEST_F(CVMDKGrainDirectoryTest, DestructorFlushesThenRemovesItsTablesOnly) {
    layOut();
    kz::P<CVMDKGrainDirectory> first = open();
    kz::P<CVMDKGrainDirectory> second = open();
    second->getGrainTable(0);
    first->setGrainInfo(1, 999, kGrainSectors);  // the same table index in both
    first = nullptr;
    EXPECT_EQ(stream->writes.size(), 2u);  // table 0 and its redundant copy
    EXPECT_EQ(cache->getCachedTableCount(), 32);
    second->setGrainInfo(2, 998, kGrainSectors);
    stream->failWritesFrom(0);
    harltest::CLogCapture log;
    second = nullptr;
    EXPECT_EQ(cache->getCachedTableCount(), 0);
    EXPECT_EQ(log.messages(kz::LogLevel::Error).size(), 2u);  // the directory's, the table's
}

}  // namespace
