// Creating a disk, writing it, opening it again and reading it, by position and as a stream.

#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKDiskIOStream.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "docs/examples/GuideSupport.h"

#include <vector>

namespace {

void createAndWrite(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                    const std::vector<unsigned char>& data) {
    // [start:create]
    // A compressed disk of 1 GiB in one file, without password or parent. It comes back open
    // for writing; every grain reads as zeros until it is written.
    const long long minSizeBytes = 1LL << 30;
    const bool compressed = true;
    const int compressionLevel = -1;     // the default, fast
    const long long fileSizeLimit = -1;  // one file
    kz::P<harl::CVMDKDisk> disk = harl::CVMDKDisk::create(
        fileSystem, uri, minSizeBytes, /*password*/ "", compressed, compressionLevel, fileSizeLimit,
        /*sParentRelPath*/ "", /*parentContentID*/ 0xFFFFFFFF,
        /*createExtentFilesOnDemand*/ false);
    // [end:create]
    guide::check(disk->getSizeBytes() == minSizeBytes, "the disk has the size asked for");

    // [start:write]
    disk->seek(1024 * 1024);
    disk->write(data.data(), static_cast<int>(data.size()));  // advances the position
    // Brings what the disk holds in memory to its files, and reports what fails there. The
    // disk's release flushes too, but can only log a failure.
    disk->flushChanges();
    // [end:write]
    guide::check(disk->getPosition() == 1024 * 1024 + static_cast<long long>(data.size()),
                 "a write advances the position");
}

void openAndRead(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                 const std::vector<unsigned char>& data) {
    // [start:open]
    // Access 1 (kz::IIOStream::AccessRead) reads, 3 (AccessReadWrite) reads and writes. No
    // password, compression level -1, the disk's own grain table cache, no parent given.
    kz::P<harl::CVMDKDisk> disk = kz::makeP<harl::CVMDKDisk>(
        fileSystem, uri, kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
    std::vector<unsigned char> read(data.size());
    disk->seek(1024 * 1024);
    disk->read(read.data(), static_cast<int>(read.size()));
    // [end:open]
    guide::check(read == data, "what was written reads back");
    guide::check(guide::thrownText([&] { disk->write(read.data(), 1); }) ==
                     "Internal error: CVMDKDisk::write was called, but the disk was not opened "
                     "for writing.",
                 "a disk opened for reading refuses writes");
}

void readAsStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                  const std::vector<unsigned char>& data) {
    // [start:stream]
    // The whole disk as a kz::IIOStream, for code that reads or writes streams. It opens the
    // disk itself here (it can also take an open CVMDKDisk); the disk closes with it.
    kz::P<kz::IIOStream> stream(
        new harl::CVMDKDiskIOStream(fileSystem, uri, kz::IIOStream::AccessRead, ""));
    std::vector<unsigned char> read(data.size());
    stream->seek(1024 * 1024);
    stream->read(read.data(), static_cast<int>(read.size()));
    // readLax stops at the end of the disk instead of throwing.
    stream->seek(stream->getLength() - 10);
    const int got = stream->readLax(read.data(), static_cast<int>(read.size()));  // 10
    // [end:stream]
    guide::check(got == 10, "readLax stops at the end");
    stream->seek(1024 * 1024);
    stream->read(read.data(), static_cast<int>(read.size()));
    guide::check(read == data, "the stream reads the disk's bytes");
    stream->seek(1024 * 1024);
    guide::check(guide::thrownText([&] { stream->read(read.data(), 1 << 30); }) ==
                     "Read exceeds VMDK disk size. [mainFileURI=mem:/disk.vmdk, "
                     "position=1048576, bytesToRead=1073741824]",
                 "a read past the end throws");
}

}  // namespace

int main() {
    return guide::run([] {
        kz::P<kz::IFileSystem> fileSystem(new kz::CMemoryFileSystem);
        const kz::CURI uri("mem:/disk.vmdk");
        std::vector<unsigned char> data(300000);
        for (size_t i = 0; i < data.size(); ++i) {
            data[i] = static_cast<unsigned char>(i % 251);
        }
        createAndWrite(fileSystem.get(), uri, data);
        openAndRead(fileSystem.get(), uri, data);
        readAsStream(fileSystem.get(), uri, data);
        guide::check(harl::CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(0) == 8388608 &&
                         harl::CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(8388609) ==
                             8388608 + 65536,
                     "sizes are at least 8 MiB, in steps of 64 KiB");
    });
}
