#include "harl/foundation/kz/SecureZero.h"

#include <string.h>

namespace kz {

void secureZero(void* data, size_t length) {
    if (data != nullptr && length > 0) {
        explicit_bzero(data, length);
    }
}

}  // namespace kz
