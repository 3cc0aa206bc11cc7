#pragma once

#include "harl/foundation/kz/CDataOutStream.h"
#include "harl/foundation/kz/IOutStream.h"
#include "harl/foundation/kz/IStreamBase.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

// Sector arithmetic and the marker sector that announces each piece of metadata in files of
// the marker form.
//
// Marker sector, 512 bytes, little-endian:
//
// | offset | size | field | meaning                                                        |
// |--------|------|-------|----------------------------------------------------------------|
// | 0      | 8    | value | signed; sectors of metadata that follow, by type (see below)    |
// | 8      | 4    | size  | always 0; a non-zero value means the sector is no marker        |
// | 12     | 4    | type  | VMDKMarkerID                                                    |
// | 16     | 496  | fill  | all zero                                                        |
//
// | type       | name                        | followed by               | value            |
// |------------|-----------------------------|---------------------------|------------------|
// | 0          | VMDKMarkerEndOfStream       | nothing; last sector      | 0                |
// | 1          | VMDKMarkerGrainTable        | one grain table           | 4                |
// | 2          | VMDKMarkerGrainDirectory    | a grain directory         | its sectors      |
// | 3          | VMDKMarkerFooter            | a copy of the header      | 1                |
// | 0x18349001 | VMDKMarkerSlotSizeTable     | one slot-size table       | 2                |
// | 0x18349002 | VMDKMarkerSlotSizeDirectory | the slot-size directory   | its sectors      |
//
// The first four are the published types; the slot-size types are this library's own.

constexpr int kSectorSizeBytes = 512;

enum VMDKMarkerID : unsigned int {
    VMDKMarkerEndOfStream = 0,
    VMDKMarkerGrainTable = 1,
    VMDKMarkerGrainDirectory = 2,
    VMDKMarkerFooter = 3,
    VMDKMarkerSlotSizeTable = 0x18349001,
    VMDKMarkerSlotSizeDirectory = 0x18349002,
};

constexpr int kMarkerValueOffsetBytes = 0;
constexpr int kMarkerSizeOffsetBytes = 8;
constexpr int kMarkerTypeOffsetBytes = 12;
constexpr int kMarkerFillOffsetBytes = 16;
constexpr int kMarkerFillSizeBytes = kSectorSizeBytes - kMarkerFillOffsetBytes;
static_assert(kMarkerFillSizeBytes == 496);

// Writes one marker sector at the stream's position: value, a zero size word, `id`, then the
// first 496 bytes of `zeroBuffer`, which the caller keeps zero and at least that long.
void writeVMDKMarker(kz::CDataOutStream& out, VMDKMarkerID id, long long value,
                     const kz::TBuffer<unsigned char>& zeroBuffer);

// True when the 512 bytes at `sector` are a marker of type `id`: size word 0, type `id`, fill
// all zero. `value`, if given, is set to 0 first and receives the value field on success.
bool isVMDKMarker(const unsigned char* sector, VMDKMarkerID id, long long* value);

// Writes `byteCount` bytes taken from the start of `padBuffer`, reusing it as often as needed.
// A count of 0 or less writes nothing; a positive count needs a non-empty buffer.
void vmdkWritePadding(kz::IOutStream& out, int byteCount,
                      const kz::TBuffer<unsigned char>& padBuffer);

// The stream's position in sectors. A position off a sector boundary is a broken invariant of
// the writer and throws an internal CError.
long long getStreamPositionVMDKSectors(kz::IStreamBase& stream);

}  // namespace harl
