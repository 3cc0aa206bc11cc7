#include "foundation/kz/TMostRecentlyUsedCache.h"

#include <gtest/gtest.h>

#include <iterator>
#include <vector>

namespace {

using Cache = kz::TMostRecentlyUsedCache<int, class CValue>;

bool holds(const Cache& cache, const CValue* value);

// Records its key in `deaths` when destroyed, and checks that the cache it dies in no longer
// holds it by then: a destructor may look into the cache.
class CValue : public kz::CBase {
public:
    CValue(int key, std::vector<int>* deaths, Cache* cache = nullptr)
        : key(key), deaths(deaths), cache(cache) {}

    ~CValue() override {
        deaths->push_back(key);
        if (cache != nullptr) {
            EXPECT_FALSE(holds(*cache, this));
        }
    }

    int key;

private:
    std::vector<int>* deaths;
    Cache* cache;
};

bool holds(const Cache& cache, const CValue* value) {
    Cache::CEnum walk(cache);
    while (walk.next()) {
        if (walk.getValue().get() == value) {
            return true;
        }
    }
    return false;
}

std::vector<int> useOrder(const Cache& cache) {
    std::vector<int> keys;
    cache.copyKeysInUseOrder(std::back_inserter(keys));
    return keys;
}

struct TMostRecentlyUsedCacheTest : ::testing::Test {
    void put(int key) { cache->set(key, new CValue(key, &deaths, cache.get())); }

    std::vector<int> deaths;
    kz::P<Cache> cache{new Cache(3)};
};

TEST_F(TMostRecentlyUsedCacheTest, EvictsTheLeastRecentlyUsedAfterHits) {
    put(1);
    put(2);
    put(3);
    EXPECT_EQ(cache->get(1)->key, 1);  // the oldest becomes the newest
    EXPECT_EQ(useOrder(*cache), (std::vector<int>{1, 3, 2}));
    EXPECT_TRUE(cache->contains(2));
    EXPECT_EQ(useOrder(*cache), (std::vector<int>{1, 3, 2}));  // contains does not reorder
    put(4);
    EXPECT_EQ(deaths, std::vector<int>{2});
    EXPECT_EQ(useOrder(*cache), (std::vector<int>{4, 1, 3}));
    EXPECT_EQ(cache->get(2), nullptr);
    EXPECT_EQ(cache->getCount(), 3);

    // Replacing the value of a cached key in a full cache evicts nothing.
    kz::P<CValue> first = cache->get(1);
    put(3);
    EXPECT_EQ(deaths, (std::vector<int>{2, 3}));
    EXPECT_EQ(useOrder(*cache), (std::vector<int>{3, 1, 4}));
    EXPECT_TRUE(cache->remove(1));
    EXPECT_FALSE(cache->remove(1));
    EXPECT_EQ(first->key, 1);  // a holder keeps its value after removal
}

TEST_F(TMostRecentlyUsedCacheTest, LimitZeroDropsEachValueAsItIsStored) {
    cache = new Cache(0);
    kz::P<CValue> held(new CValue(7, &deaths, cache.get()));
    cache->set(7, held);
    put(8);
    EXPECT_EQ(cache->getCount(), 0);
    EXPECT_EQ(deaths, std::vector<int>{8});
    EXPECT_EQ(held->key, 7);
    EXPECT_THROW(Cache(-1), kz::CInvalidArgError);
}

TEST_F(TMostRecentlyUsedCacheTest, GrowsWithoutEnforcementUntilSwitchedBack) {
    cache->setAutoEnforceLimit(false);
    for (int key = 1; key <= 5; ++key) {
        put(key);
    }
    EXPECT_EQ(cache->getCount(), 5);
    EXPECT_TRUE(deaths.empty());
    cache->setAutoEnforceLimit(false);
    EXPECT_EQ(cache->getCount(), 5);
    cache->setAutoEnforceLimit(true);
    EXPECT_EQ(deaths, (std::vector<int>{1, 2}));
    EXPECT_EQ(useOrder(*cache), (std::vector<int>{5, 4, 3}));

    // An explicit enforcement works with the flag off.
    cache->setAutoEnforceLimit(false);
    put(6);
    cache->enforceLimit();
    EXPECT_EQ(useOrder(*cache), (std::vector<int>{6, 5, 4}));
}

TEST_F(TMostRecentlyUsedCacheTest, WalksInKeyOrderFromALowerBound) {
    cache = new Cache(10);
    for (int key : {30, 10, 20, 40}) {
        put(key);
    }
    std::vector<int> walked;
    Cache::CEnum walk(*cache, 15);
    while (walk.next()) {
        walked.push_back(walk.getKey());
        EXPECT_EQ(walk.getValue()->key, walk.getKey());
    }
    EXPECT_EQ(walked, (std::vector<int>{20, 30, 40}));
    Cache::CEnum all(*cache);
    ASSERT_TRUE(all.next());
    EXPECT_EQ(all.getKey(), 10);

    cache->clear();
    EXPECT_EQ(cache->getCount(), 0);
    EXPECT_EQ(deaths.size(), 4u);
    EXPECT_FALSE(Cache::CEnum(*cache).next());
}

}  // namespace
