#include "harl/grain/CVMDKGrain.h"

#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"

#include <cstring>
#include <limits>

namespace harl {

namespace {

using Buffer = kz::TBuffer<unsigned char>;
using Slice = kz::TConstBufferSlice<unsigned char>;

constexpr long long kSectorSizeBytes = 512;
constexpr long long kHeaderSizeBytes = CVMDKDataPreparer::kHeaderSizeBytes;
constexpr int kLbaOffsetBytes = 0;
constexpr int kSizeOffsetBytes = 8;
// A stored compressed grain says how long it is. No engine makes more than twice a grain out
// of one, so a larger size is corrupt; the ceiling also bounds the buffer a read sizes by it.
constexpr long long kMaxCompressedGrainsPerGrain = 2;
constexpr long long kMaxGrainSizeSectors = std::numeric_limits<int>::max() / 4 / kSectorSizeBytes;

long long roundUp(long long value, long long multiple) {
    return (value + multiple - 1) / multiple * multiple;
}

unsigned long long readLE(const unsigned char* bytes, int count) {
    unsigned long long value = 0;
    for (int i = count - 1; i >= 0; --i) {
        value = value << 8 | bytes[i];
    }
    return value;
}

bool isAllZero(const unsigned char* bytes, size_t count) {
    return count == 0 || (bytes[0] == 0 && std::memcmp(bytes, bytes + 1, count - 1) == 0);
}

kz::P<Buffer> newBuffer(long long reserveBytes) {
    kz::P<Buffer> buffer(new Buffer);
    buffer->ensureAllocated(static_cast<size_t>(reserveBytes));
    return buffer;
}

}  // namespace

CVMDKGrain::CVMDKGrain(kz::IIOStream* stream, kz::IIOStream::Access access,
                       long long grainSizeSectors, IVMDKGrainAllocator* allocator, bool compressed,
                       int compressionLevel, IVMDKDataProvider* fallbackDataProvider,
                       vesk::ICipher* cipher, const kz::TCryptBuffer<unsigned char>& encryptionKey,
                       const kz::TBuffer<unsigned char>& encryptionIV)
    : stream(stream),
      access(access),
      allocator(allocator),
      grainSizeSectors(grainSizeSectors),
      grainSizeBytes(grainSizeSectors * kSectorSizeBytes),
      compressed(compressed),
      compressionLevel(compressionLevel),
      fallbackDataProvider(fallbackDataProvider),
      cipher(cipher),
      cipherBlockSize(cipher ? cipher->getIVSize() : 0),
      encryptionKey(encryptionKey),
      encryptionIV(encryptionIV) {
    const char* where = "CVMDKGrain::CVMDKGrain";
    // Transfers count bytes in an int, and a stored compressed grain, which may claim twice a
    // grain and its header, is read in one call.
    if (grainSizeSectors < 1 || grainSizeSectors > kMaxGrainSizeSectors) {
        throw kz::CInvalidArgError(where,
                                   "Invalid grain size: " + kz::String::number(grainSizeSectors));
    }
    if (!stream || (!allocator && access == kz::IIOStream::AccessReadWrite)) {
        throw kz::CInvalidArgError(where, "A grain needs a stream, and an allocator to write.");
    }
    if (cipher && (cipherBlockSize < 1 || grainSizeBytes % cipherBlockSize != 0 ||
                   encryptionIV.getUsed() != static_cast<size_t>(cipherBlockSize))) {
        throw kz::CInvalidArgError(where, "The cipher does not fit the grain or the base IV.");
    }
    dataPreparer = createDataPreparer();
    worstCaseGrainSizeSectors = dataPreparer->getWorstCaseGrainSizeSectors();
    if (cipher) {
        const long long header = compressed ? kHeaderSizeBytes : 0;
        const long long bytes =
            roundUp(worstCaseGrainSizeSectors * kSectorSizeBytes - header, cipherBlockSize) +
            header;
        worstCaseGrainSizeSectors = roundUp(bytes, kSectorSizeBytes) / kSectorSizeBytes;
        encryptedData.ensureAllocated(static_cast<size_t>(bytes));
    }
    const long long worstCaseBytes = worstCaseGrainSizeSectors * kSectorSizeBytes;
    grainData = newBuffer(grainSizeBytes);
    preparedData = newBuffer(compressed ? worstCaseBytes : 0);
    parentPreparedData.ensureAllocated(static_cast<size_t>(worstCaseBytes));
}

CVMDKGrain::~CVMDKGrain() {
    try {
        close();
    } catch (const std::exception& error) {
        kz::onExceptionInDestructorIgnored("harl::CVMDKGrain", error, true);
    }
}

void CVMDKGrain::open(long long extentGrainIndex, long long diskGrainIndex, long long posSectors,
                      long long slotSizeSectors) {
    close();
    if (posSectors <= 0) {
        posSectors = 0;
        slotSizeSectors = 0;
    } else if (compressed && slotSizeSectors <= 0) {
        // The slot size did not reach the file with the position (a power cut between the
        // two); the grain says how long it is, and a rewrite takes a new slot.
        slotSizeSectors = 0;
    } else if (!compressed && slotSizeSectors < grainSizeSectors) {
        throw kz::CInvalidArgError(
            "CVMDKGrain::open",
            "Slot size for allocated uncompressed grain is smaller than the grain size (slot "
            "size: " +
                kz::String::number(slotSizeSectors) +
                " sectors, grain size: " + kz::String::number(grainSizeSectors) + " sectors");
    }
    this->extentGrainIndex = extentGrainIndex;
    this->diskGrainIndex = diskGrainIndex;
    this->posSectors = posSectors;
    this->slotSizeSectors = slotSizeSectors;
    posInGrain = 0;
}

void CVMDKGrain::openZeroed(long long extentGrainIndex, long long diskGrainIndex) {
    open(extentGrainIndex, diskGrainIndex, 0, 0);
    zeroed = true;
}

void CVMDKGrain::close() {
    flushChangesToStream();
    posSectors = -1;
    slotSizeSectors = -1;
    extentGrainIndex = -1;
    diskGrainIndex = -1;
    zeroed = false;
    grainData->setUsed(0);
    preparedData->setUsed(0);
    posInGrain = 0;
    dirty = false;
}

void CVMDKGrain::seek(long long position) {
    if (position < 0 || position >= grainSizeBytes) {
        throw kz::CInvalidArgError(
            "CVMDKGrain::seek",
            "Invalid seek position in VMDK grain: " + kz::String::number(position),
            kz::CProps()
                .add("uri", uriText())
                .add("position", position)
                .add("grainSize", grainSizeBytes));
    }
    posInGrain = position;
}

int CVMDKGrain::getBytesLeft() const {
    return isOpen() ? static_cast<int>(grainSizeBytes - posInGrain) : 0;
}

void CVMDKGrain::read(void* buffer, int size) {
    if (size == 0) {
        return;
    }
    if (size < 0) {
        throw kz::CInvalidArgError("CVMDKGrain::read",
                                   "Invalid number of bytes to read: " + kz::String::number(size),
                                   kz::CProps().add("uri", uriText()));
    }
    if (size > getBytesLeft()) {
        throw kz::CIOError(kz::CIOError::EndOfData,
                           "Unexpected end of data trying to read " + kz::String::number(size) +
                               " bytes from VMDK grain.",
                           kz::CProps()
                               .add("uri", uriText())
                               .add("position", posInGrain)
                               .add("bytesToRead", size));
    }
    if (posSectors == 0 && grainData->getUsed() == 0) {
        if (fallbackDataProvider && !zeroed) {
            fallbackDataProvider->getData(diskGrainIndex * grainSizeBytes + posInGrain, buffer,
                                          size);
        } else {
            std::memset(buffer, 0, static_cast<size_t>(size));
        }
    } else {
        if (grainData->getUsed() == 0) {
            readGrainData();
        }
        std::memcpy(buffer, grainData->getData() + posInGrain, static_cast<size_t>(size));
    }
    posInGrain += size;
}

void CVMDKGrain::write(const void* buffer, int size) {
    if (size == 0) {
        return;
    }
    if (size < 0) {
        throw kz::CInvalidArgError("CVMDKGrain::write",
                                   "Invalid number of bytes to write: " + kz::String::number(size),
                                   kz::CProps().add("uri", uriText()));
    }
    if (size > getBytesLeft()) {
        throw kz::CIOError(
            kz::CIOError::WritePastEnd,
            "Cannot write " + kz::String::number(size) + " bytes to grain. Grain size exceeded.",
            kz::CProps().add("uri", uriText()));
    }
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKGrain::write was called, but the grain was not opened for "
            "writing.");
    }
    if (size == grainSizeBytes) {
        grainData->setUsed(static_cast<size_t>(grainSizeBytes));
    } else if (grainData->getUsed() == 0) {
        readGrainData();
    }
    std::memcpy(grainData->getData() + posInGrain, buffer, static_cast<size_t>(size));
    preparedData->setUsed(0);
    posInGrain += size;
    dirty = true;
}

