#pragma once

#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"

namespace harl {

// The one way in which the library opens a file of a disk: a new CVMDKLowLevelFileStream.
// AccessReadWrite creates a missing file.
kz::P<kz::IIOStream> openVMDKFileStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                        kz::IIOStream::Access access);

}  // namespace harl
