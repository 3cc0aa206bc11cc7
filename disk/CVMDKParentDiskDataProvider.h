#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/Containers.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/grain/IVMDKDataProvider.h"

namespace harl {

class CVMDKDataPreparer;
class CVMDKDisk;
class CVMDKGrainTableCache;

// The data of a differencing disk's parent, for the child's extents: every grain the child
// does not hold is read here, in disk byte positions, which child and parent share.
//
// The parent is opened read-only at the first request and not before, so a child whose work
// stays within its own grains never touches the parent's files. Opening compares the parent's
// content ID with the one the child recorded; a parent that changed since is refused, and the
// next request tries again. Beyond the parent's end the child reads zeros.
//
// Every operation seeks the parent first: its position belongs to whoever seeks last. The
// parent shares the child's grain table cache, and the child's single caller.
class CVMDKParentDiskDataProvider : public kz::CBase, public virtual IVMDKDataProvider {
public:
    // Most disks in one chain of parents, the child at the top included. Each open parent
    // holds a lock file and an extent file open, and a read that reaches the bottom nests
    // once per disk, so a deeper chain is refused rather than allowed to run out of file
    // handles or stack.
    static constexpr int kMaxChainLength = 256;

    // Opens nothing. `parentFileReference` is the child's "parentFileNameHint", resolved
    // against the child's folder. A `parentDisk` given here counts as the open parent, without
    // a content ID comparison.
    CVMDKParentDiskDataProvider(kz::IFileSystem* fileSystem, const kz::CURI& childURI,
                                unsigned int expectedContentID,
                                const kz::String& parentFileReference, long long grainSizeSectors,
                                const kz::String& password, int compressionLevel,
                                CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk);
    CVMDKParentDiskDataProvider(const CVMDKParentDiskDataProvider&);
    CVMDKParentDiskDataProvider& operator=(const CVMDKParentDiskDataProvider&);
    ~CVMDKParentDiskDataProvider() override;

    // Opens the parent unless it is open. Every error of the parent's opening, and the content
    // ID error (CIOError code 5), is logged and thrown on; the provider stays closed.
    void ensureParentDiskOpen();

    kz::CURI getParentDiskMainFileURI() const { return parentURI; }

    // The child's grain size, as given; every request names the grain size it wants.
    long long getGrainSizeSectors() const { return grainSizeSectors; }

    // Bytes of the parent; zeros for those at or past its end.
    void getData(long long position, void* buffer, int size) override;

    // The parent's grain in prepared form, or a prepared grain of zeros (with `position`'s
    // grain index) past its end. A parent of another grain size or compression is refused
    // with a CError before the position is looked at.
    void getPreparedGrainData(long long position, kz::TBuffer<unsigned char>& data, int grainSize,
                              bool compressed) override;

    // Whether the parent, or a parent of it, holds the grain; false past the parent's end.
    bool isGrainWritten(long long position) override;

    // The disks below the parent in the chain: the child and those it was opened for. A
    // parent that is one of them, or a chain longer than kMaxChainLength, is refused when
    // the parent is opened.
    void setDescendants(const kz::TArray<kz::CURI>& descendantURIs);

protected:
    void fetchParentDiskSize();

private:
    void checkChain() const;

    kz::P<kz::IFileSystem> fileSystem;
    kz::CURI childURI;
    unsigned int expectedContentID;
    kz::String parentFileReference;
    long long grainSizeSectors;
    int compressionLevel;
    kz::P<CVMDKGrainTableCache> grainTableCache;
    kz::CURI parentURI;
    kz::P<CVMDKDisk> parentDisk;
    long long parentDiskSize = -1;
    kz::String password;
    kz::P<CVMDKDataPreparer> dataPreparer;
    kz::P<kz::TBuffer<unsigned char>> zeroGrain;
    kz::P<kz::TBuffer<unsigned char>> auxBuffer;
    kz::P<kz::TBuffer<unsigned char>> preparedZeroGrain;
    // The child first, then the disk it was opened for as a parent, and so on down.
    kz::TArray<kz::CURI> descendants;
};

}  // namespace harl
