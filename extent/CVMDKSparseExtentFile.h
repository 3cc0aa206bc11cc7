#pragma once

#include "harl/extent/IVMDKExtentFile.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"

namespace vesk {
class ICipher;
}

namespace harl {

class CVMDKContentIDUpdater;
class CVMDKGrain;
class CVMDKGrainAllocator;
class CVMDKGrainDirectory;
class CVMDKGrainTableCache;
class CVMDKSparseExtentHeader;

// An extent backed by an open sparse extent file: the place where the stream, the header, the
// grain directory, the allocator and the one grain object of the extent are put together.
//
// The constructor validates the file completely; a constructed object is usable. Byte
// operations are cut at grain boundaries, and a sequential run costs one table look-up per
// grain. A flush writes grain data, then the trail, then flushes the stream, then the tables,
// then flushes again, so that a table never points at a grain the file does not hold. An
// extent that has not changed since its last flush flushes nothing, and close() is the way to
// learn that the last flush at the end of the extent's life worked; the destructor can only
// log a failure.
//
// The entries of each grain table are checked as the table is read: a grain whose slot
// reaches into metadata, past the end of the data or into another grain's slot of its table is
// refused with kz::CIOError code 5 before anything is read from it or written through it.
//
// Files of other writers may mark grains written as zeros by a table entry of 1 (header flag
// bit 2): such a grain reads as zeros, never from the provider, and a write gives it a slot.
//
// Every change is announced to the content ID updater first; without an updater, or opened
// for reading, the extent refuses changes. Not thread-safe: calls must not overlap.
class CVMDKSparseExtentFile : public kz::CBase, public virtual IVMDKExtentFile {
public:
    // Largest grain accepted from a file, in sectors (8 MiB): grains are buffered whole and
    // their compressed slots must stay within the 16-bit slot-size entries.
    static constexpr long long kMaxGrainSizeSectors = 16384;
    // Largest grain table accepted from a file, in entries (256 KiB per table); new files
    // have 512.
    static constexpr long long kMaxGrainTableEntryCount = 65536;
    // Largest capacity accepted, in sectors, so that byte positions fit 64 bits with room.
    static constexpr long long kMaxCapacitySectors = 1LL << 52;

    // The stream stands at the file's start. `cipher` must be given exactly when the file is
    // encrypted, with the right key. Throws what the opening tests and the lower layers throw.
    CVMDKSparseExtentFile(kz::IIOStream* stream, kz::IIOStream::Access access,
                          long long startGrainIndex, int compressionLevel,
                          CVMDKGrainTableCache* grainTableCache,
                          IVMDKDataProvider* fallbackDataProvider,
                          CVMDKContentIDUpdater* contentIDUpdater, vesk::ICipher* cipher,
                          const kz::TCryptBuffer<unsigned char>& encryptionKey,
                          const kz::TBuffer<unsigned char>& encryptionIV);

    void setFallbackDataProvider(IVMDKDataProvider* provider) override;

    long long getStartGrainIndex() const override { return startGrainIndex; }

    long long getGrainSizeSectors() const override { return grainSizeSectors; }

    bool getCompressed() const override { return compressed; }

    kz::CURI getURI() const override;
    void seek(long long newPosition) override;

    long long getPosition() const override { return position; }

    void read(void* buffer, int size) override;
    void write(const void* buffer, int size) override;
    void flushChanges() override;
    // Flushes what changed, then closes the stream (which writes and syncs nothing more).
    // Throws what they throw; the extent then stays open. Afterwards every operation throws
    // kz::CIOError code 10.
    void close() override;
    kz::P<CVMDKDataPreparer> createDataPreparer() override;
    void writePreparedGrainData(const kz::TBuffer<unsigned char>& data) override;
    void readPreparedGrainData(kz::TBuffer<unsigned char>& data) override;
    long long makeGrainIndependentOfParent(long long grainIndex) override;
    bool isGrainWritten() override;
    bool isGrainWrittenAndIndependentOfParent() override;
    kz::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

    kz::P<kz::IIOStream> getStream() const { return stream; }

    long long getCapacityBytes() const { return capacityBytes; }

    // True when the extent has changes that its last flush did not bring to the file.
    bool hasUnflushedChanges() const { return changedSinceFlush; }

protected:
    // Flushes what changed, unless the extent was closed; a failure is logged.
    ~CVMDKSparseExtentFile() override;

    // Makes the grain stand on `position` and returns how many of `maxBytes` lie in it.
    long long beginIOOp(long long maxBytes);
    void onAboutToChange();
    void verifyHaveWriteAccess();
    // What a flush writes, in its order, each followed by a flush of the stream: the open grain
    // and the trail, then the tables.
    void writeGrainData();
    void writeTables();

private:
    void checkNotClosed() const;
    kz::CProps uriProps() const;
    void loadHeader();
    void checkEncryption();
    void checkGeometry();
    kz::TBuffer<unsigned char> makeTrailData();
    // Has the directory check each table's entries against the file's metadata and the end of
    // its data as the table is read, so that no grain is read or written through a bad entry.
    void checkSlotsOfTables();
    // The internal error of a prepared operation that found less than a grain before it.
    void checkWholeGrain(long long chunk, const char* operation) const;

    kz::P<kz::IIOStream> stream;
    kz::IIOStream::Access access;
    kz::P<CVMDKGrainTableCache> grainTableCache;
    long long startGrainIndex;
    kz::P<IVMDKDataProvider> fallbackDataProvider;
    kz::P<CVMDKContentIDUpdater> contentIDUpdater;
    kz::P<CVMDKSparseExtentHeader> header;
    long long capacitySectors = 0;
    long long capacityBytes = 0;
    long long grainSizeSectors = 0;
    long long grainSizeBytes = 0;
    bool compressed = false;
    // Flag bit 2 of the header: a table entry of 1 marks a grain written as zeros.
    bool zeroedGrainEntries = false;
    int compressionLevel;
    kz::P<CVMDKGrainDirectory> grainDirectory;
    kz::P<CVMDKGrainAllocator> grainAllocator;
    kz::P<CVMDKGrain> grain;
    long long currentGrainIndex = -1;
    long long position = 0;
    // Set before the first change after a flush, cleared when a flush has brought every
    // change to the file; a flush of a clean extent does nothing.
    bool changedSinceFlush = false;
    bool closed = false;
    kz::P<vesk::ICipher> cipher;
    kz::TCryptBuffer<unsigned char> encryptionKey;
    kz::TBuffer<unsigned char> encryptionIV;
};

}  // namespace harl
