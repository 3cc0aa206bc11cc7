#include "harl/grain/CVMDKGrainTable.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "tests/support/CRecordingStream.h"
#include <gtest/gtest.h>

#include <vector>

namespace {

using harl::CVMDKGrainDirectory;
using harl::CVMDKGrainTable;
using harl::CVMDKGrainTableCache;

constexpr long long kGrainSectors = 128;

// The cache knows directories by address only; it never looks behind these.
int directoryTokens[2];
CVMDKGrainDirectory* const kDirA = reinterpret_cast<CVMDKGrainDirectory*>(&directoryTokens[0]);
CVMDKGrainDirectory* const kDirB = reinterpret_cast<CVMDKGrainDirectory*>(&directoryTokens[1]);

struct CVMDKGrainTableCacheTest : ::testing::Test {
    CVMDKGrainTableCacheTest() { stream->setLength(16 * 512); }

    // Stores a table of one sector at `sector`, dirty if asked, under `directory` and `index`.
    void put(CVMDKGrainDirectory* directory, long long index, long long sector, bool dirty = true) {
        kz::P<CVMDKGrainTable> table(new CVMDKGrainTable(
            stream.get(), kz::IIOStream::AccessReadWrite, kGrainSectors, sector, 0, 0, 128));
        if (dirty) {
            table->setGrainInfo(0, 1000 + sector, kGrainSectors);
        }
        cache->setCachedTable(directory, index, table.get());
    }

    std::vector<long long> writtenSectors() const {
        std::vector<long long> sectors;
        for (const auto& write : stream->writes) {
            sectors.push_back(write.positionBytes / 512);
        }
        return sectors;
    }

    kz::P<harltest::CRecordingStream> stream{new harltest::CRecordingStream};
    kz::P<CVMDKGrainTableCache> cache{new CVMDKGrainTableCache(2)};
};

// Eviction writes a dirty table before it drops it, also one someone still holds; flushes and
// removals touch one directory only, in ascending table index.
TEST_F(CVMDKGrainTableCacheTest, WritesDirtyTablesAsTheyLeaveAndTouchOneDirectoryOnly) {
    put(kDirA, 0, 1);
    put(kDirB, 0, 2, false);                              // the same index under another directory
    EXPECT_NE(cache->getCachedTable(kDirB, 0), nullptr);  // B's is now the newer
    put(kDirA, 1, 3, false);
    EXPECT_EQ(writtenSectors(), std::vector<long long>{1});
    kz::P<CVMDKGrainTable> held = cache->getCachedTable(kDirB, 0);
    held->setGrainInfo(1, 44, kGrainSectors);
    put(kDirA, 2, 4, false);
    put(kDirA, 3, 5, false);
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{1, 2}));
    held = nullptr;  // clean since its eviction
    EXPECT_EQ(writtenSectors().size(), 2u);
    CVMDKGrainTableCache(*cache).clear();  // a copy is the same cache
    EXPECT_EQ(cache->getCachedTableCount(), 0);

    stream->writes.clear();
    cache->setAutoEnforceLimit(false);
    for (long long index : {2, 0, 1}) {
        put(kDirA, index, 10 + index);
    }
    put(kDirB, 0, 8);
    cache->flushCachedTablesFromDirectoryToStream(kDirA);
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{10, 11, 12}));
    cache->removeCachedTablesFromDirectory(kDirA);
    EXPECT_EQ(cache->getCachedTableCount(), 1);
    EXPECT_TRUE(cache->getCachedTable(kDirB, 0)->hasUnflushedChanges());
    for (long long index : {0, 1, 2}) {
        put(kDirA, index, 10 + index, false);
    }
    cache->enforceLimit();  // the oldest goes and writes itself
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{10, 11, 12, 8}));
    put(kDirA, 3, 13, false);
    cache->setAutoEnforceLimit(true);
    EXPECT_EQ(cache->getCachedTableCount(), 2);
}

}  // namespace
