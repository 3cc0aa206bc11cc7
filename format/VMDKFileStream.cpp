#include "harl/format/VMDKFileStream.h"

#include "harl/format/CVMDKLowLevelFileStream.h"

namespace harl {

kz::P<kz::IIOStream> openVMDKFileStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                        kz::IIOStream::Access access) {
    return kz::P<kz::IIOStream>(new CVMDKLowLevelFileStream(fileSystem, uri, access));
}

}  // namespace harl
