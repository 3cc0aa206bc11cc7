#include "tests/support/StreamOptimizedFile.h"

#include "harl/foundation/kz/P.h"
#include "harl/foundation/pcu/CZLibCompressor.h"

#include <zlib.h>

#include <algorithm>
#include <stdexcept>

namespace harltest {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr long long kSector = 512;
constexpr long long kGrainSectors = 128;
constexpr long long kGrainBytes = kGrainSectors * kSector;
constexpr int kDescriptorSectors = 2;

// Marker types of the published layout.
constexpr unsigned kEndOfStream = 0;
constexpr unsigned kGrainTable = 1;
constexpr unsigned kGrainDirectory = 2;
constexpr unsigned kFooter = 3;

void putLE(Bytes& file, size_t offset, unsigned long long value, int bytes) {
    for (int i = 0; i < bytes; ++i) {
        file[offset + i] = static_cast<unsigned char>(value >> (8 * i));
    }
}

long long appendSectors(Bytes& file, long long count) {
    const long long at = static_cast<long long>(file.size()) / kSector;
    file.resize(file.size() + count * kSector, 0);
    return at;
}

void appendMarker(Bytes& file, long long value, unsigned type) {
    const size_t at = appendSectors(file, 1) * kSector;
    putLE(file, at, value, 8);
    putLE(file, at + 12, type, 4);
}

// The header, offsets of the published sparse extent header.
void putHeader(Bytes& file, size_t at, long long capacitySectors, long long grainsPerTable,
               unsigned long long directory) {
    putLE(file, at + 0, 0x564D444B, 4);               // magic "KDMV"
    putLE(file, at + 4, 3, 4);                        // version
    putLE(file, at + 8, 0x1 | 0x10000 | 0x20000, 4);  // line check, compressed, markers
    putLE(file, at + 12, capacitySectors, 8);         // capacity
    putLE(file, at + 20, kGrainSectors, 8);           // grain size
    putLE(file, at + 28, 1, 8);                       // descriptor offset
    putLE(file, at + 36, kDescriptorSectors, 8);      // descriptor size
    putLE(file, at + 44, grainsPerTable, 4);          // entries per grain table
    putLE(file, at + 56, directory, 8);               // grain directory
    putLE(file, at + 64, 1 + kDescriptorSectors, 8);  // overhead
    putLE(file, at + 73, 0x0A0D200A, 4);              // "\n \r\n"
    putLE(file, at + 77, 1, 2);                       // deflate
}

void appendGrain(Bytes& file, const unsigned char* data, long long grainIndex,
                 pcu::CZLibCompressor& zlib, int emptyBlocks) {
    Bytes packed(static_cast<size_t>(zlib.getCompressedSizeUpperBound(kGrainBytes)));
    packed.resize(static_cast<size_t>(zlib.compressSingleStep(data, kGrainBytes, packed.data(),
                                                              static_cast<int>(packed.size()))));
    // An empty stored block that is not the last: its header bits padded to a byte, a length
    // of 0 and its complement. It leaves the deflate data byte-aligned, as it found it.
    const Bytes emptyBlock = {0x00, 0x00, 0x00, 0xff, 0xff};
    for (int i = 0; i < emptyBlocks; ++i) {
        packed.insert(packed.begin() + 2, emptyBlock.begin(), emptyBlock.end());
    }
    const int size = static_cast<int>(packed.size());
    const long long sector = appendSectors(file, (12 + size + kSector - 1) / kSector);
    putLE(file, sector * kSector, grainIndex * kGrainSectors, 8);
    putLE(file, sector * kSector + 8, static_cast<unsigned>(size), 4);
    std::copy(packed.begin(), packed.begin() + size, file.begin() + sector * kSector + 12);
}

}  // namespace

CStreamOptimizedLayout buildStreamOptimizedFile(const Bytes& raw, const std::string& fileName,
                                                long long grainsPerTable, int emptyBlocks) {
    const long long tableSectors = (grainsPerTable * 4 + kSector - 1) / kSector;
    const long long capacitySectors = static_cast<long long>(raw.size()) / kSector;
    const long long grainCount = (capacitySectors + kGrainSectors - 1) / kGrainSectors;
    const long long tableCount = (grainCount + grainsPerTable - 1) / grainsPerTable;
    CStreamOptimizedLayout layout;
    layout.grainSectors.assign(static_cast<size_t>(grainCount), 0);
    Bytes file(static_cast<size_t>((1 + kDescriptorSectors) * kSector), 0);
    putHeader(file, 0, capacitySectors, grainsPerTable, ~0ULL);
    const std::string descriptor =
        "# Disk DescriptorFile\nversion=1\nCID=7e57da7a\nparentCID=ffffffff\n"
        "createType=\"streamOptimized\"\nRW " +
        std::to_string(capacitySectors) + " SPARSE \"" + fileName + "\"\n";
    std::copy(descriptor.begin(), descriptor.end(), file.begin() + kSector);

    kz::P<pcu::CZLibCompressor> zlib(new pcu::CZLibCompressor(6));
    Bytes grain(static_cast<size_t>(kGrainBytes));
    for (long long table = 0; table < tableCount; ++table) {
        std::vector<unsigned> entries(static_cast<size_t>(grainsPerTable), 0);
        for (long long i = 0; i < grainsPerTable; ++i) {
            const long long index = table * grainsPerTable + i;
            const long long start = index * kGrainBytes;
            if (index >= grainCount) {
                break;
            }
            const long long length = std::min<long long>(kGrainBytes, raw.size() - start);
            std::fill(grain.begin(), grain.end(), 0);
            std::copy(raw.begin() + start, raw.begin() + start + length, grain.begin());
            if (std::all_of(grain.begin(), grain.end(), [](unsigned char b) { return b == 0; })) {
                continue;
            }
            layout.grainSectors[index] = static_cast<long long>(file.size()) / kSector;
            entries[i] = static_cast<unsigned>(layout.grainSectors[index]);
            appendGrain(file, grain.data(), index, *zlib, emptyBlocks);
        }
        if (std::all_of(entries.begin(), entries.end(), [](unsigned e) { return e == 0; })) {
            layout.tableSectors.push_back(0);
            continue;
        }
        appendMarker(file, tableSectors, kGrainTable);
        layout.tableSectors.push_back(appendSectors(file, tableSectors));
        for (long long i = 0; i < grainsPerTable; ++i) {
            putLE(file, (layout.tableSectors.back() * kSector) + i * 4, entries[i], 4);
        }
    }
    const long long directorySectors = (tableCount * 4 + kSector - 1) / kSector;
    appendMarker(file, directorySectors, kGrainDirectory);
    layout.directorySector = appendSectors(file, directorySectors);
    for (long long table = 0; table < tableCount; ++table) {
        putLE(file, layout.directorySector * kSector + table * 4, layout.tableSectors[table], 4);
    }
    appendMarker(file, 1, kFooter);
    putHeader(file, appendSectors(file, 1) * kSector, capacitySectors, grainsPerTable,
              layout.directorySector);
    appendMarker(file, 0, kEndOfStream);
    layout.file.assign(file.data(), file.size());
    return layout;
}

}  // namespace harltest
