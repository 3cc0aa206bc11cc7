#include "harl/extent/CVMDKSparseExtentFile.h"

#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/PreparedGrainRange.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CDataOutStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/foundation/vesk/CDigestType_SHA256.h"
#include "harl/foundation/vesk/ICipher.h"
#include "harl/foundation/vesk/IDigest.h"
#include "harl/grain/CVMDKGrain.h"
#include "harl/grain/CVMDKGrainAllocator.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTable.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace harl {

namespace {

constexpr long long kSectorBytes = kSectorSizeBytes;
constexpr const char* kConstructor = "CVMDKSparseExtentFile constructor";
// Footer marker, header copy and end-of-stream marker behind the data of a compressed extent.
constexpr int kTrailSectors = 3;
constexpr long long kHeaderSectors = 1;

kz::String boolText(bool value) {
    return value ? "true" : "false";
}

}  // namespace

CVMDKSparseExtentFile::CVMDKSparseExtentFile(kz::IIOStream* stream, kz::IIOStream::Access access,
                                             long long startGrainIndex, int compressionLevel,
                                             CVMDKGrainTableCache* grainTableCache,
                                             IVMDKDataProvider* fallbackDataProvider,
                                             CVMDKContentIDUpdater* contentIDUpdater,
                                             vesk::ICipher* cipher,
                                             const kz::TCryptBuffer<unsigned char>& encryptionKey,
                                             const kz::TBuffer<unsigned char>& encryptionIV)
    : stream(stream),
      access(access),
      grainTableCache(grainTableCache),
      startGrainIndex(startGrainIndex),
      fallbackDataProvider(fallbackDataProvider),
      contentIDUpdater(contentIDUpdater),
      compressionLevel(compressionLevel),
      cipher(cipher),
      encryptionKey(encryptionKey),
      encryptionIV(encryptionIV) {
    loadHeader();
    checkEncryption();
    checkGeometry();
    grainDirectory = kz::P<CVMDKGrainDirectory>(new CVMDKGrainDirectory(
        this->stream.get(), access,
        static_cast<long long>(header->getGrainDirectoryOffsetSectors()),
        static_cast<long long>(header->getRedundantGrainDirectoryOffsetSectors()), capacitySectors,
        grainSizeSectors, static_cast<int>(header->getGrainTableEntryCount()), compressed,
        grainTableCache));
    grainAllocator = kz::P<CVMDKGrainAllocator>(new CVMDKGrainAllocator(
        this->stream.get(), access, grainSizeSectors, compressed ? 1 : grainSizeSectors,
        grainDirectory.get(), makeTrailData()));
    checkSlotsOfTables();
    grain = kz::P<CVMDKGrain>(new CVMDKGrain(
        this->stream.get(), access, grainSizeSectors, grainAllocator.get(), compressed,
        compressionLevel, fallbackDataProvider, cipher, this->encryptionKey, this->encryptionIV));
}

CVMDKSparseExtentFile::~CVMDKSparseExtentFile() {
    if (closed) {
        return;
    }
    try {
        flushChanges();
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKSparseExtentFile", error, true);
    }
}

kz::CProps CVMDKSparseExtentFile::uriProps() const {
    return kz::CProps().add("uri", stream->getURI().toString(true));
}

void CVMDKSparseExtentFile::loadHeader() {
    header = kz::P<CVMDKSparseExtentHeader>(new CVMDKSparseExtentHeader);
    kz::CDataInStream in(stream.get());
    header->load(in);
}

void CVMDKSparseExtentFile::checkEncryption() {
    const bool encrypted =
        header->getEncryptionExtensionEnabled() && header->getEncryptionAlgorithm() != 0;
    if (!encrypted) {
        if (cipher) {
            throw kz::CInvalidArgError(
                kConstructor,
                "VMDK extent file is NOT encrypted but a cipher object was specified.", uriProps());
        }
        return;
    }
    if (!cipher) {
        throw kz::CInvalidArgError(
            kConstructor, "VMDK extent file is encrypted but no cipher object was specified.",
            uriProps());
    }
    if (cipher->getID() != "aes256cbc") {
        throw kz::CInvalidArgError(
            kConstructor, "Cipher object has an unsupported ID: " + cipher->getID(), uriProps());
    }
    if (static_cast<long long>(encryptionKey.getUsed()) != cipher->getKeySize()) {
        throw kz::CInvalidArgError(
            kConstructor, "Specified encryption key has an incorrect size for the cipher",
            uriProps()
                .add("expectedKeySize", static_cast<long long>(cipher->getKeySize()))
                .add("keySize", static_cast<long long>(encryptionKey.getUsed()))
                .add("cipherID", cipher->getID()));
    }
    if (header->getEncryptionAlgorithm() != 1) {
        throw kz::CError("Unsupported encryption algorithm used by VMDK extent file: " +
                             kz::String::number(header->getEncryptionAlgorithm()),
                         kz::String(), -1, uriProps());
    }
    if (header->getEncryptionKeyHashAlgorithm() != 1) {
        throw kz::CError("Unsupported key hash algorithm used in VMDK: " +
                             kz::String::number(header->getEncryptionKeyHashAlgorithm()),
                         kz::String(), -1, uriProps());
    }
    kz::P<vesk::IDigest> digest;
    vesk::CDigestType_SHA256().createDigest(digest);
    digest->update(encryptionKey.getData(), static_cast<int>(encryptionKey.getUsed()));
    digest->finish();
    const kz::TBuffer<unsigned char>& expected = header->getEncryptionKeyHash();
    if (static_cast<size_t>(digest->getSize()) != expected.getUsed() ||
        std::memcmp(digest->getData(), expected.getData(), expected.getUsed()) != 0) {
        throw kz::CError("Specified VMDK extent file encryption key is not correct.", kz::String(),
                         -1, uriProps());
    }
}

