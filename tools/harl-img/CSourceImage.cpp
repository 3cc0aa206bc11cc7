#include "CSourceImage.h"

#include "harl/disk/CVMDKDiskIOStream.h"
#include "harl/disk/CVMDKImportDisk.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/format/VMDKStreamOptimized.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "CommandLine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace harlimg {

namespace {

const kz::IIOStream::Access kRead = kz::IIOStream::AccessRead;

// Whether the disk at `uri` is a compressed disk of the library's own. Its create type,
// "streamOptimized", is that of other writers' stream-optimized files, which the import disk
// reads; what tells them apart is the slot directory that the library keeps behind the grain
// tables of its compressed extents. A first extent that does not read as far as that is no
// disk of the library's own: the import disk then says what is wrong with it.
bool isOwnCompressedDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                         const harl::CVMDKDescriptor& descriptor) {
    kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
    descriptor.getExtentEntries(lines);
    if (descriptor.getCreateType() != "streamOptimized" || lines.empty() ||
        lines[0]->getType() != "SPARSE") {
        return false;
    }
    try {
        const kz::P<kz::IIOStream> stream = harl::openVMDKFileStream(
            fileSystem, harl::vmdkFileReferenceToURI(uri.getParent(), lines[0]->getFilename()),
            kRead);
        harl::CVMDKSparseExtentHeader header;
        kz::CDataInStream in(stream.get());
        header.load(in);
        if (header.getGrainDirectoryOffsetSectors() == harl::kVMDKGrainDirectoryAtEnd) {
            return false;
        }
        // Read as uncompressed, the directory looks for the slot directory without requiring it.
        const harl::CVMDKGrainDirectory directory(
            stream.get(), kRead, static_cast<long long>(header.getGrainDirectoryOffsetSectors()),
            static_cast<long long>(header.getRedundantGrainDirectoryOffsetSectors()),
            static_cast<long long>(header.getCapacitySectors()),
            static_cast<long long>(header.getGrainSizeSectors()),
            static_cast<int>(header.getGrainTableEntryCount()), false,
            new harl::CVMDKGrainTableCache);
        return directory.getHaveSlotSizeInfo();
    } catch (const kz::CFileSystemError&) {
        throw;
    } catch (const kz::CError&) {
        return false;
    }
}

// Where the extents start, in bytes, from 0 on.
std::vector<long long> extentStartsOf(const harl::CVMDKDisk& disk) {
    std::vector<long long> starts = {0};
    if (const auto* imported = dynamic_cast<const harl::CVMDKImportDisk*>(&disk)) {
        for (const harl::CVMDKImportDisk::CExtentLine& line : imported->getExtentLines()) {
            starts.push_back(line.startSector * harl::kSectorSizeBytes);
        }
    } else {
        kz::TArray<kz::P<harl::CVMDKExtentInfo>> lines;
        disk.getDescriptor()->getExtentEntries(lines);
        long long start = 0;
        for (const kz::P<harl::CVMDKExtentInfo>& line : lines) {
            starts.push_back(start);
            start += line->getSizeSectors() * harl::kSectorSizeBytes;
        }
    }
    return starts;
}

}  // namespace

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
        extentStarts = extentStartsOf(*disk);
    } else {
        stream = fileSystem->open(uri, kRead, 0);
    }
    sizeBytes = stream->getLength();
    if (!vmdk) {
        // Opened after the file system let the file through. A file of another size is not
        // the one being read (the path changed in between): then, as without it, all is read.
        holesFd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat info;
        if (holesFd >= 0 && (::fstat(holesFd, &info) != 0 || info.st_size != sizeBytes)) {
            ::close(holesFd);
            holesFd = -1;
        }
    }
}

CSourceImage::~CSourceImage() {
    if (holesFd >= 0) {
        ::close(holesFd);
    }
}

long long CSourceImage::nextDataFrom(long long position) const {
    if (holesFd < 0 || position >= sizeBytes || (position >= dataStart && position < dataEnd)) {
        return position;
    }
    const off_t data = ::lseek(holesFd, static_cast<off_t>(position), SEEK_DATA);
    if (data < 0) {
        return errno == ENXIO ? sizeBytes : position;
    }
    const off_t hole = ::lseek(holesFd, data, SEEK_HOLE);
    dataStart = data;
    dataEnd = hole < 0 ? sizeBytes : hole;
    return std::min(static_cast<long long>(data), sizeBytes);
}

long long CSourceImage::extentStartOf(long long position) const {
    const auto next = std::upper_bound(extentStarts.begin(), extentStarts.end(), position);
    return next == extentStarts.begin() ? 0 : *(next - 1);
}

long long CSourceImage::nextExtentStart(long long position) const {
    const auto next = std::upper_bound(extentStarts.begin(), extentStarts.end(), position);
    return next == extentStarts.end() ? sizeBytes : *next;
}

kz::P<harl::CVMDKDisk> CSourceImage::openDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                              const kz::String& password) {
    if (isOwnDisk(fileSystem, uri)) {
        return kz::makeP<harl::CVMDKDisk>(fileSystem, uri, kRead, password, -1, nullptr, nullptr);
    }
    return harl::CVMDKImportDisk::open(fileSystem, uri, password, -1);
}

bool CSourceImage::isOwnDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri) {
    const kz::P<harl::CVMDKDescriptor> descriptor = readDescriptor(fileSystem, uri);
    return harl::CVMDKImportDisk::isOwnKind(*descriptor) ||
           isOwnCompressedDisk(fileSystem, uri, *descriptor);
}

kz::P<harl::CVMDKDescriptor> CSourceImage::descriptorOf(const harl::CVMDKDisk& disk) {
    if (const auto* imported = dynamic_cast<const harl::CVMDKImportDisk*>(&disk)) {
        return imported->getImportedDescriptor();
    }
    return disk.getDescriptor();
}

bool CSourceImage::looksLikeVMDK(kz::IFileSystem* fileSystem, const kz::CURI& uri) {
    static const char kDescriptorStart[] = "# Disk DescriptorFile";
    unsigned char start[sizeof kDescriptorStart] = {};
    const kz::P<kz::IIOStream> file = fileSystem->open(uri, kRead, 0);
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