void CVMDKGrain::readGrainData() {
    grainData->setUsed(static_cast<size_t>(grainSizeBytes));
    try {
        if (posSectors == 0) {
            if (fallbackDataProvider && !zeroed) {
                fallbackDataProvider->getData(diskGrainIndex * grainSizeBytes, grainData->getData(),
                                              static_cast<int>(grainSizeBytes));
            } else {
                grainData->fill(0);
            }
            return;
        }
        stream->seek(posSectors * kSectorSizeBytes);
        if (!compressed) {
            readUncompressedGrain(*grainData);
            return;
        }
        readCompressedGrain(*preparedData);
        if (dataPreparer->unprepareGrainData(preparedData.get(), grainData.get()) != grainData) {
            throw kz::CError(
                "Internal error. VMDK data unprepare returned original buffer instead of aux "
                "buffer, even though compression is used.");
        }
    } catch (...) {
        grainData->setUsed(0);
        preparedData->setUsed(0);
        throw;
    }
}

void CVMDKGrain::readCompressedGrain(kz::TBuffer<unsigned char>& data) {
    Buffer& raw = cipher ? encryptedData : data;
    raw.setUsed(static_cast<size_t>(kSectorSizeBytes));
    stream->read(raw.getData(), static_cast<int>(kSectorSizeBytes));
    const unsigned long long lba = readLE(raw.getData() + kLbaOffsetBytes, 8);
    const long long size = static_cast<long long>(readLE(raw.getData() + kSizeOffsetBytes, 4));
    if (size > kMaxCompressedGrainsPerGrain * grainSizeBytes) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "Error reading compressed data from VMDK. Invalid compressed grain "
                           "size.",
                           kz::CProps()
                               .add("uri", uriText())
                               .add("position", posSectors * kSectorSizeBytes)
                               .add("lba", kz::String::numberUnsigned(lba))
                               .add("compressedGrainSize", size));
    }
    const long long stored = cipher ? roundUp(size, cipherBlockSize) : size;
    const long long rawBytes = roundUp(kHeaderSizeBytes + stored, kSectorSizeBytes);
    raw.setUsed(static_cast<size_t>(rawBytes));
    if (rawBytes > kSectorSizeBytes) {
        stream->read(raw.getData() + kSectorSizeBytes,
                     static_cast<int>(rawBytes - kSectorSizeBytes));
    }
    if (!cipher) {
        return;
    }
    makeGrainEncryptIV(grainIV, encryptionIV, diskGrainIndex);
    data.assign(raw.getData(), static_cast<size_t>(kHeaderSizeBytes));
    cipher->decryptData(encryptionKey, raw.getData() + kHeaderSizeBytes, static_cast<int>(stored),
                        data, true, grainIV.getData());
    data.setUsed(static_cast<size_t>(kHeaderSizeBytes + size));
}

