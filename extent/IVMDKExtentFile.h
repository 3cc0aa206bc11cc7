#pragma once

#include "harl/extent/CVMDKSpaceInfo.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IBase.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/grain/CVMDKDataPreparer.h"
#include "harl/grain/IVMDKDataProvider.h"

namespace harl {

// What a disk sees of one extent: a byte range with its own position, counted from the
// extent's first byte. The disk translates its own position, seeks the extent and then reads
// or writes; an extent knows nothing of the disk's position.
//
// Grain indexes that an extent reports or is asked about count from the extent's first grain
// unless a method says otherwise; the provider is always asked in disk byte positions.
class IVMDKExtentFile : public virtual kz::IBase {
public:
    IVMDKExtentFile() = default;
    IVMDKExtentFile(const IVMDKExtentFile&) = default;
    IVMDKExtentFile(IVMDKExtentFile&&) = default;
    IVMDKExtentFile& operator=(const IVMDKExtentFile&) = default;
    IVMDKExtentFile& operator=(IVMDKExtentFile&&) = default;

    // Replaces the fallback data provider; null removes it.
    virtual void setFallbackDataProvider(IVMDKDataProvider* provider) = 0;

    // Index, in the whole disk, of the extent's first grain.
    virtual long long getStartGrainIndex() const = 0;
    virtual long long getGrainSizeSectors() const = 0;
    virtual bool getCompressed() const = 0;
    virtual kz::CURI getURI() const = 0;

    // Sets the extent-relative byte position; 0 to the extent size, both included.
    virtual void seek(long long position) = 0;
    virtual long long getPosition() const = 0;

    // Reads or writes exactly `size` bytes (not negative) at the position and advances it by
    // `size` once the transfer is done; a failure leaves the position where it was.
    virtual void read(void* buffer, int size) = 0;
    virtual void write(const void* buffer, int size) = 0;

    // Brings everything the extent holds in memory to its file. An extent with nothing
    // changed since its last flush touches no file.
    virtual void flushChanges() = 0;

    // Flushes what changed and releases the extent's file, reporting a failure of either: the
    // way for a host to learn that the last changes did not reach the file. After a failure
    // the extent stays open and a later close tries again. After success the extent is not to
    // be used again (one over a file refuses every operation), a second close does nothing,
    // and destruction touches no file.
    virtual void close() = 0;

    // A new preparer with the extent's grain size, compression flag and compression level.
    virtual kz::P<CVMDKDataPreparer> createDataPreparer() = 0;

    // Store or give one grain in prepared form at the position, which lies on a grain
    // boundary, and advance the position by one grain.
    virtual void writePreparedGrainData(const kz::TBuffer<unsigned char>& data) = 0;
    virtual void readPreparedGrainData(kz::TBuffer<unsigned char>& data) = 0;

    // Copies grain `grainIndex` (extent-relative) from the provider into the extent where the
    // extent does not hold it, and leaves the position on the next grain. Returns the size of
    // the prepared data of a copied grain, the grain size in bytes for a grain held already,
    // and 0 without a provider.
    virtual long long makeGrainIndependentOfParent(long long grainIndex) = 0;

    // Whether the grain that holds the position is written here or, through the provider, in
    // a parent; and whether it is stored in this extent itself.
    virtual bool isGrainWritten() = 0;
    virtual bool isGrainWrittenAndIndependentOfParent() = 0;

    // The extent's space accounting, as a new record.
    virtual kz::P<CVMDKSpaceInfo> gatherSpaceInfo() = 0;

protected:
    ~IVMDKExtentFile() override = default;
};

}  // namespace harl
