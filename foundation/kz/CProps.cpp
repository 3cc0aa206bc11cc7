#include "harl/foundation/kz/CProps.h"

namespace kz {

String CProps::get(const String& key) const {
    for (const auto& item : items) {
        if (item.first == key) {
            return item.second;
        }
    }
    return String();
}

bool CProps::has(const String& key) const {
    for (const auto& item : items) {
        if (item.first == key) {
            return true;
        }
    }
    return false;
}

String CProps::toString() const {
    String text;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i > 0) {
            text += ", ";
        }
        text += items[i].first + "=" + items[i].second;
    }
    return text;
}

}  // namespace kz