void CVMDKSparseExtentFile::checkGeometry() {
    const unsigned version = header->getVersion();
    if (version < 1 || version > 3) {
        throw kz::CIOError(
            kz::CIOError::UnsupportedVersion,
            "VMDK file has an unsupported version: " + kz::String::numberUnsigned(version),
            uriProps());
    }
    compressed = (header->getFlags() & kVMDKHeaderFlagCompressed) != 0;
    zeroedGrainEntries = (header->getFlags() & kVMDKHeaderFlagZeroedGrainEntries) != 0;
    const bool metaMarkers = (header->getFlags() & kVMDKHeaderFlagMetaMarkers) != 0;
    if (compressed != metaMarkers) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "VMDK flags 'compressed' and 'metaMarkers' are different (compressed: " +
                               boolText(compressed) + ", metaMarkers: " + boolText(metaMarkers) +
                               ").",
                           uriProps());
    }
    if (header->getGrainDirectoryOffsetSectors() == ~0ULL) {
        throw kz::CIOError(
            kz::CIOError::CorruptFormat,
            "VMDK file uses an unsupported variant of the 'stream optimized' format.", uriProps());
    }
    // Grain size and table length divide and size everything below; a file that no sane
    // writer made is refused before they do.
    const unsigned long long grainSectors = header->getGrainSizeSectors();
    const unsigned long long tableEntries = header->getGrainTableEntryCount();
    const unsigned long long capacity = header->getCapacitySectors();
    if (grainSectors == 0 || grainSectors > kMaxGrainSizeSectors || tableEntries == 0 ||
        tableEntries > kMaxGrainTableEntryCount || capacity > kMaxCapacitySectors) {
        throw kz::CIOError(
            kz::CIOError::CorruptFormat, "VMDK sparse header has an invalid geometry.",
            uriProps()
                .add("grainSizeSectors", kz::String::numberUnsigned(grainSectors))
                .add("grainTableEntryCount", kz::String::numberUnsigned(tableEntries))
                .add("capacitySectors", kz::String::numberUnsigned(capacity)));
    }
    capacitySectors = static_cast<long long>(capacity);
    capacityBytes = capacitySectors * kSectorBytes;
    grainSizeSectors = static_cast<long long>(grainSectors);
    grainSizeBytes = grainSizeSectors * kSectorBytes;
}

void CVMDKSparseExtentFile::checkSlotsOfTables() {
    // Header fields are unsigned and may be anything; beyond this they lie past any file.
    const auto sectors = [](unsigned long long value) {
        return static_cast<long long>(std::min<unsigned long long>(value, kMaxCapacitySectors));
    };
    std::vector<std::pair<long long, long long>> metadata{{0, kHeaderSectors}};
    const long long descriptorStart = sectors(header->getDescriptorOffsetSectors());
    if (descriptorStart > 0) {
        metadata.emplace_back(descriptorStart,
                              descriptorStart + sectors(header->getDescriptorSizeSectors()));
    }
    // The allocator knows where the data ends: at the trail of a compressed extent that ends
    // with one, else at the end of the file.
    grainDirectory->checkSlots(metadata, grainAllocator->getNextPosBytes(),
                               zeroedGrainEntries ? kVMDKZeroedGrainEntry : 0);
}

