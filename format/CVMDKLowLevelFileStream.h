#pragma once

#include "harl/foundation/kz/COptimizingIOStream.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"

namespace harl {

// The stream through which the library reaches every file of a disk: the file system's raw
// stream behind a buffer, so that the many small header, marker and table accesses cost few
// system calls while grain-sized transfers pass straight through. It adds nothing but its
// constructor.
class CVMDKLowLevelFileStream : public kz::COptimizingIOStream {
public:
    // Opens `uri` on `fileSystem`; errors of the file system pass through.
    CVMDKLowLevelFileStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                            kz::IIOStream::Access access);
};

}  // namespace harl