void CVMDKGrain::readUncompressedGrain(kz::TBuffer<unsigned char>& data) {
    data.setUsed(static_cast<size_t>(grainSizeBytes));
    if (!cipher) {
        stream->read(data.getData(), static_cast<int>(grainSizeBytes));
        return;
    }
    encryptedData.setUsed(static_cast<size_t>(grainSizeBytes));
    stream->read(encryptedData.getData(), static_cast<int>(grainSizeBytes));
    makeGrainEncryptIV(grainIV, encryptionIV, diskGrainIndex);
    cipher->decryptData(encryptionKey, encryptedData.getData(), static_cast<int>(grainSizeBytes),
                        data, false, grainIV.getData());
    if (data.getUsed() != static_cast<size_t>(grainSizeBytes)) {
        throw kz::CError(
            "Internal error: CVMDKGrain::readUncompressedGrain decrypted data size is not "
            "uncompressed grain size",
            kz::String(), -1,
            kz::CProps()
                .add("decryptedSize", static_cast<long long>(data.getUsed()))
                .add("uncompressedGrainSize", grainSizeBytes));
    }
}

void CVMDKGrain::flushChangesToStream() {
    if (!dirty) {
        return;
    }
    // Zeros written to a grain the extent does not store read back as written only while
    // nothing stands behind it (no provider, or the file's mark of a zeroed grain); with a
    // provider they must be stored to hide its grain.
    if (posSectors == 0 && (!fallbackDataProvider || zeroed) &&
        isAllZero(grainData->getData(), grainData->getUsed())) {
        dirty = false;
        return;
    }
    const kz::P<Buffer> prepared =
        dataPreparer->prepareGrainData(grainData.get(), diskGrainIndex, preparedData.get());
    writePreparedGrainDataInternal(Slice(*prepared), false);
}