kz::TBuffer<unsigned char> CVMDKSparseExtentFile::makeTrailData() {
    if (!compressed) {
        return kz::TBuffer<unsigned char>();
    }
    kz::TBuffer<unsigned char> zeros(kTrailSectors * kSectorBytes);
    zeros.fill(0);
    kz::P<kz::CBufferStream> trail(new kz::CBufferStream);
    kz::CDataOutStream out(trail.get());
    writeVMDKMarker(out, VMDKMarkerFooter, 1, zeros);
    header->store(out);
    writeVMDKMarker(out, VMDKMarkerEndOfStream, 0, zeros);
    return trail->getBuffer();
}

kz::CURI CVMDKSparseExtentFile::getURI() const {
    return stream->getURI();
}

void CVMDKSparseExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    fallbackDataProvider = provider;
    grain->setFallbackDataProvider(provider);
}

void CVMDKSparseExtentFile::seek(long long newPosition) {
    checkNotClosed();
    if (newPosition < 0 || newPosition > capacityBytes) {
        throw kz::CInvalidArgError("CVMDKSparseExtentFile::seek",
                                   "Invalid position: " + kz::String::number(newPosition),
                                   uriProps());
    }
    const long long grainIndex = newPosition / grainSizeBytes;
    if (grainIndex != currentGrainIndex || !grain->isOpen()) {
        long long posSectors = 0;
        long long slotSizeSectors = 0;
        grainDirectory->getGrainInfo(grainIndex, posSectors, slotSizeSectors);
        if (zeroedGrainEntries && posSectors == kVMDKZeroedGrainEntry) {
            grain->openZeroed(grainIndex, grainIndex + startGrainIndex);
        } else {
            grain->open(grainIndex, grainIndex + startGrainIndex, posSectors, slotSizeSectors);
        }
        currentGrainIndex = grainIndex;
    }
    grain->seek(newPosition % grainSizeBytes);
    position = newPosition;
}

long long CVMDKSparseExtentFile::beginIOOp(long long maxBytes) {
    checkNotClosed();
    long long left = grain->getBytesLeft();
    if (left == 0) {
        seek(position);
        left = grain->getBytesLeft();
        if (left == 0) {
            throw kz::CError("Internal error. After seeking to grain at position " +
                                 kz::String::number(position) +
                                 " there are still no bytes left in the grain.",
                             kz::String(), -1, uriProps());
        }
    }
    return std::min(maxBytes, left);
}

void CVMDKSparseExtentFile::read(void* buffer, int size) {
    if (position + size > capacityBytes) {
        throw kz::CIOError(kz::CIOError::EndOfData,
                           "Unexpected end of data reading from VMDK sparse extent file.",
                           uriProps().add("position", position).add("bytesToRead", size));
    }
    auto* out = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const int chunk = static_cast<int>(beginIOOp(size));
        grain->read(out, chunk);
        out += chunk;
        size -= chunk;
        position += chunk;
    }
}

void CVMDKSparseExtentFile::write(const void* buffer, int size) {
    if (position + size > capacityBytes) {
        throw kz::CIOError(kz::CIOError::WritePastEnd, "Write exceeded VMDK extent size.",
                           uriProps().add("position", position).add("bytesToWrite", size));
    }
    onAboutToChange();
    const auto* in = static_cast<const unsigned char*>(buffer);
    while (size > 0) {
        const int chunk = static_cast<int>(beginIOOp(size));
        grain->write(in, chunk);
        in += chunk;
        size -= chunk;
        position += chunk;
    }
}

void CVMDKSparseExtentFile::checkWholeGrain(long long chunk, const char* operation) const {
    if (chunk != grainSizeBytes) {
        throw kz::CError(kz::String("Internal error: CVMDKSparseExtentFile::beginIOOp in "
                                    "CVMDKSparseExtentFile::") +
                             operation + " returned less than the grain size.",
                         kz::String(), -1,
                         uriProps()
                             .add("position", position)
                             .add("grainSize", grainSizeBytes)
                             .add("toWrite", chunk)
                             .add("extentSize", capacityBytes));
    }
}

void CVMDKSparseExtentFile::readPreparedGrainData(kz::TBuffer<unsigned char>& data) {
    checkPreparedGrainRange("read", position, grainSizeBytes, capacityBytes, uriProps());
    const long long chunk = beginIOOp(grainSizeBytes);
    checkWholeGrain(chunk, "tryReadPreparedGrainData");
    grain->readPreparedGrainData(data);
    position += chunk;
}

void CVMDKSparseExtentFile::writePreparedGrainData(const kz::TBuffer<unsigned char>& data) {
    checkPreparedGrainRange("write", position, grainSizeBytes, capacityBytes, uriProps());
    onAboutToChange();
    const long long chunk = beginIOOp(grainSizeBytes);
    checkWholeGrain(chunk, "writePreparedGrainData");
    grain->writePreparedGrainData(data);
    position += chunk;
}

