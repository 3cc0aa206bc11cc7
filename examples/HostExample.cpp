// A host program: makes an encrypted, compressed disk, writes a pattern into it, opens it again
// and reads the pattern back through the disk stream, then moves every written grain to a
// second disk in prepared form and checks that the copy reads the same.
//
// Usage: harl_host_example <folder>. The disks are made in the folder, which must exist.

#include "harl/Version.h"
#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKDiskIOStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/TPathImpl.h"

#include <cstdio>
#include <string>
#include <vector>

namespace {

const long long kDiskBytes = 64LL * 1024 * 1024;
// Every fourth MiB of the disk is written; the rest stays a hole.
const int kChunkBytes = 1024 * 1024;
const long long kChunkStrideBytes = 4LL * kChunkBytes;

kz::CURI localURI(const std::string& path) {
    return kz::CURI(kz::TPathImpl<kz::CUnixPathTraits>(kz::String(path)), false);
}

// Text-like bytes that compress, different for every chunk.
std::vector<unsigned char> chunkData(long long chunk) {
    std::vector<unsigned char> data(kChunkBytes);
    for (size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<unsigned char>('a' + (i / 7 + chunk) % 26);
    }
    return data;
}

void writeDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri, const kz::String& password) {
    kz::P<harl::CVMDKDisk> disk = harl::CVMDKDisk::create(
        fileSystem, uri, kDiskBytes, password, /*compressed*/ true, /*compressionLevel*/ -1,
        /*fileSizeLimit*/ -1, /*sParentRelPath*/ "", /*parentContentID*/ 0xFFFFFFFF,
        /*createExtentFilesOnDemand*/ false);
    for (long long offset = 0; offset < kDiskBytes; offset += kChunkStrideBytes) {
        const std::vector<unsigned char> data = chunkData(offset / kChunkStrideBytes);
        disk->seek(offset);
        disk->write(data.data(), kChunkBytes);
    }
    disk->flushChanges();
}

// Reads the disk through its stream and compares every byte with what writeDisk wrote.
void checkDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri, const kz::String& password) {
    kz::P<kz::IIOStream> stream(
        new harl::CVMDKDiskIOStream(fileSystem, uri, kz::IIOStream::AccessRead, password));
    if (stream->getLength() != kDiskBytes) {
        throw kz::CError("The disk has another size than it was made with.");
    }
    std::vector<unsigned char> read(kChunkBytes);
    const std::vector<unsigned char> hole(kChunkBytes, 0);
    for (long long offset = 0; offset < kDiskBytes; offset += kChunkBytes) {
        stream->read(read.data(), kChunkBytes);
        const bool written = offset % kChunkStrideBytes == 0;
        if (read != (written ? chunkData(offset / kChunkStrideBytes) : hole)) {
            throw kz::CError("The disk reads other bytes than were written at " +
                             kz::String::number(offset) + ".");
        }
    }
}

// Moves every written grain of `source` to the new disk `target`, in prepared form: grains
// pass compressed, decrypted from the source's key and encrypted under the target's.
long long copyPrepared(kz::IFileSystem* fileSystem, const kz::CURI& source,
                       const kz::String& sourcePassword, const kz::CURI& target,
                       const kz::String& targetPassword) {
    kz::P<harl::CVMDKDisk> from = kz::makeP<harl::CVMDKDisk>(
        fileSystem, source, kz::IIOStream::AccessRead, sourcePassword, -1, nullptr, nullptr);
    kz::P<harl::CVMDKDisk> to =
        harl::CVMDKDisk::create(fileSystem, target, from->getSizeBytes(), targetPassword,
                                from->getCompressed(), -1, -1, "", 0xFFFFFFFF, false);
    kz::TBuffer<unsigned char> grain;
    long long copied = 0;
    for (long long offset = 0; offset < from->getSizeBytes(); offset += from->getGrainSizeBytes()) {
        from->seek(offset);
        if (!from->isGrainWritten()) {
            continue;
        }
        from->readPreparedGrainData(grain);
        to->seek(offset);
        to->writePreparedGrainData(grain);
        ++copied;
    }
    to->flushChanges();
    return copied;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "Usage: %s <folder>\n", argv[0]);
        return 2;
    }
    try {
        kz::P<kz::IFileSystem> fileSystem(new kz::CLocalFileSystem);
        const kz::CURI first = localURI(std::string(argv[1]) + "/first.vmdk");
        const kz::CURI second = localURI(std::string(argv[1]) + "/second.vmdk");
        writeDisk(fileSystem.get(), first, "first password");
        checkDisk(fileSystem.get(), first, "first password");
        const long long grains =
            copyPrepared(fileSystem.get(), first, "first password", second, "second password");
        checkDisk(fileSystem.get(), second, "second password");
        std::printf("harl %s: wrote, read back and moved %lld grains in prepared form.\n",
                    HARL_VERSION_STRING, grains);
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "harl_host_example: %s\n", e.what());
        return 1;
    }
}