void CVMDKGrain::readPreparedGrainData(kz::TBuffer<unsigned char>& data) {
    data.setUsed(0);
    checkOpen("readPreparedGrainData");
    if (posInGrain != 0) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           "CVMDKGrain::tryReadPreparedGrainData can only be called when the "
                           "position in the grain is 0.",
                           grainProps());
    }
    flushChangesToStream();
    if (posSectors == 0) {
        if (fallbackDataProvider && !zeroed) {
            fallbackDataProvider->getPreparedGrainData(diskGrainIndex * grainSizeBytes, data,
                                                       static_cast<int>(grainSizeBytes),
                                                       compressed);
        } else {
            initZeroGrainData(diskGrainIndex);
            data = *preparedZeroGrainData;
        }
    } else {
        const Buffer& held = compressed ? *preparedData : *grainData;
        if (held.getUsed() > 0) {
            data = held;
        } else {
            stream->seek(posSectors * kSectorSizeBytes);
            if (compressed) {
                readCompressedGrain(data);
            } else {
                readUncompressedGrain(data);
            }
        }
    }
    posInGrain = grainSizeBytes;
}

void CVMDKGrain::initZeroGrainData(long long grainIndex) {
    if (!zeroGrainData) {
        zeroGrainData = newBuffer(grainSizeBytes);
        zeroGrainData->setUsed(static_cast<size_t>(grainSizeBytes));
        zeroGrainData->fill(0);
    }
    if (!preparedZeroGrainData) {
        zeroGrainAuxBuffer = newBuffer(0);
        preparedZeroGrainData =
            dataPreparer->prepareGrainData(zeroGrainData.get(), 0, zeroGrainAuxBuffer.get());
    }
    dataPreparer->patchGrainIndexInPreparedGrainData(*preparedZeroGrainData, grainIndex);
}

void CVMDKGrain::writePreparedGrainData(const kz::TBuffer<unsigned char>& data) {
    writePreparedGrainDataImpl(Slice(data), false);
}

void CVMDKGrain::writePreparedGrainDataKeepBuffer(
    const kz::TConstBufferSlice<unsigned char>& data) {
    writePreparedGrainDataImpl(data, true);
}

