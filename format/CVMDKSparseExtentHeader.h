#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CDataOutStream.h"
#include "harl/foundation/kz/TBuffer.h"

#include <cstdint>

namespace harl {

// The header of a hosted sparse extent: the first sector of the file and, in a stream-optimized
// extent, its footer too. It says where the descriptor, the grain directories and the grains
// lie. This library extends the published header with a second magic number and three fields
// that announce encryption.
//
// On-disk record, 512 bytes, little-endian, no alignment between fields:
//
// | offset | size | field                                | meaning                             |
// |--------|------|--------------------------------------|-------------------------------------|
// | 0      | 4    | magic                                | 0x564D444B ("KDMV"): plain header;  |
// |        |      |                                      | 0x05644B45: with the encryption     |
// |        |      |                                      | extension. Follows                  |
// |        |      |                                      | encryptionExtensionEnabled          |
// | 4      | 4    | version                              | format version; not checked here    |
// | 8      | 4    | flags                                | bits below                          |
// | 12     | 8    | capacitySectors                      | payload size of the extent          |
// | 20     | 8    | grainSizeSectors                     | sectors per grain                   |
// | 28     | 8    | descriptorOffsetSectors              | embedded descriptor; 0: none        |
// | 36     | 8    | descriptorSizeSectors                | sectors reserved for it; 0: none    |
// | 44     | 4    | grainTableEntryCount                 | entries per grain table             |
// | 48     | 8    | redundantGrainDirectoryOffsetSectors | redundant directory; read as 0      |
// |        |      |                                      | unless flag bit 1 is set            |
// | 56     | 8    | grainDirectoryOffsetSectors          | grain directory                     |
// | 64     | 8    | overheadSectors                      | sectors before the first grain      |
// | 72     | 1    | uncleanShutdown                      | any non-zero value reads as true    |
// | 73     | 4    | line detection                       | "\n \r\n", always written; checked  |
// |        |      |                                      | on load only under flag bit 0       |
// | 77     | 2    | compressAlgorithm                    | 0: none; 1: deflate                 |
//
// A plain header ends with a reserved area:
//
// | 79     | 433  | reserved                             | kept as read, written back          |
//
// A header with the encryption extension ends with these fields instead:
//
// | 79     | 2    | encryptionAlgorithm                  | 0: not encrypted; 1: AES-256-CBC    |
// | 81     | 2    | encryptionKeyHashAlgorithm           | 1: SHA-256                          |
// | 83     | 2    | key hash length n                    | 0 to 427                            |
// | 85     | n    | encryptionKeyHash                    | hash of the encryption key          |
// | 85 + n | 427-n | reserved                            | kept as read, written back          |
//
// Flag bits:
//
// | bit | value   | meaning                                                             |
// |-----|---------|---------------------------------------------------------------------|
// | 0   | 0x1     | the line detection bytes are valid and checked on load              |
// | 1   | 0x2     | the file has a redundant grain directory                            |
// | 2   | 0x4     | a grain table entry of 1 marks a grain written as zeros, stored     |
// |     |         | nowhere; other writers set it, this library never does              |
// | 16  | 0x10000 | grains are compressed                                               |
// | 17  | 0x20000 | metadata is preceded by markers                                     |
//
// The record is decoded and encoded here only; everything else sees the fields. The version
// and the algorithm identifiers are not checked: the readers of the header decide what they
// accept.

constexpr uint32_t kVMDKSparseHeaderMagic = 0x564D444B;
constexpr uint32_t kVMDKSparseHeaderEncryptedMagic = 0x05644B45;

constexpr uint32_t kVMDKHeaderFlagValidNewLineDetection = 0x1;
constexpr uint32_t kVMDKHeaderFlagRedundantGrainDirectory = 0x2;
constexpr uint32_t kVMDKHeaderFlagZeroedGrainEntries = 0x4;
constexpr uint32_t kVMDKHeaderFlagCompressed = 0x10000;
constexpr uint32_t kVMDKHeaderFlagMetaMarkers = 0x20000;

constexpr int kVMDKSparseHeaderSizeBytes = 512;
// Where the published fields end and the reserved area or the extension begins.
constexpr int kVMDKSparseHeaderCommonSizeBytes = 79;
// Algorithm identifiers and the key hash length ahead of the key hash.
constexpr int kVMDKSparseHeaderExtensionFieldsBytes = 3 * 2;
constexpr int kVMDKSparseHeaderKeyHashOffsetBytes =
    kVMDKSparseHeaderCommonSizeBytes + kVMDKSparseHeaderExtensionFieldsBytes;
constexpr int kVMDKSparseHeaderPlainReservedBytes =
    kVMDKSparseHeaderSizeBytes - kVMDKSparseHeaderCommonSizeBytes;
// The key hash and the reserved area behind it share the rest of the record.
constexpr int kVMDKSparseHeaderMaxKeyHashBytes =
    kVMDKSparseHeaderSizeBytes - kVMDKSparseHeaderKeyHashOffsetBytes;
static_assert(kVMDKSparseHeaderPlainReservedBytes == 433);
static_assert(kVMDKSparseHeaderMaxKeyHashBytes == 427);

class CVMDKSparseExtentHeader : public kz::CBase {
public:
    // Every numeric field 0, no extension, an empty key hash and 433 zero reserved bytes.
    CVMDKSparseExtentHeader();
    // Copies every field, both buffers included.
    CVMDKSparseExtentHeader(const CVMDKSparseExtentHeader&) = default;
    CVMDKSparseExtentHeader& operator=(const CVMDKSparseExtentHeader&) = default;

