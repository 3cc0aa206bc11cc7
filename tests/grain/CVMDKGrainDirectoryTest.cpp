#include "foundation/kz/CError.h"
#include "foundation/kz/CIOError.h"
#include "foundation/kz/CInvalidArgError.h"
#include "grain/CVMDKGrainDirectory.h"
#include "grain/CVMDKGrainTable.h"
#include "grain/CVMDKGrainTableCache.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/GrainMetadataLayout.h"
#include <gtest/gtest.h>

#include <climits>
#include <iterator>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

using harl::CVMDKGrainDirectory;
using harl::CVMDKGrainTable;
using harl::CVMDKGrainTableCache;
using harltest::CGrainMetadataOptions;

constexpr long long kGrainSectors = 8;
constexpr int kPerTable = 128;  // one sector per grain table
constexpr long long kTables = 40;
// Five grains into the last table, and a partial grain at the end.
constexpr long long kCapacitySectors = ((kTables - 1) * kPerTable + 5) * kGrainSectors - 3;
const kz::String kURI = "file:///x/a.vmdk";

struct CVMDKGrainDirectoryTest : ::testing::Test {
    // An extent's metadata behind a header sector.
    harltest::CGrainMetadataLayout layOut(CGrainMetadataOptions options = {}) {
        options.tableCount = kTables;
        options.grainsPerTable = kPerTable;
        stream->setLength(512);
        layout = harltest::layOutGrainMetadata(*stream, options);
        stream->writes.clear();
        return layout;
    }

    kz::P<CVMDKGrainDirectory> open(bool compressed = false, long long capacity = kCapacitySectors,
                                    long long grainSectors = kGrainSectors,
                                    int perTable = kPerTable) {
        return new CVMDKGrainDirectory(stream.get(), kz::IIOStream::AccessReadWrite,
                                       layout.directorySectors, layout.redundantDirectorySectors,
                                       capacity, grainSectors, perTable, compressed, cache.get());
    }

    // The error a construction throws; the test fails when there is none.
    template <class Error = kz::CIOError>
    Error openError(bool compressed = false, long long capacity = kCapacitySectors,
                    long long grainSectors = kGrainSectors, int perTable = kPerTable) {
        try {
            open(compressed, capacity, grainSectors, perTable);
        } catch (const Error& error) {
            return error;
        }
        throw std::logic_error("the directory was built");
    }

    kz::P<harltest::CRecordingStream> stream{new harltest::CRecordingStream(kz::CURI(kURI))};
    kz::P<CVMDKGrainTableCache> cache{new CVMDKGrainTableCache};
    harltest::CGrainMetadataLayout layout;
};

TEST(CVMDKGrainDirectoryCountTest, CountsPartialGrainsAndTablesWithoutOverflow) {
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(0, 8), 0);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(8, 8), 1);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(9, 8), 2);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainCount(LLONG_MAX, 1), LLONG_MAX);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(128 * 8, 8, 128), 1);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(128 * 8 + 1, 8, 128), 2);
    EXPECT_EQ(CVMDKGrainDirectory::calcExtentGrainTableCount(LLONG_MAX, 1, 1), LLONG_MAX);
}

