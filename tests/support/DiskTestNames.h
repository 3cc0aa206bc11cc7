#pragma once

#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IIOStream.h"

#include <string>

// Names the disk tests share: sizes, the two kinds of access, and files in the folder of an
// in-memory file system.
namespace harltest::disk {

constexpr long long kGrain = 65536;
constexpr long long kMiB = 1024 * 1024;
const kz::IIOStream::Access kRead = kz::IIOStream::AccessRead;
const kz::IIOStream::Access kWrite = kz::IIOStream::AccessReadWrite;

inline kz::CURI at(const std::string& name) {
    return kz::CURI("file:///d/" + name);
}

}  // namespace harltest::disk
