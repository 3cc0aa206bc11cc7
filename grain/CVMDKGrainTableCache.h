#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TMostRecentlyUsedCache.h"

#include <cstdint>
#include <functional>

namespace harl {

class CVMDKGrainDirectory;
class CVMDKGrainTable;

// The grain tables of a disk, a bounded number of them, most recently used first. One cache
// serves every extent of a disk (and the parent disk opened through it), so its key names the
// directory, by identity, as well as the table.
//
// The cache is where a table's life ends. So the limit is also the rule for when dirty tables
// reach the file between flushes: an insertion that evicts a dirty table writes it first, and a
// failure goes to the code that caused the eviction. With automatic enforcement off the cache
// grows and no table is written until a flush. Where a table is dropped otherwise (clear,
// remove, switching enforcement back on), its destructor writes it, and a failure there goes to
// kz::onExceptionInDestructorIgnored.
//
// Copies share one underlying cache: a copy is the same cache under a second name. Not
// thread-safe; a disk and the disks that share its cache use it one call at a time.
class CVMDKGrainTableCache : public kz::CBase {
public:
    struct CKey {
        CVMDKGrainDirectory* directory;
        long long tableIndex;

        // By directory address (unsigned), then by table index (signed), so that the tables of
        // one directory lie together in ascending order.
        friend bool operator<(const CKey& a, const CKey& b) {
            const auto addressA = reinterpret_cast<std::uintptr_t>(a.directory);
            const auto addressB = reinterpret_cast<std::uintptr_t>(b.directory);
            return addressA != addressB ? addressA < addressB : a.tableIndex < b.tableIndex;
        }

        friend bool operator==(const CKey& a, const CKey& b) {
            return a.directory == b.directory && a.tableIndex == b.tableIndex;
        }
    };

    using Cache = kz::TMostRecentlyUsedCache<CKey, CVMDKGrainTable>;

    // The limit a disk gives its own cache.
    static constexpr int kDefaultLimit = 1024;

    // An empty cache with automatic enforcement on. A negative limit throws
    // kz::CInvalidArgError.
    explicit CVMDKGrainTableCache(int limit = kDefaultLimit);
    // The last copy to go drops every remaining table, which then writes itself.
    ~CVMDKGrainTableCache() override;

    // The table, or null. A hit makes it the most recently used.
    kz::P<CVMDKGrainTable> getCachedTable(CVMDKGrainDirectory* directory, long long tableIndex);

    // True when the table is cached; the order of use stays as it is.
    bool hasCachedTable(CVMDKGrainDirectory* directory, long long tableIndex) const;

    // Stores a table as the most recently used. A new key enforces the limit (automatic
    // enforcement on), which may evict other tables; a dirty table that would be evicted is
    // first written (CVMDKGrainTable::flushDurablyToStream), and if that throws, nothing
    // changes and the error goes to the caller. Replacing the table of a cached key evicts
    // nothing.
    void setCachedTable(CVMDKGrainDirectory* directory, long long tableIndex,
                        CVMDKGrainTable* table);

    // Drops least recently used tables until the count is at most the limit.
    void enforceLimit();

    // Switches enforcement on insertion; switching it on enforces the limit at once.
    void setAutoEnforceLimit(bool autoEnforce);

    // Flushes every cached table of `directory`, in ascending table index; they stay cached and
    // the order of use does not change. A stream error passes through and leaves the tables
    // behind the failing one unflushed.
    void flushCachedTablesFromDirectoryToStream(CVMDKGrainDirectory* directory);

    // Calls `visit` for every cached table of `directory`, in ascending table index; the order
    // of use does not change. `visit` must not change the cache.
    void visitCachedTablesFromDirectory(CVMDKGrainDirectory* directory,
                                        const std::function<void(CVMDKGrainTable&)>& visit);

    // Drops every table of `directory` without asking for a flush; a dirty table that loses its
    // last reference here still writes itself.
    void removeCachedTablesFromDirectory(CVMDKGrainDirectory* directory);

    // Drops every table.
    void clear();

    int getCachedTableCount() const;

    // The generic cache underneath, for inspection by tests.
    const Cache& getCache() const { return *cache; }

private:
    kz::P<Cache> cache;
};

}  // namespace harl
