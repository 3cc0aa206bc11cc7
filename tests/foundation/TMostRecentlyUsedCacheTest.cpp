#include "harl/foundation/kz/TMostRecentlyUsedCache.h"

#include <gtest/gtest.h>

#include <iterator>
#include <vector>

namespace {

using Cache = kz::TMostRecentlyUsedCache<int, class CValue>;

// Records its key when it dies, and checks that the cache it dies in is consistent by then and
// no longer holds it: a value's destructor may look into the cache.
class CValue : public kz::CBase {
public:
    CValue(int key, std::vector<int>* deaths, Cache* cache)
        : key(key), deaths(deaths), cache(cache) {}

    ~CValue() override {
        deaths->push_back(key);
        for (Cache::CEnum walk(*cache); walk.next();) {
            EXPECT_NE(walk.getValue().get(), this);
        }
    }

    int key;

private:
    std::vector<int>* deaths;
    Cache* cache;
};

struct TMostRecentlyUsedCacheTest : ::testing::Test {
    void put(int key) { cache->set(key, new CValue(key, &deaths, cache.get())); }

    std::vector<int> useOrder() const {
        std::vector<int> keys;
        cache->copyKeysInUseOrder(std::back_inserter(keys));
        return keys;
    }

    std::vector<int> deaths;
    kz::P<Cache> cache{new Cache(3)};
};

TEST_F(TMostRecentlyUsedCacheTest, EvictsTheLeastRecentlyUsedAfterHits) {
    for (int key : {1, 2, 3}) {
        put(key);
    }
    EXPECT_EQ(cache->get(1)->key, 1);  // the oldest becomes the newest
    EXPECT_TRUE(cache->contains(2));   // without reordering
    EXPECT_EQ(useOrder(), (std::vector<int>{1, 3, 2}));
    put(4);
    EXPECT_EQ(deaths, std::vector<int>{2});
    EXPECT_EQ(useOrder(), (std::vector<int>{4, 1, 3}));
    EXPECT_EQ(cache->get(2), nullptr);

    // A new value for a cached key in a full cache evicts nothing; the old value dies.
    put(3);
    EXPECT_EQ(deaths, (std::vector<int>{2, 3}));
    EXPECT_EQ(useOrder(), (std::vector<int>{3, 4, 1}));

    kz::P<CValue> held = cache->get(1);
    EXPECT_TRUE(cache->remove(1));
    EXPECT_FALSE(cache->remove(1));
    EXPECT_EQ(held->key, 1);  // a holder keeps its value
    EXPECT_THROW(Cache(-1), kz::CInvalidArgError);
}

TEST_F(TMostRecentlyUsedCacheTest, WalksInKeyOrderAndGrowsWithoutEnforcement) {
    cache->setAutoEnforceLimit(false);
    for (int key : {30, 10, 20, 40, 50}) {
        put(key);
    }
    std::vector<int> walked;
    for (Cache::CEnum walk(*cache, 15); walk.next();) {
        walked.push_back(walk.getKey());
    }
    EXPECT_EQ(walked, (std::vector<int>{20, 30, 40, 50}));
    cache->setAutoEnforceLimit(true);
    EXPECT_EQ(deaths, (std::vector<int>{30, 10}));
    cache = nullptr;  // values die after the cache is empty
    EXPECT_EQ(deaths.size(), 5u);
}

}  // namespace
