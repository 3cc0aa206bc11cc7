#pragma once

#include "harl/foundation/kz/TBuffer.h"

#include <string>

namespace harltest {

// Whole files of the host, for tests that compare bytes with what another program wrote.
// Both throw std::runtime_error when the file cannot be read or written.
kz::TBuffer<unsigned char> readWholeFile(const std::string& path);
void writeWholeFile(const std::string& path, const kz::TBuffer<unsigned char>& content);

// `length` bytes of the file from `offset`, fewer at its end.
kz::TBuffer<unsigned char> readFilePart(const std::string& path, long long offset, size_t length);

}  // namespace harltest
