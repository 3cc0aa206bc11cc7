#include "harl/grain/CVMDKGrainTableCache.h"

#include "harl/grain/CVMDKGrainTable.h"

#include <climits>

namespace harl {

namespace {

// The smallest key of a directory: its tables follow it in key order.
CVMDKGrainTableCache::CKey firstKeyOf(CVMDKGrainDirectory* directory) {
    return {directory, LLONG_MIN};
}

}  // namespace

CVMDKGrainTableCache::CVMDKGrainTableCache(int limit) : cache(new Cache(limit)) {
}

CVMDKGrainTableCache::~CVMDKGrainTableCache() = default;

kz::P<CVMDKGrainTable> CVMDKGrainTableCache::getCachedTable(CVMDKGrainDirectory* directory,
                                                            long long tableIndex) {
    return cache->get({directory, tableIndex});
}

bool CVMDKGrainTableCache::hasCachedTable(CVMDKGrainDirectory* directory,
                                          long long tableIndex) const {
    return cache->contains({directory, tableIndex});
}

void CVMDKGrainTableCache::setCachedTable(CVMDKGrainDirectory* directory, long long tableIndex,
                                          CVMDKGrainTable* table) {
    // A dirty table about to be evicted is written here, where a failure reaches the caller;
    // written by its destructor, the failure could only be logged and the changes lost.
    if (cache->getAutoEnforceLimit() && cache->getCount() >= cache->getLimit() &&
        !cache->contains({directory, tableIndex})) {
        const kz::P<CVMDKGrainTable> victim = cache->getLeastRecentlyUsed();
        if (victim && victim->hasUnflushedChanges()) {
            victim->flushDurablyToStream();
        }
    }
    cache->set({directory, tableIndex}, table);
}

void CVMDKGrainTableCache::enforceLimit() {
    cache->enforceLimit();
}

void CVMDKGrainTableCache::setAutoEnforceLimit(bool autoEnforce) {
    cache->setAutoEnforceLimit(autoEnforce);
}

void CVMDKGrainTableCache::flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory) {
    visitCachedTablesFromDirectory(directory,
                                   [](CVMDKGrainTable& table) { table.flushChangesToStream(); });
}

void CVMDKGrainTableCache::visitCachedTablesFromDirectory(
    CVMDKGrainDirectory* directory, const std::function<void(CVMDKGrainTable&)>& visit) {
    // The keys of one directory form one run of the map, so the walk visits only that run.
    Cache::CEnum walk(*cache, firstKeyOf(directory));
    while (walk.next() && walk.getKey().directory == directory) {
        visit(*walk.getValue());
    }
}

void CVMDKGrainTableCache::removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory) {
    // Each removal may run a table's destructor, which ends a walk; so every round starts a new
    // one at the directory's first remaining key. That costs a search per table and no list of
    // keys to allocate.
    for (;;) {
        Cache::CEnum walk(*cache, firstKeyOf(directory));
        if (!walk.next() || walk.getKey().directory != directory) {
            return;
        }
        const CKey key = walk.getKey();
        cache->remove(key);
    }
}

void CVMDKGrainTableCache::clear() {
    cache->clear();
}

int CVMDKGrainTableCache::getCachedTableCount() const {
    return cache->getCount();
}

}  // namespace harl
