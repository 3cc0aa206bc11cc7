#include "harl/format/CVMDKLowLevelFileStream.h"

namespace harl {

CVMDKLowLevelFileStream::CVMDKLowLevelFileStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                                 kz::IIOStream::Access access)
    : kz::COptimizingIOStream(fileSystem->open(uri, access, 0).get()) {
}

}  // namespace harl
