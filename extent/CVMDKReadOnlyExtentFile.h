#pragma once

#include "harl/extent/IVMDKExtentFile.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CProps.h"

namespace harl {

// What the extents of files that other writers made share: they are read, never written, and
// stand on nothing (no parent, no content ID). The position, its bounds and the refusals of
// every change live here; a subclass reads bytes and prepared grains.
//
// Every change (write, prepared write, making a grain independent, installing a provider) is
// refused with an internal CError: the disk that holds such an extent is opened read-only and
// tests its access before it passes a change on. flushChanges has nothing to do.
class CVMDKReadOnlyExtentFile : public kz::CBase, public virtual IVMDKExtentFile {
public:
    // A null provider is accepted and changes nothing; any other one is refused, since such an
    // extent holds every grain of its range itself.
    void setFallbackDataProvider(IVMDKDataProvider* provider) override;

    long long getStartGrainIndex() const override { return startGrainIndex; }

    long long getGrainSizeSectors() const override { return grainSizeSectors; }

    bool getCompressed() const override { return compressed; }

    kz::CURI getURI() const override { return uri; }

    // Throws a CInvalidArgError for a position below 0 or past the extent size. Moves only the
    // position; the file is read at the next read.
    void seek(long long newPosition) override;

    long long getPosition() const override { return position; }

    void write(const void* buffer, int size) override;

    void flushChanges() override {}

    // Nothing changes here, so closing only lets the file go; reading after it fails with the
    // stream's code 10.
    void close() override { closeFile(); }

    kz::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(const kz::TBuffer<unsigned char>& data) override;
    long long makeGrainIndependentOfParent(long long grainIndex) override;

    // Without a parent, a grain that is written is written here.
    bool isGrainWrittenAndIndependentOfParent() override { return isGrainWritten(); }

    long long getSizeBytes() const { return sizeBytes; }

protected:
    CVMDKReadOnlyExtentFile(const kz::CURI& uri, long long startGrainIndex, int compressionLevel);

    // Closes the subclass's file; a second call does nothing.
    virtual void closeFile() = 0;

    // The geometry, once the subclass knows it: sectors per grain (1 or more, a grain of at
    // most an int of bytes), the extent size in sectors (0 or more, its bytes within a long
    // long) and whether prepared grains are compressed. Throws a CInvalidArgError otherwise.
    void setGeometry(long long grainSizeSectors, long long sizeSectors, bool compressed);

    // The bounds of a read of `size` bytes at the position: a CInvalidArgError for a negative
    // size, a CIOError code 4 past the extent.
    void checkReadRange(int size) const;
    // The bounds of a prepared grain read at the position: a CIOError code 3 when the grain
    // runs past the extent, then code 11 off a grain boundary.
    void checkPreparedGrainRead() const;

    kz::CProps uriProps() const;

    long long getGrainSizeBytes() const { return grainSizeBytes; }

    int getCompressionLevel() const { return compressionLevel; }

    long long position = 0;

private:
    [[noreturn]] void refuseChange(const char* operation) const;

    kz::CURI uri;
    long long startGrainIndex;
    int compressionLevel;
    long long grainSizeSectors = 0;
    long long grainSizeBytes = 0;
    long long sizeBytes = 0;
    bool compressed = false;
};

}  // namespace harl
