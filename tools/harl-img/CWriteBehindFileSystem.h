#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/P.h"

namespace harlimg {

// Another file system whose files opened for writing write behind the caller
// (CWriteBehindStream), so that a conversion's writer thread hands its bytes over and goes on
// with the next grain while the system copies them. Files opened for reading, and everything
// else, are the wrapped file system's own.
class CWriteBehindFileSystem : public kz::CBase, public kz::IFileSystem {
public:
    explicit CWriteBehindFileSystem(kz::P<kz::IFileSystem> inner);

    kz::P<kz::IIOStream> open(const kz::CURI& uri, kz::IIOStream::Access access,
                              int flags) override;
    bool exists(const kz::CURI& uri) override;
    void deleteFile(const kz::CURI& uri, bool ignoreMissing) override;

private:
    kz::P<kz::IFileSystem> inner;
};

}  // namespace harlimg
