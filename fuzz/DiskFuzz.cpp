// Opens a whole disk held in the in-memory file system, from arbitrary files: a descriptor
// file or a sparse extent with its descriptor, extent files, a parent with its own. Reads at
// places spread over the disk and, opened for writing, writes two pieces, flushes, closes and
// reads them back. Any input must end in the system's errors; pieces written and flushed
// without an error must read back as written.
//
// Input: one byte of flags (bit 0: open for writing), then files, each as one byte naming it
// (an index into kNames), three bytes of length (little-endian) and its bytes.
#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/Log.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

const char* const kNames[] = {"disk.vmdk",      "disk-s00000.vmdk",   "disk-s00001.vmdk",
                              "parent.vmdk",    "parent-s00000.vmdk", "disk-s001.vmdk",
                              "disk-s002.vmdk", "parent-s001.vmdk"};
constexpr int kNameCount = sizeof(kNames) / sizeof(kNames[0]);
// Reads and writes stay small and few whatever the descriptor claims.
constexpr int kPlaces = 32;
constexpr int kPieceBytes = 512;

kz::CURI uriOf(const char* name) {
    return kz::CURI(std::string("file:///d/") + name);
}

kz::P<harl::CVMDKDisk> openDisk(kz::IFileSystem* fs, kz::IIOStream::Access access) {
    return kz::makeP<harl::CVMDKDisk>(fs, uriOf(kNames[0]), access, "", 1, nullptr, nullptr);
}

void readPlaces(harl::CVMDKDisk& disk) {
    std::vector<unsigned char> buffer(kPieceBytes);
    const long long size = disk.getSizeBytes();
    for (int place = 0; place < kPlaces && size >= kPieceBytes; ++place) {
        try {
            disk.seek((size - kPieceBytes) / (kPlaces - 1) * place / 512 * 512);
            disk.read(buffer.data(), kPieceBytes);
        } catch (const kz::CError&) {
            // A place that cannot be read; the others go on.
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const kz::LogSink quiet = kz::setLogSink([](kz::LogLevel, const kz::String&) {});
    if (size < 1) {
        return 0;
    }
    const bool writable = (data[0] & 1) != 0;
    kz::P<kz::CMemoryFileSystem> fs(new kz::CMemoryFileSystem);
    for (size_t at = 1; at + 4 <= size;) {
        const char* name = kNames[data[at] % kNameCount];
        const size_t length = std::min<size_t>(
            data[at + 1] | data[at + 2] << 8 | static_cast<size_t>(data[at + 3]) << 16,
            size - at - 4);
        fs->open(uriOf(name), kz::IIOStream::AccessReadWrite, 0)
            ->write(data + at + 4, static_cast<int>(length), nullptr);
        at += 4 + length;
    }
    const std::vector<unsigned char> first(kPieceBytes, 0xa1), last(kPieceBytes, 0x5e);
    long long lastPosition = 0;
    try {
        kz::P<harl::CVMDKDisk> disk = openDisk(
            fs.get(), writable ? kz::IIOStream::AccessReadWrite : kz::IIOStream::AccessRead);
        readPlaces(*disk);
        // The two pieces must not overlap.
        if (!writable || disk->getSizeBytes() < 4 * kPieceBytes) {
            return 0;
        }
        lastPosition = (disk->getSizeBytes() - kPieceBytes) / 512 * 512;
        disk->seek(512);
        disk->write(first.data(), kPieceBytes);
        disk->seek(lastPosition);
        disk->write(last.data(), kPieceBytes);
        disk->flushChanges();
    } catch (const kz::CError&) {
        return 0;
    }
    kz::P<harl::CVMDKDisk> reader = openDisk(fs.get(), kz::IIOStream::AccessRead);
    std::vector<unsigned char> back(kPieceBytes);
    reader->seek(512);
    reader->read(back.data(), kPieceBytes);
    if (back != first) {
        std::abort();
    }
    reader->seek(lastPosition);
    reader->read(back.data(), kPieceBytes);
    if (back != last) {
        std::abort();
    }
    return 0;
}
