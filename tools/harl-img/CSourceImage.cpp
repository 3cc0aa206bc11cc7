#include "CSourceImage.h"

#include "harl/disk/CVMDKDiskIOStream.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/foundation/kz/CError.h"

#include "CommandLine.h"

#include <cstring>

namespace harlimg {

CSourceImage::CSourceImage(kz::IFileSystem* fileSystem, const std::string& path,
                           const std::string& format, const std::string& passwordFile)
    : path(path), uri(uriOfPath(path)) {
    const bool vmdk = format.empty() ? looksLikeVMDK(fileSystem, uri) : format == "vmdk";
    if (!vmdk && format != "raw" && !format.empty()) {
        throw kz::CError("Unknown image format '" + format + "' (raw or vmdk)");
    }
    if (vmdk) {
        password = passwordFor(fileSystem, uri, path, passwordFile);
        disk = openDisk(fileSystem, uri, password);
        stream = new harl::CVMDKDiskIOStream(disk.get());
    } else {
        stream = fileSystem->open(uri, kz::IIOStream::AccessRead, 0);
    }
    sizeBytes = stream->getLength();
}

kz::P<harl::CVMDKDisk> CSourceImage::openDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                              const kz::String& password) {
    return kz::makeP<harl::CVMDKDisk>(fileSystem, uri, kz::IIOStream::AccessRead, password, -1,
                                      nullptr, nullptr);
}

bool CSourceImage::looksLikeVMDK(kz::IFileSystem* fileSystem, const kz::CURI& uri) {
    static const char kDescriptorStart[] = "# Disk DescriptorFile";
    unsigned char start[sizeof kDescriptorStart] = {};
    const kz::P<kz::IIOStream> file = fileSystem->open(uri, kz::IIOStream::AccessRead, 0);
    file->readLax(start, sizeof start);
    const uint32_t magic = start[0] | start[1] << 8 | start[2] << 16 | uint32_t(start[3]) << 24;
    return magic == harl::kVMDKSparseHeaderMagic ||
           magic == harl::kVMDKSparseHeaderEncryptedMagic ||
           std::memcmp(start, kDescriptorStart, sizeof kDescriptorStart - 1) == 0;
}

kz::String CSourceImage::passwordFor(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                     const std::string& path, const std::string& passwordFile) {
    if (passwordFile.empty() && !isEncryptedDisk(fileSystem, uri)) {
        return kz::String();
    }
    return obtainPassword(passwordFile, path, false);
}

}  // namespace harlimg
