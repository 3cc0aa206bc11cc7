#pragma once

#include <cstddef>

namespace kz {

// Zeroes memory in a way the optimiser may not drop, for key material about to be freed.
void secureZero(void* data, size_t length);

}  // namespace kz