long long CVMDKSparseExtentFile::makeGrainIndependentOfParent(long long grainIndex) {
    verifyHaveWriteAccess();
    changedSinceFlush = true;
    seek(grainIndex * grainSizeBytes);
    const long long result = grain->makeIndependentOfParent();
    position += grainSizeBytes;
    return result;
}

bool CVMDKSparseExtentFile::isGrainWritten() {
    beginIOOp(1);
    return grain->isGrainWritten();
}

bool CVMDKSparseExtentFile::isGrainWrittenAndIndependentOfParent() {
    beginIOOp(1);
    return grain->isGrainWrittenAndIndependentOfParent();
}

void CVMDKSparseExtentFile::onAboutToChange() {
    if (!contentIDUpdater) {
        throw kz::CError(
            "Internal error: VMDK sparse extent file is about to be changed, but it does not "
            "have a content ID updater.",
            kz::String(), -1, uriProps());
    }
    verifyHaveWriteAccess();
    contentIDUpdater->onDiskAboutToChange(*this);
    changedSinceFlush = true;
}

void CVMDKSparseExtentFile::checkNotClosed() const {
    if (closed) {
        throw kz::CIOError(kz::CIOError::StreamClosed, "VMDK sparse extent file is closed.",
                           uriProps());
    }
}

void CVMDKSparseExtentFile::verifyHaveWriteAccess() {
    checkNotClosed();
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: VMDK sparse extent file is about to be changed, but it was not "
            "opened for writing.",
            kz::String(), -1, uriProps());
    }
}

void CVMDKSparseExtentFile::flushChanges() {
    if (access == kz::IIOStream::AccessRead || !changedSinceFlush) {
        return;
    }
    // Grain data reaches the file, durably, before the tables that point at it.
    writeGrainData();
    stream->flush();
    writeTables();
    stream->flush();
    changedSinceFlush = false;
}

void CVMDKSparseExtentFile::writeGrainData() {
    if (grain->isOpen()) {
        grain->flushChangesToStream();
    }
    grainAllocator->flushChangesToStream();
}

void CVMDKSparseExtentFile::writeTables() {
    grainDirectory->flushChangesToStream();
}

void CVMDKSparseExtentFile::close() {
    if (closed) {
        return;
    }
    flushChanges();
    stream->close();
    closed = true;
}

kz::P<CVMDKDataPreparer> CVMDKSparseExtentFile::createDataPreparer() {
    return kz::P<CVMDKDataPreparer>(
        new CVMDKDataPreparer(grainSizeSectors, compressed, compressionLevel));
}

kz::P<CVMDKSpaceInfo> CVMDKSparseExtentFile::gatherSpaceInfo() {
    checkNotClosed();
    flushChanges();
    const long long grainCount = (capacitySectors + grainSizeSectors - 1) / grainSizeSectors;
    long long payloadSize = 0;
    long long payloadSizeInFile = 0;
    for (long long grainIndex = 0; grainIndex < grainCount; ++grainIndex) {
        long long posSectors = 0;
        long long slotSizeSectors = 0;
        grainDirectory->getGrainInfo(grainIndex, posSectors, slotSizeSectors);
        if (posSectors == 0) {
            continue;
        }
        payloadSize += grainSizeBytes;
        // A grain written as zeros is payload that takes no room in the file.
        if (!(zeroedGrainEntries && posSectors == kVMDKZeroedGrainEntry)) {
            payloadSizeInFile += compressed ? slotSizeSectors * kSectorBytes : grainSizeBytes;
        }
    }
    // Clamped so that a hostile header cannot overflow the product.
    const long long headerSize = static_cast<long long>(std::min<unsigned long long>(
                                     header->getOverheadSectors(), kMaxCapacitySectors)) *
                                 kSectorBytes;
    long long deadSpace = stream->getLength() - headerSize - payloadSizeInFile;
    if (deadSpace < 0) {
        kz::logWarning("Calculated negative dead space value for VMDK extent file '" +
                       getURI().toString(true) + "' (deadSpace: " + kz::String::number(deadSpace) +
                       ", headerSize: " + kz::String::number(headerSize) +
                       ", payloadSize: " + kz::String::number(payloadSize) +
                       ", payloadSizeInFile: " + kz::String::number(payloadSizeInFile) + ")");
        deadSpace = 0;
    }
    kz::P<CVMDKSpaceInfo> info(new CVMDKSpaceInfo);
    info->setPayloadSize(payloadSize);
    info->setPayloadSizeInFile(payloadSizeInFile);
    info->setHeaderSize(headerSize);
    info->setDeadSpaceSize(deadSpace);
    return info;
}

}  // namespace harl