TEST_F(CVMDKGrainDirectoryTest, ReadsTablesInAlignedBatches) {
    layOut();
    harltest::pokeUInt32(*stream, layout.tableSectors[33] * 512, 777);
    harltest::pokeUInt32(*stream, layout.tableSectors[39] * 512 + 4 * 127, 555);
    kz::P<CVMDKGrainDirectory> directory = open();
    EXPECT_EQ(directory->getExtentGrainCount(), 39 * kPerTable + 5);
    EXPECT_EQ(directory->getGrainTableCount(), kTables);
    EXPECT_EQ(cache->getCachedTableCount(), 0);  // opening reads no table

    long long pos = 0, slot = 0;
    const int readsBefore = stream->readCount;
    directory->getGrainInfo(33 * kPerTable, pos, slot);
    EXPECT_EQ(pos, 777);
    EXPECT_EQ(slot, kGrainSectors);
    EXPECT_EQ(cache->getCachedTableCount(), 8);  // the short last batch, 32 to 39
    EXPECT_EQ(stream->readCount - readsBefore, 8);
    // Past the extent's last grain but inside the last table: only the table's bound applies.
    directory->getGrainInfo(39 * kPerTable + 127, pos, slot);
    EXPECT_EQ(pos, 555);
    EXPECT_EQ(stream->readCount - readsBefore, 8);

    for (long long bad : {-1LL, kTables}) {
        try {
            directory->getGrainTable(bad);
            FAIL() << bad;
        } catch (const kz::CInvalidArgError& error) {
            EXPECT_EQ(error.getWhere(), "CVMDKGrainDirectory::getGrainTable");
            EXPECT_EQ(error.getMessage(), "invalid table index: " + kz::String::number(bad));
            EXPECT_EQ(error.getProps().toString(), "uri=" + kURI);
        }
    }
    // A small negative grain index reaches table 0, which refuses it.
    try {
        directory->getGrainInfo(-1, pos, slot);
        FAIL();
    } catch (const kz::CInvalidArgError& error) {
        EXPECT_EQ(error.getMessage(), "Invalid grain index: -1");
    }
    EXPECT_EQ(cache->getCachedTableCount(), kTables);
    const int walkReads = stream->readCount;
    for (long long grain = 0; grain < directory->getExtentGrainCount(); ++grain) {
        directory->getGrainInfo(grain, pos, slot);
    }
    EXPECT_EQ(stream->readCount, walkReads);

    // A cache smaller than a batch still hands out the requested table.
    cache = new CVMDKGrainTableCache(0);
    EXPECT_NE(open()->getGrainTable(kTables - 1), nullptr);
    EXPECT_EQ(cache->getCachedTableCount(), 0);
}

TEST_F(CVMDKGrainDirectoryTest, FindsTheSlotDirectoryBehindTheLastTable) {
    layOut({.slotSizes = true});
    kz::P<CVMDKGrainDirectory> directory = open(true);
    EXPECT_TRUE(directory->getHaveSlotSizeInfo());
    EXPECT_EQ(directory->getSlotDirectoryPosSectors(), layout.slotMarkerSector + 1);
    directory->setGrainInfo(kPerTable + 1, 4000, 3);
    directory->flushChangesToStream();
    EXPECT_EQ(stream->writes.back().positionBytes, layout.slotTableSectors[1] * 512);
    EXPECT_EQ(stream->getBuffer()[layout.slotTableSectors[1] * 512 + 2], 3);
    EXPECT_TRUE(open(false)->getGrainTable(0)->getSlotSizeTrackingEnabled());

    // With the two directories given the other way round, the marker is found behind the
    // tables of the one given as redundant, whose last entry is the greater.
    std::swap(layout.directorySectors, layout.redundantDirectorySectors);
    EXPECT_TRUE(open(true)->getHaveSlotSizeInfo());
}

TEST_F(CVMDKGrainDirectoryTest, SlotDirectoryMissingOrOfTheWrongLength) {
    layOut();  // the file ends where the marker would stand
    EXPECT_FALSE(open(false)->getHaveSlotSizeInfo());
    kz::CError missing = openError<kz::CError>(true);
    EXPECT_EQ(missing.getMessage(), "Slot size directory not found in compressed VMDK.");
    EXPECT_EQ(missing.getCode(), -1);
    EXPECT_EQ(missing.getProps().toString(), "uri=" + kURI);

    layOut({.slotSizes = true, .slotMarkerValue = 2});
    harltest::CLogCapture log;
    EXPECT_FALSE(open(false)->getHaveSlotSizeInfo());
    EXPECT_EQ(openError<kz::CError>(true).getMessage(), missing.getMessage());
    const kz::String warning =
        "Found VMDK marker for kzSlotDirectory, but the slot directory size does not match the "
        "expected value (actual: 2, expected: 1, uri: '" +
        kURI +
        "'). Ignoring the slot "
        "directory.";
    EXPECT_EQ(log.messages(kz::LogLevel::Warning), (std::vector<kz::String>{warning, warning}));
}

