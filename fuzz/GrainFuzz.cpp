// Reads a stored grain from arbitrary file bytes, in the four forms and at several grain
// sizes. Input: one byte of flags (bit 0: encrypted; bit 1: not compressed; bits 2 and 3: a
// grain of 4, 1, 8 or 128 sectors), then the extent file from sector 1 on, where the grain's
// slot starts. Every read must end in data or in a kz::CError; a grain that reads must give
// the same plain bytes by the byte path and through its prepared form.
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/grain/CVMDKGrain.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr long long kGrainSizes[] = {4, 1, 8, 128};

struct CForm {
    bool encrypted;
    bool compressed;
    long long grainSizeSectors;
};

kz::P<harl::CVMDKGrain> openGrain(kz::CBufferStream* stream, const CForm& form) {
    kz::TCryptBuffer<unsigned char> key(32);
    key.fill(0x11);
    kz::TBuffer<unsigned char> iv(16);
    iv.fill(0x22);
    kz::P<vesk::ICipher> cipher;
    if (form.encrypted) {
        cipher = new vesk::CCipher_AES256CBC;
    }
    kz::P<harl::CVMDKGrain> grain(
        new harl::CVMDKGrain(stream, kz::IIOStream::AccessRead, form.grainSizeSectors, nullptr,
                             form.compressed, 1, nullptr, cipher.get(), key, iv));
    grain->open(0, 3, 1, form.compressed ? 1 : form.grainSizeSectors);
    return grain;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) {
        return 0;
    }
    const CForm form{(data[0] & 1) != 0, (data[0] & 2) == 0, kGrainSizes[(data[0] >> 2) & 3]};
    const int grainSizeBytes = static_cast<int>(form.grainSizeSectors * 512);
    kz::TBuffer<unsigned char> file(512 + size - 1);
    std::memset(file.getData(), 0, 512);
    if (size > 1) {
        std::memcpy(file.getData() + 512, data + 1, size - 1);
    }
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream(file));
    kz::P<harl::CVMDKGrain> grain = openGrain(stream.get(), form);
    kz::TBuffer<unsigned char> plain(grainSizeBytes);
    try {
        grain->read(plain.getData(), grainSizeBytes);
    } catch (const kz::CError&) {
        return 0;
    }
    kz::P<harl::CVMDKGrain> again = openGrain(stream.get(), form);
    kz::P<kz::TBuffer<unsigned char>> prepared(new kz::TBuffer<unsigned char>);
    again->readPreparedGrainData(*prepared);
    kz::P<kz::TBuffer<unsigned char>> aux(new kz::TBuffer<unsigned char>);
    // Without compression the prepared form is the plain grain itself.
    const kz::P<kz::TBuffer<unsigned char>> unprepared =
        again->createDataPreparer()->unprepareGrainData(prepared.get(), aux.get());
    if (!(*unprepared == plain)) {
        std::abort();
    }
    return 0;
}