void CVMDKGrain::writePreparedGrainDataImpl(const kz::TConstBufferSlice<unsigned char>& data,
                                            bool keepBuffer) {
    checkOpen("writePreparedGrainData");
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKGrain::writePreparedGrainData was called, but the grain was "
            "not opened for writing.");
    }
    const auto props = [&] {
        return grainProps().add("preparedDataSize", static_cast<long long>(data.getLength()));
    };
    if (posInGrain != 0) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           "CVMDKGrain::writePreparedGrainData can only be called when the "
                           "position in the grain is 0.",
                           props());
    }
    if (data.getLength() == 0) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           "CVMDKGrain::writePreparedGrainData called with zero-length prepared "
                           "data.",
                           props());
    }
    checkPreparedData(data);
    grainData->setUsed(0);
    preparedData->setUsed(0);
    dirty = false;
    writePreparedGrainDataInternal(data, keepBuffer);
    posInGrain = grainSizeBytes;
}

// Prepared data comes from the host: what would not fit a slot, or would be read back as
// something else than was given, is refused before anything changes.
void CVMDKGrain::checkPreparedData(const kz::TConstBufferSlice<unsigned char>& data) const {
    const long long length = static_cast<long long>(data.getLength());
    bool valid = length <= grainSizeBytes;
    if (compressed) {
        const long long longest = dataPreparer->getWorstCaseGrainSizeSectors() * kSectorSizeBytes;
        valid = length >= kHeaderSizeBytes && length <= longest &&
                kHeaderSizeBytes +
                        static_cast<long long>(readLE(data.getData() + kSizeOffsetBytes, 4)) <=
                    length;
    }
    if (!valid) {
        throw kz::CIOError(kz::CIOError::CorruptFormat,
                           "CVMDKGrain::writePreparedGrainData called with data that is not a "
                           "prepared grain of this VMDK extent.",
                           grainProps().add("preparedDataSize", length));
    }
}

void CVMDKGrain::writePreparedGrainDataInternal(const kz::TConstBufferSlice<unsigned char>& data,
                                                bool keepBuffer) {
    const Slice stored = cipher ? encrypt(data) : data;
    keepBuffer = keepBuffer && !cipher;
    bool allocate = posSectors == 0;
    long long allocSectors = grainSizeSectors;
    if (compressed) {
        allocSectors = roundUp(static_cast<long long>(stored.getLength()), kSectorSizeBytes) /
                       kSectorSizeBytes;
        if (!allocate && allocSectors > slotSizeSectors) {
            // The slot is too small and is never extended: the grain moves for good into a
            // slot that any grain fits, and the old one stays behind as dead space.
            allocate = true;
            allocSectors = worstCaseGrainSizeSectors;
        }
    }
    if (allocate) {
        const int slot = static_cast<int>(allocSectors);
        posSectors = keepBuffer
                         ? allocator->allocNewGrainKeepBuffer(extentGrainIndex, stored, slot)
                         : allocator->allocNewGrain(extentGrainIndex, stored.getData(),
                                                    static_cast<int>(stored.getLength()), slot);
        slotSizeSectors = allocSectors;
        zeroed = false;
    } else {
        stream->seek(posSectors * kSectorSizeBytes);
        if (keepBuffer) {
            stream->writeKeepBuffer(stored, nullptr);
        } else {
            stream->write(stored.getData(), static_cast<int>(stored.getLength()), nullptr);
        }
    }
    dirty = false;
}

