#include "harl/format/CVMDKSparseExtentHeader.h"

#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include <cstring>

namespace harl {

namespace {

// Written at offset 73 so that a text-mode transfer, which rewrites line ends, shows.
constexpr unsigned char kLineDetectionBytes[] = {'\n', ' ', '\r', '\n'};
constexpr int kLineDetectionSizeBytes = sizeof(kLineDetectionBytes);

// Magic, version and flags; four 64-bit fields; the table entry count; three 64-bit fields;
// the unclean shutdown byte, the line detection bytes and the compression algorithm.
static_assert(3 * sizeof(uint32_t) + 4 * sizeof(uint64_t) + sizeof(uint32_t) +
                  3 * sizeof(uint64_t) + sizeof(uint8_t) + kLineDetectionSizeBytes +
                  sizeof(uint16_t) ==
              kVMDKSparseHeaderCommonSizeBytes);

kz::CProps keyHashLengthProps(size_t length) {
    return kz::CProps()
        .add("length", static_cast<long long>(length))
        .add("maximum", kVMDKSparseHeaderMaxKeyHashBytes);
}

}  // namespace

CVMDKSparseExtentHeader::CVMDKSparseExtentHeader() {
    resizeReserved(kVMDKSparseHeaderPlainReservedBytes);
}

void CVMDKSparseExtentHeader::setEncryptionKeyHash(const kz::TBuffer<unsigned char>& hash) {
    if (hash.getUsed() > static_cast<size_t>(kVMDKSparseHeaderMaxKeyHashBytes)) {
        throw kz::CInvalidArgError("harl::CVMDKSparseExtentHeader::setEncryptionKeyHash",
                                   "Encryption key hash too long for the VMDK sparse header",
                                   keyHashLengthProps(hash.getUsed()));
    }
    encryptionKeyHash = hash;
}

void CVMDKSparseExtentHeader::load(kz::CDataInStream& in) {
    const uint32_t magic = in.readUInt32();
    if (magic == kVMDKSparseHeaderEncryptedMagic) {
        encryptionExtensionEnabled = true;
    } else if (magic == kVMDKSparseHeaderMagic) {
        encryptionExtensionEnabled = false;
    } else {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "Invalid magic number in VMDK sparse header",
                           kz::CProps().add("num", kz::String::numberUnsigned(magic)));
    }
    version = in.readUInt32();
    flags = in.readUInt32();
    capacitySectors = in.readUInt64();
    grainSizeSectors = in.readUInt64();
    descriptorOffsetSectors = in.readUInt64();
    descriptorSizeSectors = in.readUInt64();
    grainTableEntryCount = in.readUInt32();
    const uint64_t redundantOffset = in.readUInt64();
    // Without the flag the field is left over from some writer and means nothing.
    redundantGrainDirectoryOffsetSectors =
        (flags & kVMDKHeaderFlagRedundantGrainDirectory) != 0 ? redundantOffset : 0;
    grainDirectoryOffsetSectors = in.readUInt64();
    overheadSectors = in.readUInt64();
    uncleanShutdown = in.readUInt8() != 0;
    unsigned char lineDetection[kLineDetectionSizeBytes];
    in.read(lineDetection, kLineDetectionSizeBytes);
    if ((flags & kVMDKHeaderFlagValidNewLineDetection) != 0 &&
        std::memcmp(lineDetection, kLineDetectionBytes, kLineDetectionSizeBytes) != 0) {
        throw kz::CIOError(
            kz::CIOError::CorruptFormat,
            "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).");
    }
    compressAlgorithm = in.readUInt16();
    if (encryptionExtensionEnabled) {
        loadExtension(in);
    } else {
        encryptionAlgorithm = 0;
        encryptionKeyHashAlgorithm = 0;
        encryptionKeyHash.setUsed(0);
        reserved.setUsed(kVMDKSparseHeaderPlainReservedBytes);
    }
    if (reserved.getUsed() > 0) {
        in.read(reserved.getData(), static_cast<int>(reserved.getUsed()));
    }
}

void CVMDKSparseExtentHeader::loadExtension(kz::CDataInStream& in) {
    encryptionAlgorithm = in.readUInt16();
    encryptionKeyHashAlgorithm = in.readUInt16();
    const uint16_t keyHashLength = in.readUInt16();
    // The key hash and the reserved area share 427 bytes; a longer hash would leave the
    // reserved area a negative size.
    if (keyHashLength > kVMDKSparseHeaderMaxKeyHashBytes) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "Encryption key hash length in VMDK sparse header exceeds the room "
                           "in the header",
                           keyHashLengthProps(keyHashLength));
    }
    encryptionKeyHash.setUsed(keyHashLength);
    if (keyHashLength > 0) {
        in.read(encryptionKeyHash.getData(), keyHashLength);
    }
    reserved.setUsed(kVMDKSparseHeaderMaxKeyHashBytes - keyHashLength);
}

void CVMDKSparseExtentHeader::store(kz::CDataOutStream& out) {
    const size_t keyHashLength = encryptionKeyHash.getUsed();
    if (encryptionExtensionEnabled &&
        keyHashLength > static_cast<size_t>(kVMDKSparseHeaderMaxKeyHashBytes)) {
        throw kz::CInvalidArgError("harl::CVMDKSparseExtentHeader::store",
                                   "Encryption key hash too long for the VMDK sparse header",
                                   keyHashLengthProps(keyHashLength));
    }
    resizeReserved(encryptionExtensionEnabled
                       ? kVMDKSparseHeaderMaxKeyHashBytes - static_cast<int>(keyHashLength)
                       : kVMDKSparseHeaderPlainReservedBytes);

    out.writeUInt32(encryptionExtensionEnabled ? kVMDKSparseHeaderEncryptedMagic
                                               : kVMDKSparseHeaderMagic);
    out.writeUInt32(version);
    out.writeUInt32(flags);
    out.writeUInt64(capacitySectors);
    out.writeUInt64(grainSizeSectors);
    out.writeUInt64(descriptorOffsetSectors);
    out.writeUInt64(descriptorSizeSectors);
    out.writeUInt32(grainTableEntryCount);
    out.writeUInt64(redundantGrainDirectoryOffsetSectors);
    out.writeUInt64(grainDirectoryOffsetSectors);
    out.writeUInt64(overheadSectors);
    out.writeUInt8(uncleanShutdown ? 1 : 0);
    out.write(kLineDetectionBytes, kLineDetectionSizeBytes);
    out.writeUInt16(compressAlgorithm);
    if (encryptionExtensionEnabled) {
        out.writeUInt16(encryptionAlgorithm);
        out.writeUInt16(encryptionKeyHashAlgorithm);
        out.writeUInt16(static_cast<uint16_t>(keyHashLength));
        if (keyHashLength > 0) {
            out.write(encryptionKeyHash.getData(), static_cast<int>(keyHashLength));
        }
    }
    if (reserved.getUsed() > 0) {
        out.write(reserved.getData(), static_cast<int>(reserved.getUsed()));
    }
}

void CVMDKSparseExtentHeader::resizeReserved(int sizeBytes) {
    const size_t kept = reserved.getUsed();
    reserved.setUsed(static_cast<size_t>(sizeBytes));
    if (reserved.getUsed() > kept) {
        std::memset(reserved.getData() + kept, 0, reserved.getUsed() - kept);
    }
}

}  // namespace harl
