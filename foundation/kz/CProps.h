#pragma once

#include "harl/foundation/kz/String.h"

#include <cstddef>
#include <utility>
#include <vector>

namespace kz {

// The string properties of an error, in the order they were added. Keys may repeat.
class CProps {
public:
    CProps& add(const String& key, const String& value) {
        items.emplace_back(key, value);
        return *this;
    }

    CProps& add(const String& key, long long value) { return add(key, String::number(value)); }

    CProps& add(const String& key, int value) { return add(key, String::number(value)); }

    size_t getCount() const { return items.size(); }

    bool isEmpty() const { return items.empty(); }

    const String& getKey(size_t index) const { return items[index].first; }

    const String& getValue(size_t index) const { return items[index].second; }

    // The first value under `key`, or an empty string.
    String get(const String& key) const;
    bool has(const String& key) const;

    // "key1=value1, key2=value2".
    String toString() const;

    friend bool operator==(const CProps& a, const CProps& b) { return a.items == b.items; }

    friend bool operator!=(const CProps& a, const CProps& b) { return !(a == b); }

private:
    std::vector<std::pair<String, String>> items;
};

}  // namespace kz