// Encrypts prepared data into encryptedData under the grain's own IV: behind the clear
// header when compressed, else as a whole grain, filled with zeros when it is short.
kz::TConstBufferSlice<unsigned char> CVMDKGrain::encrypt(
    const kz::TConstBufferSlice<unsigned char>& data) {
    makeGrainEncryptIV(grainIV, encryptionIV, diskGrainIndex);
    const int length = static_cast<int>(data.getLength());
    if (compressed) {
        encryptedData.assign(data.getData(), static_cast<size_t>(kHeaderSizeBytes));
        cipher->encryptData(encryptionKey, data.getData() + kHeaderSizeBytes,
                            length - static_cast<int>(kHeaderSizeBytes), encryptedData, true,
                            grainIV.getData());
        return Slice(encryptedData);
    }
    const unsigned char* source = data.getData();
    if (length < grainSizeBytes) {
        paddedData.assign(data.getData(), data.getLength());
        paddedData.setUsed(static_cast<size_t>(grainSizeBytes));
        std::memset(paddedData.getData() + length, 0, static_cast<size_t>(grainSizeBytes - length));
        source = paddedData.getData();
    }
    cipher->encryptData(encryptionKey, source, static_cast<int>(grainSizeBytes), encryptedData,
                        false, grainIV.getData());
    if (encryptedData.getUsed() != static_cast<size_t>(grainSizeBytes)) {
        throw kz::CError(
            "Internal error. Encrypted data in CVMDKGrain::writePreparedGrainDataInternal has an "
            "unexpected size.",
            kz::String(), -1,
            kz::CProps()
                .add("originalSize", length)
                .add("encryptedSize", static_cast<long long>(encryptedData.getUsed())));
    }
    return Slice(encryptedData);
}

long long CVMDKGrain::makeIndependentOfParent() {
    checkOpen("makeIndependentOfParent");
    if (posInGrain != 0) {
        throw kz::CIOError(kz::CIOError::WritePastEnd,
                           "CVMDKGrain::makeIndependentOfParent can only be called when the "
                           "position in the grain is 0.",
                           grainProps());
    }
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: CVMDKGrain::makeIndependentOfParent was called, but the grain was "
            "not opened for writing.");
    }
    if (!fallbackDataProvider) {
        posInGrain = grainSizeBytes;
        return 0;
    }
    // Changes in memory already hold the parent's bytes they were merged with: storing them
    // gives the grain a slot and keeps them, where copying the parent's grain would drop them.
    if (posSectors == 0 && dirty) {
        flushChangesToStream();
    }
    if (posSectors > 0 || zeroed) {
        posInGrain = grainSizeBytes;
        return grainSizeBytes;
    }
    fallbackDataProvider->getPreparedGrainData(diskGrainIndex * grainSizeBytes, parentPreparedData,
                                               static_cast<int>(grainSizeBytes), compressed);
    writePreparedGrainData(parentPreparedData);
    return static_cast<long long>(parentPreparedData.getUsed());
}

bool CVMDKGrain::isGrainWritten() {
    if (isGrainWrittenAndIndependentOfParent()) {
        return true;
    }
    return fallbackDataProvider &&
           fallbackDataProvider->isGrainWritten(diskGrainIndex * grainSizeBytes);
}

void CVMDKGrain::setFallbackDataProvider(IVMDKDataProvider* provider) {
    fallbackDataProvider = provider;
}

kz::P<CVMDKDataPreparer> CVMDKGrain::createDataPreparer() const {
    return kz::makeP<CVMDKDataPreparer>(grainSizeSectors, compressed, compressionLevel);
}

void CVMDKGrain::makeGrainEncryptIV(kz::TBuffer<unsigned char>& iv,
                                    const kz::TBuffer<unsigned char>& baseIV,
                                    long long grainIndex) {
    iv.assign(baseIV.getData(), baseIV.getUsed());
    const auto index = static_cast<unsigned long long>(grainIndex);
    for (size_t i = 0; i < iv.getUsed(); ++i) {
        iv[i] ^= static_cast<unsigned char>(index >> ((i % 8) * 8));
    }
}

void CVMDKGrain::checkOpen(const char* operation) const {
    if (!isOpen()) {
        throw kz::CError(kz::String("Internal error: CVMDKGrain::") + operation +
                         " was called, but no grain is open.");
    }
}

kz::CProps CVMDKGrain::grainProps() const {
    return kz::CProps()
        .add("uri", uriText())
        .add("posInGrain", posInGrain)
        .add("diskGrainIndex", diskGrainIndex)
        .add("extentGrainIndex", extentGrainIndex);
}

kz::String CVMDKGrain::uriText() const {
    return stream->getURI().toString(true);
}

}  // namespace harl
