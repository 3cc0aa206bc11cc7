#include "harl/foundation/kz/CLocalFileSystem.h"

#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CLocalFileStream.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace kz {

namespace {

CFileSystemError::Problem problemOf(int errorNumber) {
    switch (errorNumber) {
        case ENOENT:
        case ENOTDIR:
            return CFileSystemError::NotFound;
        case EACCES:
        case EPERM:
        case EROFS:
            return CFileSystemError::AccessDenied;
        case EEXIST:
            return CFileSystemError::AlreadyExists;
        case ENOSPC:
        case EDQUOT:
        case EFBIG:
            return CFileSystemError::NoSpace;
        case EBUSY:
        case ETXTBSY:
            return CFileSystemError::Busy;
        case ENOSYS:
        case EOPNOTSUPP:
            return CFileSystemError::Unsupported;
        default:
            return CFileSystemError::Other;
    }
}

CFileSystemError unsupportedURI(const CURI& uri, const char* why) {
    return CFileSystemError(CFileSystemError::Unsupported,
                            CError(String("The local file system cannot reach this URI: ") + why,
                                   String(), -1, CProps().add("uri", uri.toString(true))));
}

}  // namespace

CFileSystemError CLocalFileSystem::makeError(const String& message, int errorNumber,
                                             const CURI& uri) {
    const String text(std::error_code(errorNumber, std::generic_category()).message());
    return CFileSystemError(
        problemOf(errorNumber),
        CError(message, text, errorNumber, CProps().add("uri", uri.toString(true))));
}

String CLocalFileSystem::toLocalPath(const CURI& uri) {
    if (uri.getScheme().toLower() != "file") {
        throw unsupportedURI(uri, "not a \"file:\" URI");
    }
    const String host = uri.getHost().toLower();
    if (!host.isEmpty() && host != "localhost") {
        throw unsupportedURI(uri, "the file is on another host");
    }
    const String& path = uri.getPath();
    if (path.isEmpty() || path.at(0) != L'/' || path.find(L'\0') != String::npos) {
        throw unsupportedURI(uri, "the path is not absolute");
    }
    return path;
}

P<IIOStream> CLocalFileSystem::open(const CURI& uri, IIOStream::Access access, int flags) {
    if (flags != 0 || (access != IIOStream::AccessRead && access != IIOStream::AccessReadWrite)) {
        throw CInvalidArgError("CLocalFileSystem::open", "Bad access or flags",
                               CProps()
                                   .add("uri", uri.toString(true))
                                   .add("access", static_cast<int>(access))
                                   .add("flags", flags));
    }
    const std::string path = toLocalPath(uri).toUTF8();
    const int mode = access == IIOStream::AccessRead ? O_RDONLY : O_RDWR | O_CREAT;
    int fd;
    do {
        fd = ::open(path.c_str(), mode | O_CLOEXEC, 0666);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        throw makeError("Cannot open file", errno, uri);
    }
    // Opening a folder for reading succeeds on POSIX; it is no file, so refuse it here.
    struct stat info;
    if (::fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
        const int errorNumber = S_ISDIR(info.st_mode) ? EISDIR : errno;
        ::close(fd);
        throw makeError("Cannot open file", errorNumber, uri);
    }
    return P<IIOStream>(new CLocalFileStream(fd, uri, access));
}

bool CLocalFileSystem::exists(const CURI& uri) {
    const std::string path = toLocalPath(uri).toUTF8();
    struct stat info;
    if (::stat(path.c_str(), &info) == 0) {
        return true;
    }
    if (errno == ENOENT || errno == ENOTDIR) {
        return false;
    }
    throw makeError("Cannot look for file", errno, uri);
}

void CLocalFileSystem::deleteFile(const CURI& uri, bool ignoreMissing) {
    const std::string path = toLocalPath(uri).toUTF8();
    if (::unlink(path.c_str()) != 0 && !(ignoreMissing && errno == ENOENT)) {
        throw makeError("Cannot delete file", errno, uri);
    }
}

}  // namespace kz
