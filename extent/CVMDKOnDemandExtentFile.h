#pragma once

#include "harl/extent/IVMDKExtentFile.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"

namespace vesk {
class ICipher;
}

namespace harl {

class CVMDKContentIDUpdater;
class CVMDKGrainTableCache;

// An extent whose file may not exist yet. While it is missing, a null extent stands in, so
// the extent reads as a hole (from the provider, or zeros) and costs no file, handle or
// table. The first change creates the file, swaps in a sparse extent over it and keeps the
// position. A failure to create leaves the hole in place, and the next change tries again.
class CVMDKOnDemandExtentFile : public kz::CBase, public virtual IVMDKExtentFile {
public:
    CVMDKOnDemandExtentFile(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                            kz::IIOStream::Access access, long long startGrainIndex,
                            long long grainSizeSectors, long long sizeSectors, long long sectorSize,
                            bool compressed, int compressionLevel,
                            IVMDKDataProvider* fallbackDataProvider,
                            CVMDKGrainTableCache* grainTableCache,
                            CVMDKContentIDUpdater* contentIDUpdater, vesk::ICipher* cipher,
                            const kz::TCryptBuffer<unsigned char>& encryptionKey,
                            const kz::TBuffer<unsigned char>& encryptionIV,
                            const kz::TBuffer<unsigned char>& encryptionKeyHash);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;

    long long getStartGrainIndex() const override { return startGrainIndex; }

    long long getGrainSizeSectors() const override { return grainSizeSectors; }

    bool getCompressed() const override { return compressed; }

    kz::CURI getURI() const override { return uri; }

    void seek(long long position) override { innerFile->seek(position); }

    long long getPosition() const override { return innerFile->getPosition(); }

    void read(void* buffer, int size) override { innerFile->read(buffer, size); }

    void write(const void* buffer, int size) override;

    void flushChanges() override { innerFile->flushChanges(); }

    // Closes the inner object; a hole has nothing to close, and the file is not created.
    void close() override { innerFile->close(); }

    kz::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(const kz::TBuffer<unsigned char>& data) override;
    void readPreparedGrainData(kz::TBuffer<unsigned char>& data) override;
    long long makeGrainIndependentOfParent(long long grainIndex) override;

    bool isGrainWritten() override { return innerFile->isGrainWritten(); }

    bool isGrainWrittenAndIndependentOfParent() override;

    kz::P<CVMDKSpaceInfo> gatherSpaceInfo() override { return innerFile->gatherSpaceInfo(); }

    // True while the file is missing and the extent is a hole.
    bool isHole() const { return innerIsNull; }

protected:
    // Replaces the inner object by a null extent or by a sparse extent over the file, and
    // seeks the new one to the old one's position. Throws with nothing changed.
    void updateInnerFileObject(bool useNullExtent);
    // Makes sure the file exists and the inner object is a sparse extent over it.
    void prepareWrite();

private:
    kz::P<kz::IFileSystem> fileSystem;
    kz::CURI uri;
    kz::IIOStream::Access access;
    long long startGrainIndex;
    long long grainSizeSectors;
    long long sizeSectors;
    long long sectorSize;
    bool compressed;
    int compressionLevel;
    kz::P<IVMDKDataProvider> fallbackDataProvider;
    kz::P<CVMDKGrainTableCache> grainTableCache;
    kz::P<CVMDKContentIDUpdater> contentIDUpdater;
    bool innerIsNull = false;
    kz::P<IVMDKExtentFile> innerFile;
    kz::P<vesk::ICipher> cipher;
    kz::TCryptBuffer<unsigned char> encryptionKey;
    kz::TBuffer<unsigned char> encryptionIV;
    kz::TBuffer<unsigned char> encryptionKeyHash;
};

}  // namespace harl
