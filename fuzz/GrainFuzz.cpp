// Reads a stored compressed grain from arbitrary file bytes, with and without encryption.
// Input: one byte of flags (bit 0: encrypted), then the extent file from sector 1 on, where
// the grain's slot starts. Every read must end in data or in a kz::CError; a grain that reads
// must give the same plain bytes by the byte path and through its prepared form.
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/grain/CVMDKGrain.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr long long kGrainSizeSectors = 4;
constexpr int kGrainSizeBytes = 2048;

kz::P<harl::CVMDKGrain> openGrain(kz::CBufferStream* stream, bool encrypted) {
    kz::TCryptBuffer<unsigned char> key(32);
    key.fill(0x11);
    kz::TBuffer<unsigned char> iv(16);
    iv.fill(0x22);
    kz::P<vesk::ICipher> cipher;
    if (encrypted) {
        cipher = new vesk::CCipher_AES256CBC;
    }
    kz::P<harl::CVMDKGrain> grain(new harl::CVMDKGrain(stream, kz::IIOStream::AccessRead,
                                                       kGrainSizeSectors, nullptr, true, 1, nullptr,
                                                       cipher.get(), key, iv));
    grain->open(0, 3, 1, 1);
    return grain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const bool encrypted = (data[0] & 1) != 0;
    kz::TBuffer<unsigned char> file(512 + size - 1);
    std::memset(file.getData(), 0, 512);
    if (size > 1) {
        std::memcpy(file.getData() + 512, data + 1, size - 1);
    }
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file));
    kz::P<harl::CVMDKGrain> grain = openGrain(stream.get(), encrypted);
    kz::TBuffer<unsigned char> plain(kGrainSizeBytes);
    try {
        grain->read(plain.getData(), kGrainSizeBytes);
    } catch (const kz::CError&) {
        return 0;
    }
    kz::P<harl::CVMDKGrain> again = openGrain(stream.get(), encrypted);
    kz::P<kz::TBuffer<unsigned char>> prepared(new kz::TBuffer<unsigned char>);
    again->readPreparedGrainData(*prepared);
    kz::P<kz::TBuffer<unsigned char>> unprepared(new kz::TBuffer<unsigned char>);
    again->createDataPreparer()->unprepareGrainData(prepared.get(), unprepared.get());
    if (!(*unprepared == plain)) {
        std::abort();
    }
    return 0;
}
