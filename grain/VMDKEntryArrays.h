#pragma once

#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/TBuffer.h"

namespace harl {

// Reading and writing the arrays of little-endian entries that grain metadata is made of:
// directories and grain tables of unsigned 32-bit entries, slot-size tables of unsigned 16-bit
// ones. Their formats are told by the classes that own them (CVMDKGrainTable,
// CVMDKGrainDirectory); in memory the entries are in the host's byte order.
//
// These are instantiated for unsigned int and unsigned short.

// The byte position of a sector position, saturated at the limits of long long, so that a
// position from a corrupt file cannot overflow: a saturated positive position lies behind any
// end of file, and a negative one is refused by the stream's seek.
long long vmdkSectorsToBytesSaturated(long long sectors);

// Gives `entries` `count` entries, seeks to `posSectors` and reads them with `read`. For counts
// that a ceiling already bounds: a short file fails in the stream's own read, after the buffer
// is sized. Stream errors pass through; the stream is left behind the array.
template <class T>
void readVMDKEntries(kz::IIOStream& stream, long long posSectors, long long count,
                     kz::TBuffer<T>& entries);

// As readVMDKEntries, for a count taken from a file that nothing else bounds: after the seek
// and before the buffer is sized, an array that cannot fit between `posSectors` and the
// stream's end fails as a short read does, with a kz::CIOError code 4 "Unexpected end of data"
// and the property "uri". So a corrupt count costs no memory.
template <class T>
void readVMDKEntriesWithinLength(kz::IIOStream& stream, long long posSectors, long long count,
                                 kz::TBuffer<T>& entries);

// Seeks to `posSectors` and writes the used entries of `entries` without a write barrier.
template <class T>
void writeVMDKEntries(kz::IIOStream& stream, long long posSectors, const kz::TBuffer<T>& entries);

}  // namespace harl