TEST_F(CVMDKGrainDirectoryTest, RefusesCorruptCountsAndOffsetsWithoutLargeAllocations) {
    layOut({.slotSizes = true});
    // Grain geometry that no extent can have.
    const std::pair<long long, long long> geometries[] = {{-1, 8}, {64, 0}, {64, -8}};
    for (auto [capacity, grainSectors] : geometries) {
        EXPECT_EQ(openError(false, capacity, grainSectors).getCode(), kz::CIOError::CorruptFormat);
    }
    for (int perTable : {0, -1, CVMDKGrainTable::kMaxGrainCount + 1}) {
        kz::CIOError error = openError(false, 64, 8, perTable);
        EXPECT_EQ(error.getCode(), kz::CIOError::CorruptFormat);
        EXPECT_EQ(error.getProps().toString(), "uri=" + kURI);
    }
    EXPECT_EQ(openError(false, 64, 8, 0).getMessage(),
              "VMDK file has an invalid grain geometry (capacity: 64 sectors, grain size: 8 "
              "sectors, grains per table: 0).");

    // An extent of an exabyte in a file of 1 MiB: its directory would take 128 GiB.
    stream->setLength(1 << 20);
    kz::CIOError huge = openError(false, 1LL << 51, 128, 512);
    EXPECT_EQ(huge.getCode(), kz::CIOError::EndOfData);
    EXPECT_EQ(huge.getMessage(), "Unexpected end of data");
    EXPECT_EQ(huge.getProps().toString(), "uri=" + kURI);
    EXPECT_EQ(openError(false, LLONG_MAX, 1, 1).getCode(), kz::CIOError::EndOfData);

    // Positions far behind the end, or before the start, fail in their read or seek.
    layout.redundantDirectorySectors = LLONG_MAX / 2;
    EXPECT_EQ(openError().getCode(), kz::CIOError::EndOfData);
    layout.redundantDirectorySectors = 0;
    layout.directorySectors = LLONG_MIN / 2;
    EXPECT_EQ(openError().getCode(), kz::CIOError::BadSeek);

    // A slot directory cut off behind its marker.
    layOut({.slotSizes = true});
    stream->setLength((layout.slotMarkerSector + 1) * 512);
    EXPECT_EQ(openError(true).getCode(), kz::CIOError::EndOfData);
}

TEST_F(CVMDKGrainDirectoryTest, TableBehindTheEndFailsOnlyWhenItIsRead) {
    layOut();
    harltest::pokeUInt32(*stream, layout.directorySectors * 512 + 4 * 3, 1u << 30);
    kz::P<CVMDKGrainDirectory> directory = open();
    EXPECT_NE(directory->getGrainTable(2), nullptr);  // its batch leaves table 3 out
    EXPECT_EQ(cache->getCachedTableCount(), 31);
    try {
        directory->getGrainTable(3);
        FAIL();
    } catch (const kz::CIOError& error) {
        EXPECT_EQ(error.getCode(), kz::CIOError::EndOfData);
    }
}

TEST_F(CVMDKGrainDirectoryTest, DestructorFlushesThenRemovesItsTablesOnly) {
    layOut();
    kz::P<CVMDKGrainDirectory> first = open();
    kz::P<CVMDKGrainDirectory> second = open();
    long long pos = 0, slot = 0;
    second->getGrainInfo(0, pos, slot);
    first->setGrainInfo(1, 999, kGrainSectors);  // the same table index in both
    EXPECT_EQ(cache->getCachedTableCount(), 64);
    std::vector<CVMDKGrainTableCache::CKey> order;
    cache->getCache().copyKeysInUseOrder(std::back_inserter(order));

    first = nullptr;
    EXPECT_EQ(stream->writes.size(), 2u);  // table 0 and its redundant copy
    EXPECT_EQ(stream->getBuffer()[layout.tableSectors[0] * 512 + 4], 999 & 0xff);
    std::vector<CVMDKGrainTableCache::CKey> left;
    cache->getCache().copyKeysInUseOrder(std::back_inserter(left));
    std::erase_if(order, [&](const auto& key) { return key.directory != second.get(); });
    EXPECT_EQ(left, order);

    // A flush that fails is reported, and the tables leave the cache all the same.
    second->setGrainInfo(2, 998, kGrainSectors);
    stream->failWritesFrom(0);
    harltest::CLogCapture log;
    second = nullptr;
    EXPECT_EQ(cache->getCachedTableCount(), 0);
    EXPECT_EQ(log.messages(kz::LogLevel::Error).size(), 2u);  // the directory's, the table's
}

}  // namespace
