#pragma once

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

#include <string>
#include <vector>

namespace harlimg {

// An image that a verb reads: a raw file, or a VMDK disk opened read-only (with its parents,
// which the library opens as reads reach them). Every verb opens what it reads here, so that
// the kinds of disk the tool accepts are decided in one place.
class CSourceImage {
public:
    // Opens `path`. `format` "raw" or "vmdk", or empty to tell by the file's first bytes. An
    // encrypted disk takes its password from `passwordFile`, else from the terminal. Throws
    // what opening the file or the disk throws.
    CSourceImage(kz::IFileSystem* fileSystem, const std::string& path, const std::string& format,
                 const std::string& passwordFile);
    ~CSourceImage();
    CSourceImage(const CSourceImage&) = delete;
    CSourceImage& operator=(const CSourceImage&) = delete;

    // The one way in which the tool opens a VMDK disk for reading. The library's own disks open
    // as harl::CVMDKDisk, with their lock file; disks of other writers (flat, VMFS and zero
    // extents, stream-optimized files) as a harl::CVMDKImportDisk, read only and without a lock.
    // Throws what opening the disk throws.
    static kz::P<harl::CVMDKDisk> openDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                           const kz::String& password);

    // Whether openDisk opens the disk at `uri` as one of the library's own. Throws what reading
    // its descriptor throws.
    static bool isOwnDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri);

    // The descriptor of an open disk: the library's own, or what an import disk read.
    static kz::P<harl::CVMDKDescriptor> descriptorOf(const harl::CVMDKDisk& disk);

    // True when the file starts as a sparse extent or a descriptor file does. A flat extent
    // file is raw: its descriptor is the VMDK disk.
    static bool looksLikeVMDK(kz::IFileSystem* fileSystem, const kz::CURI& uri);

    // The password for the VMDK disk at `uri`: empty for a disk that is not encrypted and when
    // no file is named, else as obtainPassword gives it.
    static kz::String passwordFor(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                  const std::string& path, const std::string& passwordFile);

    bool isVMDK() const { return disk.get() != nullptr; }

    // The disk, or null for a raw file.
    harl::CVMDKDisk* getDisk() const { return disk.get(); }

    // The image's bytes: the raw file, or the disk as a stream. Shared; seek before use.
    kz::IIOStream& getStream() const { return *stream; }

    long long getSizeBytes() const { return sizeBytes; }

    // Where the extent that holds `position` starts, and the first byte above `position` at
    // which another one starts (else the size). Another writer's extents need not start on
    // grain boundaries: an extent counts its grains from its own start, and a grain of the disk
    // that an extent start cuts is no grain of either extent. 0 and the size for a raw file.
    long long extentStartOf(long long position) const;
    long long nextExtentStart(long long position) const;

    // For a raw file, the first byte at or above `position` that may hold data as far as the
    // system knows: a hole reads as zeros, so what lies before it need not be read. The size
    // when only a hole follows; `position` itself for a VMDK disk and when the system cannot
    // tell.
    long long nextDataFrom(long long position) const;

    const kz::CURI& getURI() const { return uri; }

    const std::string& getPath() const { return path; }

    const kz::String& getPassword() const { return password; }

private:
    std::string path;
    kz::CURI uri;
    kz::String password;
    kz::P<harl::CVMDKDisk> disk;
    kz::P<kz::IIOStream> stream;
    long long sizeBytes = 0;
    // Where the extents start, in bytes, ascending from 0.
    std::vector<long long> extentStarts;
    // The raw file once more, for asking the system where its holes are; -1 for none.
    int holesFd = -1;
    // The run of data that the system named last: [dataStart, dataEnd).
    mutable long long dataStart = 0;
    mutable long long dataEnd = 0;
};

}  // namespace harlimg
