#pragma once

#include "harl/foundation/kz/CDataOutStream.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

class CVMDKDescriptor;

// Writing a new sparse extent with no grain allocated yet. All metadata is laid out in
// advance, so that later writes only fill in table entries.
//
// With G the grain size in sectors, T = ceil(grainCount / 512) grain tables of 512 entries,
// D = ceil(4T / 512) sectors per directory and S the descriptor's sectors (0 without one),
// a new extent lies out as follows, in sectors from the start of the file.
//
// Without compression:
//
// | start         | length | content                                                 |
// |---------------|--------|---------------------------------------------------------|
// | 0             | 1      | header                                                  |
// | 1             | S      | descriptor text and zero fill                           |
// | R = 1 + S     | D      | redundant grain directory; entry i holds R + D + 4i     |
// | R + D         | 4T     | redundant grain tables, all zero                        |
// | P = R + D + 4T| D      | grain directory; entry i holds P + D + 4i               |
// | P + D         | 4T     | grain tables, all zero                                  |
// | E = P + D + 4T| ...    | zero fill up to the overhead, E rounded up to a grain   |
//
// With compression every directory and table is announced by a marker sector:
//
// | start             | length | content                                               |
// |-------------------|--------|-------------------------------------------------------|
// | 0                 | 1      | header                                                |
// | 1                 | S      | descriptor text and zero fill                         |
// | 1 + S             | 1      | grain directory marker, value D                       |
// | R = 2 + S         | D      | redundant grain directory; entry i holds R + D + 1 + 5i|
// | R + D             | 5T     | per table: grain table marker (value 4), 4 zero sectors|
// | R + D + 5T        | 1      | grain directory marker, value D                       |
// | P = R + D + 5T + 1| D      | grain directory; entry i holds P + D + 1 + 5i         |
// | P + D             | 5T     | per table: grain table marker, 4 zero sectors         |
// | P + D + 5T        | 1      | slot-size directory marker, value D                   |
// | Q = P + D + 5T + 1| D      | slot-size directory; entry i holds Q + D + 1 + 3i     |
// | Q + D             | 3T     | per table: slot-size table marker (value 2), 2 zero   |
// |                   |        | sectors                                               |
// | E = Q + D + 3T    | ...    | zero fill up to the overhead, E rounded up to a grain |
// | overhead          | 1      | footer marker, value 1                                |
// | overhead + 1      | 1      | footer: a second copy of the header                   |
// | overhead + 2      | 1      | end-of-stream marker, value 0                         |
//
// Header: version 1, flags 0x3, compressAlgorithm 0 without compression; version 3, flags
// 0x30003, compressAlgorithm 1 with it; grainTableEntryCount 512; capacity grainCount x G.
// A non-empty key hash adds the encryption extension (AES-256-CBC, SHA-256).

// Grain table entries per table in a new extent.
constexpr long long kVMDKNewGrainTableEntryCount = 512;

// Creates the file at `uri` (an existing file is opened, not shortened) and writes the layout
// above. `descriptor` may be null; then `descriptorSizeSectors` is not used. `zeroBuffer`
// supplies every fill: the caller keeps it zero, at least 512 bytes and, with a descriptor,
// at least as long as the descriptor's space less its text. A failure deletes the
// half-made file, logs, and lets the first error through.
void createEmptyVMDKSparseExtentFile(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                     bool compressed, long long grainCount,
                                     long long grainSizeSectors,
                                     const kz::TBuffer<unsigned char>& zeroBuffer,
                                     CVMDKDescriptor* descriptor, long long descriptorSizeSectors,
                                     const kz::TBuffer<unsigned char>& encryptionKeyHash);

// Writes a directory of `tableCount` entries at the stream's position, then the tables, all
// zero, each behind a grain table marker if `withMarkers`.
void writeEmptyVMDKGrainDirectoryAndTables(kz::CDataOutStream& out, long long tableCount,
                                           const kz::TBuffer<unsigned char>& zeroBuffer,
                                           bool withMarkers);

// Writes the slot-size directory marker, the slot-size directory and its tables, each table
// behind its marker and all zero.
void writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
    kz::CDataOutStream& out, long long tableCount, const kz::TBuffer<unsigned char>& zeroBuffer);

}  // namespace harl
