#pragma once

#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataOutStream.h"

#include <vector>

// Header-only, so that benchmarks can use it without the test support library.
namespace harltest {

// Where layOutGrainMetadata put the pieces, in sectors.
struct CGrainMetadataLayout {
    long long directorySectors = 0;
    long long redundantDirectorySectors = 0;
    long long slotMarkerSector = 0;  // 0: no slot directory
    std::vector<long long> tableSectors;
    std::vector<long long> redundantTableSectors;
    std::vector<long long> slotTableSectors;
};

struct CGrainMetadataOptions {
    long long tableCount = 1;
    int grainsPerTable = 512;
    bool slotSizes = false;
};

namespace detail {

inline void padToSector(kz::CBufferStream& stream) {
    const long long rest = stream.getLength() % harl::kSectorSizeBytes;
    if (rest > 0) {
        stream.setLength(stream.getLength() + harl::kSectorSizeBytes - rest);
    }
}

// A directory at the stream's end, then `count` zero tables of `tableSectors` behind it.
inline std::vector<long long> appendDirectoryAndTables(kz::CBufferStream& stream, long long count,
                                                       long long tableSectors) {
    const long long directorySectors =
        (count * 4 + harl::kSectorSizeBytes - 1) / harl::kSectorSizeBytes;
    const long long firstTable = stream.getLength() / harl::kSectorSizeBytes + directorySectors;
    std::vector<long long> tables;
    stream.seek(stream.getLength());
    kz::CDataOutStream out(&stream);
    for (long long i = 0; i < count; ++i) {
        tables.push_back(firstTable + i * tableSectors);
        out.writeUInt32(static_cast<unsigned int>(tables.back()));
    }
    padToSector(stream);
    stream.setLength((firstTable + count * tableSectors) * harl::kSectorSizeBytes);
    return tables;
}

}  // namespace detail

// Appends the grain metadata of an extent to `stream`, whose length is a whole number of
// sectors, in the order of a new extent file: the redundant directory and its tables, the
// directory and its tables, then with slot sizes the slot directory marker, the slot directory
// and the slot-size tables. Tables are zero and have no markers in front of them.
inline CGrainMetadataLayout layOutGrainMetadata(kz::CBufferStream& stream,
                                                const CGrainMetadataOptions& options) {
    const long long sector = harl::kSectorSizeBytes;
    const long long tableSectors = (options.grainsPerTable * 4LL + sector - 1) / sector;
    const long long slotTableSectors = (options.grainsPerTable * 2LL + sector - 1) / sector;
    CGrainMetadataLayout layout;
    layout.redundantDirectorySectors = stream.getLength() / sector;
    layout.redundantTableSectors =
        detail::appendDirectoryAndTables(stream, options.tableCount, tableSectors);
    layout.directorySectors = stream.getLength() / sector;
    layout.tableSectors =
        detail::appendDirectoryAndTables(stream, options.tableCount, tableSectors);
    if (options.slotSizes) {
        layout.slotMarkerSector = stream.getLength() / sector;
        const long long directorySectors = (options.tableCount * 4 + sector - 1) / sector;
        kz::TBuffer<unsigned char> zeros(static_cast<size_t>(sector));
        zeros.fill(0);
        stream.seek(stream.getLength());
        kz::CDataOutStream out(&stream);
        harl::writeVMDKMarker(out, harl::VMDKMarkerSlotSizeDirectory, directorySectors, zeros);
        layout.slotTableSectors =
            detail::appendDirectoryAndTables(stream, options.tableCount, slotTableSectors);
    }
    return layout;
}

// Writes a little-endian 32-bit value at `byteOffset`, to set or corrupt an entry.
inline void pokeUInt32(kz::CBufferStream& stream, long long byteOffset, unsigned int value) {
    stream.seek(byteOffset);
    kz::CDataOutStream(&stream).writeUInt32(value);
}

inline void pokeUInt16(kz::CBufferStream& stream, long long byteOffset, unsigned short value) {
    stream.seek(byteOffset);
    kz::CDataOutStream(&stream).writeUInt16(value);
}

}  // namespace harltest
