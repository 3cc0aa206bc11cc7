#include "harl/extent/CVMDKOnDemandExtentFile.h"

#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKNullExtentFile.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/vesk/ICipher.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEmptyExtent.h"

namespace harl {

namespace {

// Fill for the metadata of a new extent file without a descriptor: one grain table.
constexpr size_t kNewFileZeroBufferBytes = 2048;

}  // namespace

CVMDKOnDemandExtentFile::CVMDKOnDemandExtentFile(
    kz::IFileSystem* fileSystem, const kz::CURI& uri, kz::IIOStream::Access access,
    long long startGrainIndex, long long grainSizeSectors, long long sizeSectors,
    long long sectorSize, bool compressed, int compressionLevel,
    IVMDKDataProvider* fallbackDataProvider, CVMDKGrainTableCache* grainTableCache,
    CVMDKContentIDUpdater* contentIDUpdater, vesk::ICipher* cipher,
    const kz::TCryptBuffer<unsigned char>& encryptionKey,
    const kz::TBuffer<unsigned char>& encryptionIV,
    const kz::TBuffer<unsigned char>& encryptionKeyHash)
    : fileSystem(fileSystem),
      uri(uri),
      access(access),
      startGrainIndex(startGrainIndex),
      grainSizeSectors(grainSizeSectors),
      sizeSectors(sizeSectors),
      sectorSize(sectorSize),
      compressed(compressed),
      compressionLevel(compressionLevel),
      fallbackDataProvider(fallbackDataProvider),
      grainTableCache(grainTableCache),
      contentIDUpdater(contentIDUpdater),
      cipher(cipher),
      encryptionKey(encryptionKey),
      encryptionIV(encryptionIV),
      encryptionKeyHash(encryptionKeyHash) {
    updateInnerFileObject(!this->fileSystem->exists(uri));
}

void CVMDKOnDemandExtentFile::updateInnerFileObject(bool useNullExtent) {
    const long long oldPosition = innerFile ? innerFile->getPosition() : -1;
    kz::P<IVMDKExtentFile> newFile;
    if (useNullExtent) {
        newFile = kz::P<IVMDKExtentFile>(
            new CVMDKNullExtentFile(uri, startGrainIndex, grainSizeSectors, sizeSectors, sectorSize,
                                    compressed, compressionLevel, fallbackDataProvider.get()));
    } else {
        kz::P<kz::IIOStream> stream = openVMDKFileStream(fileSystem.get(), uri, access);
        newFile = kz::P<IVMDKExtentFile>(new CVMDKSparseExtentFile(
            stream.get(), access, startGrainIndex, compressionLevel, grainTableCache.get(),
            fallbackDataProvider.get(), contentIDUpdater.get(), cipher.get(), encryptionKey,
            encryptionIV));
    }
    if (oldPosition != -1) {
        newFile->seek(oldPosition);
    }
    innerFile = newFile;
    innerIsNull = useNullExtent;
}

void CVMDKOnDemandExtentFile::prepareWrite() {
    if (access != kz::IIOStream::AccessReadWrite) {
        throw kz::CError(
            "Internal error: VMDK extent file is about to be changed, but it was not opened for "
            "writing.",
            kz::String(), -1, kz::CProps().add("uri", uri.toString(true)));
    }
    if (!innerIsNull) {
        return;
    }
    if (!fileSystem->exists(uri)) {
        kz::TBuffer<unsigned char> zeros(kNewFileZeroBufferBytes);
        zeros.fill(0);
        createEmptyVMDKSparseExtentFile(fileSystem.get(), uri, compressed,
                                        sizeSectors / grainSizeSectors, grainSizeSectors, zeros,
                                        nullptr, 0, encryptionKeyHash);
    }
    updateInnerFileObject(false);
}

void CVMDKOnDemandExtentFile::setFallbackDataProvider(IVMDKDataProvider* provider) {
    fallbackDataProvider = provider;
    innerFile->setFallbackDataProvider(provider);
}

void CVMDKOnDemandExtentFile::write(const void* buffer, int size) {
    prepareWrite();
    innerFile->write(buffer, size);
}

kz::P<CVMDKDataPreparer> CVMDKOnDemandExtentFile::createDataPreparer() {
    return innerFile->createDataPreparer();
}

void CVMDKOnDemandExtentFile::writePreparedGrainData(const kz::TBuffer<unsigned char>& data) {
    prepareWrite();
    innerFile->writePreparedGrainData(data);
}

void CVMDKOnDemandExtentFile::readPreparedGrainData(kz::TBuffer<unsigned char>& data) {
    innerFile->readPreparedGrainData(data);
}

long long CVMDKOnDemandExtentFile::makeGrainIndependentOfParent(long long grainIndex) {
    prepareWrite();
    return innerFile->makeGrainIndependentOfParent(grainIndex);
}

bool CVMDKOnDemandExtentFile::isGrainWrittenAndIndependentOfParent() {
    return innerFile->isGrainWrittenAndIndependentOfParent();
}

}  // namespace harl
