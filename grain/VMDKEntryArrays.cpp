#include "harl/grain/VMDKEntryArrays.h"

#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <algorithm>
#include <bit>
#include <climits>

namespace harl {

namespace {

// One read or write takes an int count of bytes; larger arrays go in pieces of this size.
constexpr long long kMaxTransferBytes = 1LL << 30;

template <class T>
void swapToOrFromLittleEndian(T* values, size_t count) {
    if constexpr (std::endian::native == std::endian::big) {
        for (size_t i = 0; i < count; ++i) {
            T swapped = 0;
            for (size_t byte = 0; byte < sizeof(T); ++byte) {
                swapped = static_cast<T>(swapped << 8 | ((values[i] >> (8 * byte)) & 0xff));
            }
            values[i] = swapped;
        }
    }
}

template <class T>
void readSizedEntries(kz::IIOStream& stream, kz::TBuffer<T>& entries) {
    unsigned char* bytes = reinterpret_cast<unsigned char*>(entries.getData());
    long long left = static_cast<long long>(entries.getUsed() * sizeof(T));
    while (left > 0) {
        const int piece = static_cast<int>(std::min(left, kMaxTransferBytes));
        stream.read(bytes, piece);
        bytes += piece;
        left -= piece;
    }
    swapToOrFromLittleEndian(entries.getData(), entries.getUsed());
}

template <class T>
void writeBytes(kz::IIOStream& stream, const kz::TBuffer<T>& entries) {
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(entries.getData());
    const long long sizeBytes = static_cast<long long>(entries.getUsed() * sizeof(T));
    for (long long done = 0; done < sizeBytes;) {
        const int piece = static_cast<int>(std::min(sizeBytes - done, kMaxTransferBytes));
        stream.write(bytes + done, piece, nullptr);
        done += piece;
    }
}

void checkCount(long long count) {
    if (count < 0) {
        throw kz::CInvalidArgError("readVMDKEntries",
                                   "Invalid entry count: " + kz::String::number(count));
    }
}

}  // namespace

long long vmdkSectorsToBytesSaturated(long long sectors) {
    if (sectors > LLONG_MAX / kSectorSizeBytes) {
        return LLONG_MAX;
    }
    if (sectors < LLONG_MIN / kSectorSizeBytes) {
        return LLONG_MIN;
    }
    return sectors * kSectorSizeBytes;
}

template <class T>
void readVMDKEntries(kz::IIOStream& stream, long long posSectors, long long count,
                     kz::TBuffer<T>& entries) {
    checkCount(count);
    entries.setUsed(static_cast<size_t>(count));
    stream.seek(vmdkSectorsToBytesSaturated(posSectors));
    readSizedEntries(stream, entries);
}

template <class T>
void readVMDKEntriesWithinLength(kz::IIOStream& stream, long long posSectors, long long count,
                                 kz::TBuffer<T>& entries) {
    checkCount(count);
    const long long posBytes = vmdkSectorsToBytesSaturated(posSectors);
    stream.seek(posBytes);
    const long long availableBytes = std::max(0LL, stream.getLength() - posBytes);
    if (count > availableBytes / static_cast<long long>(sizeof(T))) {
        throw kz::CIOError(kz::CIOError::EndOfData, "Unexpected end of data",
                           kz::CProps().add("uri", stream.getURI().toString(true)));
    }
    entries.setUsed(static_cast<size_t>(count));
    readSizedEntries(stream, entries);
}

template <class T>
void writeVMDKEntries(kz::IIOStream& stream, long long posSectors, const kz::TBuffer<T>& entries) {
    stream.seek(vmdkSectorsToBytesSaturated(posSectors));
    if constexpr (std::endian::native == std::endian::big) {
        kz::TBuffer<T> swapped(entries);
        swapToOrFromLittleEndian(swapped.getData(), swapped.getUsed());
        writeBytes(stream, swapped);
    } else {
        writeBytes(stream, entries);
    }
}

template void readVMDKEntries(kz::IIOStream&, long long, long long, kz::TBuffer<unsigned int>&);
template void readVMDKEntries(kz::IIOStream&, long long, long long, kz::TBuffer<unsigned short>&);
template void readVMDKEntriesWithinLength(kz::IIOStream&, long long, long long,
                                          kz::TBuffer<unsigned int>&);
template void readVMDKEntriesWithinLength(kz::IIOStream&, long long, long long,
                                          kz::TBuffer<unsigned short>&);
template void writeVMDKEntries(kz::IIOStream&, long long, const kz::TBuffer<unsigned int>&);
template void writeVMDKEntries(kz::IIOStream&, long long, const kz::TBuffer<unsigned short>&);

}  // namespace harl
