#pragma once

#include <list>
#include <map>
#include <vector>

namespace kz {

// The containers of the base library are the standard ones under the names the rest of the
// code uses.
template <class T>
using TArray = std::vector<T>;

template <class T>
using TList = std::list<T>;

template <class K, class V, class Less = std::less<K>>
using TMap = std::map<K, V, Less>;

}  // namespace kz
