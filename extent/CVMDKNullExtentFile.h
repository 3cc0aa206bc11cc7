#pragma once

#include "harl/extent/IVMDKExtentFile.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CProps.h"

namespace harl {

// An extent with no file behind it: a hole. Every read is answered by the fallback data
// provider, at disk byte positions, or with zeros when there is none; every change is refused
// with an internal error, for the owner replaces a null extent before it passes a change on.
//
// Nothing is opened, so nothing is held or flushed; the URI only names the extent. Copies
// share the provider.
class CVMDKNullExtentFile : public kz::CBase, public virtual IVMDKExtentFile {
public:
    // `sectorSize` is bytes per sector (the library passes 512). Throws a CInvalidArgError for
    // a grain or sector size below 1, a grain of more bytes than an int holds, a negative
    // size, or an extent whose disk bytes lie beyond the range of positions.
    CVMDKNullExtentFile(const kz::CURI& uri, long long startGrainIndex, long long grainSizeSectors,
                        long long sizeSectors, long long sectorSize, bool compressed,
                        int compressionLevel, IVMDKDataProvider* fallbackDataProvider);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;

    long long getStartGrainIndex() const override { return startGrainIndex; }

    long long getGrainSizeSectors() const override { return grainSizeSectors; }

    bool getCompressed() const override { return compressed; }

    kz::CURI getURI() const override { return uri; }

    // Throws a CInvalidArgError for a position below 0 or past the extent size.
    void seek(long long newPosition) override;

    long long getPosition() const override { return position; }

    // Throws a CIOError code 4 when the bytes run past the extent, and a CInvalidArgError for a
    // negative size; then nothing was asked of the provider. A size of 0 still asks it.
    void read(void* buffer, int size) override;
    // Always throws an internal CError.
    void write(const void* buffer, int size) override;

    // Nothing is held in memory.
    void flushChanges() override {}

    // Nothing to flush or release.
    void close() override {}

    // A new preparer at each call.
    kz::P<CVMDKDataPreparer> createDataPreparer() override;
    // Always throws an internal CError.
    void writePreparedGrainData(const kz::TBuffer<unsigned char>& data) override;
    // The provider's prepared grain, or without a provider the prepared all-zero grain with
    // this grain's index; that one is compressed once per object. Throws a CIOError code 3
    // when the grain runs past the extent and code 11 off a grain boundary, tested in that
    // order.
    void readPreparedGrainData(kz::TBuffer<unsigned char>& data) override;
    // Always throws an internal CError.
    long long makeGrainIndependentOfParent(long long grainIndex) override;

    // The provider's answer for the grain that holds the position; false without one.
    bool isGrainWritten() override;

    // A hole stores nothing: always false.
    bool isGrainWrittenAndIndependentOfParent() override { return false; }

    // Four zeros, whatever the size.
    kz::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

private:
    long long toDiskPosition(long long extentPosition) const;
    void readPreparedZeroGrain(kz::TBuffer<unsigned char>& data, long long grainIndex);
    kz::CProps uriProps() const;

    kz::CURI uri;
    long long startGrainIndex;
    long long grainSizeSectors;
    long long sizeSectors;
    long long sectorSize;
    bool compressed;
    int compressionLevel;
    long long grainSizeBytes;
    long long sizeBytes;
    kz::P<IVMDKDataProvider> fallbackDataProvider;
    long long position = 0;
    // Made on the first prepared read without a provider; the grain keeps index 0 and each
    // answer is a copy patched for its own index.
    kz::P<CVMDKDataPreparer> dataPreparer;
    kz::P<kz::TBuffer<unsigned char>> preparedZeroGrain;
};

}  // namespace harl
