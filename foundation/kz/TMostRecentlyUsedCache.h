#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/P.h"

#include <list>
#include <map>
#include <utility>

namespace kz {

// A bounded cache of counted references, most recently used first.
//
// Invariant: a key is in the map exactly when it is in the use list, and the map entry points
// at the key's node in the list. The list runs from the most recently used key at the front to
// the least recently used at the back; the size of the map is the cache's count.
//
// Cost: a look-up or an insertion is one search in the ordered map plus constant work on the
// list, so the order of use needs no scan; a look-up of the front key needs no search. Eviction
// takes its victim from the back of the list.
//
// The cache is where a value's life may end: dropping an entry drops the cache's reference, and
// if that was the last one the value's destructor runs. It runs only after the cache is
// consistent again, so a destructor may even call back into the cache. A value that someone
// still holds through a P leaves the cache all the same and stays valid for its holder.
//
// With automatic enforcement (the default) every insertion of a new key drops entries from the
// back until the count is at most the limit; a limit of 0 thus drops each value as soon as it is
// stored. Without it the cache grows until enforcement is switched back on or asked for.
//
// Not thread-safe: a cache and its values belong to one caller at a time.
template <class Key, class Value, class Less = std::less<Key>>
class TMostRecentlyUsedCache : public CBase {
    struct CNode {
        Key key;
        P<Value> value;
    };

    using UseList = std::list<CNode>;
    using EntryMap = std::map<Key, typename UseList::iterator, Less>;

public:
    // Walks the entries in key order and hands out key and value. A walk does not survive the
    // removal of an entry, nor an insertion; a look-up, which reorders only the use list, leaves
    // it valid.
    class CEnum {
    public:
        // From the first entry.
        explicit CEnum(const TMostRecentlyUsedCache& cache)
            : nextEntry(cache.entries.begin()), end(cache.entries.end()) {}

        // From the first entry whose key is not less than `from`.
        CEnum(const TMostRecentlyUsedCache& cache, const Key& from)
            : nextEntry(cache.entries.lower_bound(from)), end(cache.entries.end()) {}

        // Moves to the next entry; false when there is none. getKey and getValue are valid
        // only after a call that returned true.
        bool next() {
            if (nextEntry == end) {
                return false;
            }
            current = nextEntry++;
            return true;
        }

        const Key& getKey() const { return current->first; }

        const P<Value>& getValue() const { return current->second->value; }

    private:
        typename EntryMap::const_iterator nextEntry;
        typename EntryMap::const_iterator end;
        typename EntryMap::const_iterator current;
    };

    explicit TMostRecentlyUsedCache(int limit) : limit(limit) {
        if (limit < 0) {
            throw CInvalidArgError("TMostRecentlyUsedCache constructor",
                                   "Invalid limit: " + String::number(limit));
        }
    }

    // Values die after the cache is empty, as in clear().
    ~TMostRecentlyUsedCache() override { clear(); }

    TMostRecentlyUsedCache(const TMostRecentlyUsedCache&) = delete;
    TMostRecentlyUsedCache& operator=(const TMostRecentlyUsedCache&) = delete;

    // The value under `key`, or null. A hit makes the key the most recently used. Asking again
    // for the most recently used key, as a sequential walk does, costs no map search at all.
    P<Value> get(const Key& key) {
        if (!useOrder.empty() && isSameKey(useOrder.front().key, key)) {
            return useOrder.front().value;
        }
        const auto entry = entries.find(key);
        if (entry == entries.end()) {
            return P<Value>();
        }
        moveToFront(entry->second);
        return entry->second->value;
    }

    // True when `key` is cached. Does not change the order of use.
    bool contains(const Key& key) const { return entries.find(key) != entries.end(); }

    // The value that the next eviction would drop, or null for an empty cache. Does not change
    // the order of use.
    P<Value> getLeastRecentlyUsed() const {
        return useOrder.empty() ? P<Value>() : useOrder.back().value;
    }

    // Stores `value` under `key` as the most recently used. A new key enforces the limit when
    // automatic enforcement is on (and may thereby drop the new entry itself, if the limit is
    // 0); replacing the value of a cached key never evicts anything.
    void set(const Key& key, const P<Value>& value) {
        const auto [entry, inserted] = entries.try_emplace(key);
        if (inserted) {
            try {
                useOrder.push_front(CNode{key, value});
            } catch (...) {
                entries.erase(entry);
                throw;
            }
            entry->second = useOrder.begin();
            if (autoEnforceLimit) {
                enforceLimit();
            }
            return;
        }
        // The old value loses the cache's reference only after the new one has gained it.
        P<Value> old = std::exchange(entry->second->value, value);
        moveToFront(entry->second);
        old.reset();
    }

    // Drops the entry under `key`; false when there was none.
    bool remove(const Key& key) {
        const auto entry = entries.find(key);
        if (entry == entries.end()) {
            return false;
        }
        drop(entry);
        return true;
    }

    // Drops least recently used entries until the count is at most the limit.
    void enforceLimit() {
        while (entries.size() > static_cast<size_t>(limit)) {
            drop(entries.find(useOrder.back().key));
        }
    }

    // Switches enforcement on insertion. Switching it on runs enforceLimit at once; setting the
    // flag it already has does nothing.
    void setAutoEnforceLimit(bool autoEnforce) {
        if (autoEnforce == autoEnforceLimit) {
            return;
        }
        autoEnforceLimit = autoEnforce;
        if (autoEnforce) {
            enforceLimit();
        }
    }

    bool getAutoEnforceLimit() const { return autoEnforceLimit; }

    int getLimit() const { return limit; }

    int getCount() const { return static_cast<int>(entries.size()); }

    // Keys from the most to the least recently used; for tests and diagnostics.
    template <class Out>
    void copyKeysInUseOrder(Out out) const {
        for (const CNode& node : useOrder) {
            *out++ = node.key;
        }
    }

    // Drops every entry.
    void clear() {
        EntryMap oldEntries;
        UseList oldUseOrder;
        oldEntries.swap(entries);
        oldUseOrder.swap(useOrder);
        // The values die with these locals, after the cache is already empty.
    }

private:
    static bool isSameKey(const Key& a, const Key& b) { return !Less()(a, b) && !Less()(b, a); }

    void moveToFront(typename UseList::iterator node) {
        if (node != useOrder.begin()) {
            useOrder.splice(useOrder.begin(), useOrder, node);
        }
    }

    void drop(typename EntryMap::iterator entry) {
        const typename UseList::iterator node = entry->second;
        P<Value> value = std::move(node->value);
        entries.erase(entry);
        useOrder.erase(node);
        // `value` goes out of scope here, with the cache consistent.
    }

    int limit;
    EntryMap entries;
    UseList useOrder;
    bool autoEnforceLimit = true;
};

}  // namespace kz
