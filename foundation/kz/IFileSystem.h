#pragma once

#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"

namespace kz {

// Where files live. Every file of a disk is reached through one of these.
//
// Failures are CFileSystemError with the problem that fits (NotFound, AccessDenied, ...) and
// the URI in the "uri" property.
class IFileSystem : public virtual IBase {
public:
    // AccessRead opens an existing file; AccessReadWrite opens it for reading and writing and
    // creates it, empty, if it is missing. `flags` is reserved and must be 0. The new stream
    // stands at position 0.
    virtual P<IIOStream> open(const CURI& uri, IIOStream::Access access, int flags) = 0;

    virtual bool exists(const CURI& uri) = 0;

    // Deletes a file. A missing file is no error when `ignoreMissing` is true.
    virtual void deleteFile(const CURI& uri, bool ignoreMissing) = 0;
};

}  // namespace kz
