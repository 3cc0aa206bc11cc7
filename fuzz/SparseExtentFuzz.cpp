// Opens a sparse extent file made of arbitrary bytes, reads its grains, and, opened for
// writing, writes two grains, closes it and reads them back. Any input must end in the
// system's errors: no crash, no undefined behaviour, no allocation or loop sized by an
// unchecked value; and two grains that were written and closed without an error must read
// back as written, so that no write went through a table entry into something else.
//
// Input: one byte of flags (bit 0: open for writing), then the extent file. An encrypted file
// is opened with the key that the seeds were made with (32 bytes of 0x5c).
#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/Log.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

// Work per input stays bounded whatever the header says: grains are read whole, so only
// small ones are read, and only the first few.
constexpr long long kMaxGrainSectorsRead = 128;
constexpr long long kMaxGrainsRead = 64;
const kz::CURI kExtent("mem:///d/e.vmdk");
const kz::CURI kMain("mem:///d/main.vmdk");

bool isEncrypted(const uint8_t* file, size_t size) {
    // The encryption extension's magic, with an algorithm other than 0.
    return size >= 81 && file[0] == 0x45 && file[1] == 0x4b && file[2] == 0x64 && file[3] == 0x05 &&
           (file[79] != 0 || file[80] != 0);
}

struct CWorld {
    kz::P<kz::CMemoryFileSystem> fs{new kz::CMemoryFileSystem};
    kz::P<vesk::ICipher> cipher;
    kz::TCryptBuffer<unsigned char> key;
    kz::TBuffer<unsigned char> iv;
    kz::P<harl::CVMDKContentIDUpdater> updater;

    CWorld(bool encrypted) {
        key.setUsed(32);
        key.fill(0x5c);
        iv.setUsed(16);
        iv.fill(0x3a);
        if (encrypted) {
            cipher = new vesk::CCipher_AES256CBC;
        }
        const std::string text = "version=1\nCID=1\nparentCID=ffffffff\n" + std::string(200, '\0');
        kz::P<kz::IIOStream> main = fs->open(kMain, kz::IIOStream::AccessReadWrite, 0);
        main->write(text.data(), static_cast<int>(text.size()), nullptr);
        kz::TBuffer<unsigned char> textBuffer;
        textBuffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        kz::P<harl::CVMDKDescriptor> descriptor(new harl::CVMDKDescriptor(textBuffer));
        updater = new harl::CVMDKContentIDUpdater(fs.get(), kMain, descriptor.get());
    }

    kz::P<harl::CVMDKSparseExtentFile> open(kz::IIOStream::Access access) {
        kz::P<kz::IIOStream> stream = harl::openVMDKFileStream(fs.get(), kExtent, access);
        kz::P<harl::CVMDKGrainTableCache> cache(new harl::CVMDKGrainTableCache(4));
        return new harl::CVMDKSparseExtentFile(
            stream.get(), access, 0, 1, cache.get(), nullptr, updater.get(), cipher.get(),
            cipher ? key : kz::TCryptBuffer<unsigned char>(), iv);
    }
};

void readGrains(harl::CVMDKSparseExtentFile& extent) {
    const long long grainBytes = extent.getGrainSizeSectors() * 512;
    if (extent.getGrainSizeSectors() > kMaxGrainSectorsRead) {
        return;
    }
    const long long grains = std::min(extent.getCapacityBytes() / grainBytes, kMaxGrainsRead);
    std::vector<unsigned char> buffer(static_cast<size_t>(grainBytes));
    for (long long grain = 0; grain < grains; ++grain) {
        try {
            extent.seek(grain * grainBytes);
            extent.read(buffer.data(), static_cast<int>(grainBytes));
        } catch (const kz::CError&) {
            // A grain that cannot be read; the others go on.
        }
    }
}

// Writes the first grain in part and the last whole; true when the writes and the close
// reported no error, so that both must read back.
bool writeTwoGrains(harl::CVMDKSparseExtentFile& extent, std::vector<unsigned char>& first,
                    std::vector<unsigned char>& last, long long& lastPosition) {
    const long long grainBytes = extent.getGrainSizeSectors() * 512;
    const long long grains = extent.getCapacityBytes() / grainBytes;
    if (grains < 2 || extent.getGrainSizeSectors() > kMaxGrainSectorsRead) {
        return false;
    }
    first.assign(100, 0xa1);
    last.resize(static_cast<size_t>(grainBytes));
    for (size_t i = 0; i < last.size(); ++i) {
        last[i] = static_cast<unsigned char>(i * 7 + i / 511);
    }
    lastPosition = (std::min(grains, kMaxGrainsRead) - 1) * grainBytes;
    try {
        extent.seek(300);
        extent.write(first.data(), static_cast<int>(first.size()));
        extent.seek(lastPosition);
        extent.write(last.data(), static_cast<int>(last.size()));
        extent.close();
    } catch (const kz::CError&) {
        return false;
    }
    return true;
}

void expectReadBack(harl::CVMDKSparseExtentFile& extent, long long position,
                    const std::vector<unsigned char>& expected) {
    std::vector<unsigned char> back(expected.size());
    extent.seek(position);
    extent.read(back.data(), static_cast<int>(back.size()));
    if (back != expected) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const kz::LogSink quiet = kz::setLogSink([](kz::LogLevel, const kz::String&) {});
    if (size < 1) {
        return 0;
    }
    const bool writable = (data[0] & 1) != 0;
    CWorld world(isEncrypted(data + 1, size - 1));
    {
        kz::P<kz::IIOStream> file = world.fs->open(kExtent, kz::IIOStream::AccessReadWrite, 0);
        file->write(data + 1, static_cast<int>(size - 1), nullptr);
        file->close();
    }
    std::vector<unsigned char> first, last;
    long long lastPosition = 0;
    try {
        kz::P<harl::CVMDKSparseExtentFile> extent =
            world.open(writable ? kz::IIOStream::AccessReadWrite : kz::IIOStream::AccessRead);
        readGrains(*extent);
        if (!writable || !writeTwoGrains(*extent, first, last, lastPosition)) {
            return 0;
        }
    } catch (const kz::CError&) {
        return 0;
    }
    kz::P<harl::CVMDKSparseExtentFile> reader = world.open(kz::IIOStream::AccessRead);
    expectReadBack(*reader, 300, first);
    expectReadBack(*reader, lastPosition, last);
    return 0;
}
