#include "grain/CVMDKGrainTable.h"
#include "grain/CVMDKGrainTableCache.h"

#include "tests/support/CRecordingStream.h"
#include <gtest/gtest.h>

#include <iterator>
#include <vector>

namespace {

using harl::CVMDKGrainDirectory;
using harl::CVMDKGrainTable;
using harl::CVMDKGrainTableCache;
using Key = CVMDKGrainTableCache::CKey;

constexpr long long kGrainSectors = 128;
constexpr int kGrains = 128;  // one sector per table

// The cache knows directories by address only; it never looks behind these.
int directoryTokens[2];
CVMDKGrainDirectory* const kDirA = reinterpret_cast<CVMDKGrainDirectory*>(&directoryTokens[0]);
CVMDKGrainDirectory* const kDirB = reinterpret_cast<CVMDKGrainDirectory*>(&directoryTokens[1]);

struct CVMDKGrainTableCacheTest : ::testing::Test {
    CVMDKGrainTableCacheTest() { stream->setLength(16 * 512); }

    // A table at sector `sector`, made dirty when asked.
    kz::P<CVMDKGrainTable> table(long long sector, bool dirty = false) {
        kz::P<CVMDKGrainTable> result(new CVMDKGrainTable(
            stream.get(), kz::IIOStream::AccessReadWrite, kGrainSectors, sector, 0, 0, kGrains));
        if (dirty) {
            result->setGrainInfo(0, 1000 + sector, kGrainSectors);
        }
        return result;
    }

    std::vector<long long> writtenSectors() const {
        std::vector<long long> sectors;
        for (const auto& write : stream->writes) {
            sectors.push_back(write.positionBytes / 512);
        }
        return sectors;
    }

    std::vector<Key> useOrder(const CVMDKGrainTableCache& cache) const {
        std::vector<Key> keys;
        cache.getCache().copyKeysInUseOrder(std::back_inserter(keys));
        return keys;
    }

    kz::P<harltest::CRecordingStream> stream{new harltest::CRecordingStream};
};

TEST_F(CVMDKGrainTableCacheTest, KeysNameTheDirectoryAndEvictionWritesDirtyTables) {
    kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(2));
    cache->setCachedTable(kDirA, 0, table(1, true).get());
    cache->setCachedTable(kDirB, 0, table(2).get());
    EXPECT_EQ(cache->getCachedTableCount(), 2);
    kz::P<CVMDKGrainTable> first = cache->getCachedTable(kDirA, 0);
    EXPECT_NE(first, cache->getCachedTable(kDirB, 0));
    first = nullptr;
    EXPECT_TRUE(stream->writes.empty());

    // B's table was asked for last, so A's goes first, and writes itself on its way out.
    cache->setCachedTable(kDirA, 1, table(3).get());
    EXPECT_EQ(writtenSectors(), std::vector<long long>{1});
    EXPECT_EQ(cache->getCachedTable(kDirA, 0), nullptr);
    EXPECT_EQ(useOrder(*cache), (std::vector<Key>{{kDirA, 1}, {kDirB, 0}}));

    // A holder keeps an evicted table alive and clean of writes until it lets go.
    kz::P<CVMDKGrainTable> held = cache->getCachedTable(kDirB, 0);
    held->setGrainInfo(1, 44, kGrainSectors);
    cache->setCachedTable(kDirA, 2, table(4).get());
    cache->setCachedTable(kDirA, 3, table(5).get());
    EXPECT_EQ(writtenSectors(), std::vector<long long>{1});
    held = nullptr;
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{1, 2}));

    // A copy is the same cache.
    CVMDKGrainTableCache copy(*cache);
    copy.clear();
    EXPECT_EQ(cache->getCachedTableCount(), 0);
}

TEST_F(CVMDKGrainTableCacheTest, FlushAndRemovalTouchOneDirectoryOnly) {
    kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache);
    for (long long index : {2, 0, 1}) {
        cache->setCachedTable(kDirA, index, table(1 + index, true).get());
    }
    cache->setCachedTable(kDirB, 0, table(8, true).get());
    const std::vector<Key> before = useOrder(*cache);

    cache->flushCachedTablesFromDirectoryToStream(kDirA);
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{1, 2, 3}));  // ascending table index
    EXPECT_EQ(useOrder(*cache), before);
    EXPECT_TRUE(cache->getCachedTable(kDirB, 0)->hasUnflushedChanges());

    cache->removeCachedTablesFromDirectory(kDirA);
    EXPECT_EQ(cache->getCachedTableCount(), 1);
    EXPECT_EQ(cache->getCachedTable(kDirA, 1), nullptr);
    EXPECT_EQ(writtenSectors().size(), 3u);  // clean tables, nothing more to write
    cache = nullptr;                         // the last copy drops B's table, which writes itself
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{1, 2, 3, 8}));
}

TEST_F(CVMDKGrainTableCacheTest, EnforcementOffKeepsDirtyTablesUntilSwitchedBack) {
    kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(1));
    cache->setAutoEnforceLimit(false);
    for (long long index = 0; index < 3; ++index) {
        cache->setCachedTable(kDirA, index, table(1 + index, true).get());
    }
    EXPECT_EQ(cache->getCachedTableCount(), 3);
    EXPECT_TRUE(stream->writes.empty());
    cache->setAutoEnforceLimit(true);
    EXPECT_EQ(writtenSectors(), (std::vector<long long>{1, 2}));  // oldest first
    EXPECT_EQ(cache->getCachedTableCount(), 1);

    kz::P<CVMDKGrainTableCache> none(new CVMDKGrainTableCache(0));
    kz::P<CVMDKGrainTable> held = table(6, true);
    none->setCachedTable(kDirA, 0, held.get());
    EXPECT_EQ(none->getCachedTableCount(), 0);
    EXPECT_TRUE(held->hasUnflushedChanges());
}

}  // namespace