    // Reads one record from the stream's position and leaves the stream behind it. Throws
    // CIOError code 5 on an unknown magic, on line detection bytes that differ under flag
    // bit 0, and on a key hash length above 427; a short read throws what the stream throws.
    // After a failure the header holds the fields read so far.
    void load(kz::CDataInStream& in);

    // Writes one record of 512 bytes at the stream's position. The reserved area is sized to
    // what the form leaves for it; the bytes it held stay and new ones are zero. A key hash
    // longer than 427 bytes throws CInvalidArgError before anything is written.
    void store(kz::CDataOutStream& out);

    uint32_t getVersion() const { return version; }

    void setVersion(uint32_t value) { version = value; }

    uint32_t getFlags() const { return flags; }

    void setFlags(uint32_t value) { flags = value; }

    uint64_t getCapacitySectors() const { return capacitySectors; }

    void setCapacitySectors(uint64_t value) { capacitySectors = value; }

    uint64_t getGrainSizeSectors() const { return grainSizeSectors; }

    void setGrainSizeSectors(uint64_t value) { grainSizeSectors = value; }

    uint64_t getDescriptorOffsetSectors() const { return descriptorOffsetSectors; }

    void setDescriptorOffsetSectors(uint64_t value) { descriptorOffsetSectors = value; }

    uint64_t getDescriptorSizeSectors() const { return descriptorSizeSectors; }

    void setDescriptorSizeSectors(uint64_t value) { descriptorSizeSectors = value; }

    uint32_t getGrainTableEntryCount() const { return grainTableEntryCount; }

    void setGrainTableEntryCount(uint32_t value) { grainTableEntryCount = value; }

    uint64_t getRedundantGrainDirectoryOffsetSectors() const {
        return redundantGrainDirectoryOffsetSectors;
    }

    void setRedundantGrainDirectoryOffsetSectors(uint64_t value) {
        redundantGrainDirectoryOffsetSectors = value;
    }

    uint64_t getGrainDirectoryOffsetSectors() const { return grainDirectoryOffsetSectors; }

    void setGrainDirectoryOffsetSectors(uint64_t value) { grainDirectoryOffsetSectors = value; }

    uint64_t getOverheadSectors() const { return overheadSectors; }

    void setOverheadSectors(uint64_t value) { overheadSectors = value; }

    bool getUncleanShutdown() const { return uncleanShutdown; }

    void setUncleanShutdown(bool value) { uncleanShutdown = value; }

    uint16_t getCompressAlgorithm() const { return compressAlgorithm; }

    void setCompressAlgorithm(uint16_t value) { compressAlgorithm = value; }

    bool getEncryptionExtensionEnabled() const { return encryptionExtensionEnabled; }

    void setEncryptionExtensionEnabled(bool value) { encryptionExtensionEnabled = value; }

    uint16_t getEncryptionAlgorithm() const { return encryptionAlgorithm; }

    void setEncryptionAlgorthm(uint16_t value) { encryptionAlgorithm = value; }

    uint16_t getEncryptionKeyHashAlgorithm() const { return encryptionKeyHashAlgorithm; }

    void setEncryptionKeyHashAlgorthm(uint16_t value) { encryptionKeyHashAlgorithm = value; }

    // The buffer itself: a caller may fill it in place. At most 427 bytes can be stored.
    kz::TBuffer<unsigned char>& getEncryptionKeyHash() { return encryptionKeyHash; }

    const kz::TBuffer<unsigned char>& getEncryptionKeyHash() const { return encryptionKeyHash; }

    // Throws CInvalidArgError for a hash longer than 427 bytes, which the record cannot hold.
    void setEncryptionKeyHash(const kz::TBuffer<unsigned char>& hash);

    // The reserved area as last read or written.
    const kz::TBuffer<unsigned char>& getReserved() const { return reserved; }

private:
    void loadExtension(kz::CDataInStream& in);
    // Sizes `reserved` to `sizeBytes`, keeping the bytes it holds and zeroing new ones.
    void resizeReserved(int sizeBytes);

    uint32_t version = 0;
    uint32_t flags = 0;
    uint64_t capacitySectors = 0;
    uint64_t grainSizeSectors = 0;
    uint64_t descriptorOffsetSectors = 0;
    uint64_t descriptorSizeSectors = 0;
    uint32_t grainTableEntryCount = 0;
    uint64_t redundantGrainDirectoryOffsetSectors = 0;
    uint64_t grainDirectoryOffsetSectors = 0;
    uint64_t overheadSectors = 0;
    bool uncleanShutdown = false;
    uint16_t compressAlgorithm = 0;
    uint16_t encryptionAlgorithm = 0;
    uint16_t encryptionKeyHashAlgorithm = 0;
    bool encryptionExtensionEnabled = false;
    kz::TBuffer<unsigned char> reserved;
    kz::TBuffer<unsigned char> encryptionKeyHash;
};

}  // namespace harl
