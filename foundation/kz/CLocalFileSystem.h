#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/IFileSystem.h"

namespace kz {

// The host's own files, through POSIX calls. It takes "file:" URIs with an empty host or
// "localhost"; the file's path is the decoded path of the URI. Any other URI throws a
// CFileSystemError with problem Unsupported.
//
// Streams are CLocalFileStream: unbuffered, each call one system call at the stream's own
// position. Failures of the system are CFileSystemError around a CError whose message says
// what failed, whose detail is the system's text for the error number, whose code is that
// number and whose "uri" property names the file.
class CLocalFileSystem : public CBase, public IFileSystem {
public:
    P<IIOStream> open(const CURI& uri, IIOStream::Access access, int flags) override;
    bool exists(const CURI& uri) override;
    void deleteFile(const CURI& uri, bool ignoreMissing) override;

    // The host path of a "file:" URI; throws as described above for any other.
    static String toLocalPath(const CURI& uri);

    // The error for a failed system call: `message` ("Cannot open file"), `errorNumber` the
    // errno it left.
    static CFileSystemError makeError(const String& message, int errorNumber, const CURI& uri);
};

}  // namespace kz
