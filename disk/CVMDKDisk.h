#pragma once

#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/descriptor/CVMDKExtentInfo.h"
#include "harl/disk/CVMDKParentDiskDataProvider.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKSpaceInfo.h"
#include "harl/extent/IVMDKExtentFile.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CLockFile.h"
#include "harl/foundation/kz/CProps.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/Containers.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/foundation/vesk/ICipher.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/IVMDKDataProvider.h"

namespace harl {

// A VMDK disk as one flat, byte-addressed space with one position. The space is cut into
// extents, one per extent line of the descriptor; the disk keeps at most one of them open and
// cuts every transfer at extent boundaries, so a split disk holds one file at a time.
//
// Opening takes the lock file "<main file name>.lock" beside the main file (shared for
// reading, exclusive for writing) and holds it for the life of the disk and its copies, reads
// the descriptor, proves the password of an encrypted disk against its key hash, maps the
// extent lines and reads the grain geometry from the first extent. Opening changes no file of
// the disk; the first change of the disk's data gives it a new content ID. A differencing
// disk reads what it does not hold from its parent, which is opened read-only when a read
// first needs it.
//
// Position: every transfer starts at getPosition() and, chunk by chunk, advances it once the
// extent has done the chunk. A failure in a later extent leaves the position behind the
// chunks already done, and those stay done. Bounds and the access mode are tested before any
// byte moves.
//
// Extents: the open extent is flushed and closed when an operation finds the position outside
// it; seek alone never touches an extent. A position at an extent's first byte belongs to that
// extent, and an extent line of size 0 holds no position.
//
// One caller at a time: nothing here is locked or atomic. Copies share every reference-counted
// member, the open extent included.
class CVMDKDisk : public kz::CBase {
public:
    // A sector range of the disk. Keys are ordered by "a ends at or before b starts", so the
    // keys of overlapping ranges are equivalent and the lookup key {sector, 1} finds the range
    // that holds a sector. A key of size 0 is not ordered against itself: such ranges never
    // enter the map.
    struct CExtentKey {
        long long startSector = 0;
        long long sizeSectors = 0;

        friend bool operator<(const CExtentKey& a, const CExtentKey& b) {
            return a.startSector + a.sizeSectors <= b.startSector;
        }
    };

    // What the disk knows of an extent while it is closed.
    struct CExtentValue {
        kz::CURI uri;
        // Index, counted over the whole disk, of the extent's first grain.
        long long startGrainIndex = -1;
    };

    // Opens the disk whose descriptor is in `uri`: a descriptor file, or a sparse extent that
    // embeds its descriptor. `access` 1 reads, 3 reads and writes. `password` is needed for an
    // encrypted disk and ignored otherwise, but for being handed to the parent; the disk does
    // not keep it. `compressionLevel` goes to the extents (-1: the compressor's default).
    // `grainTableCache`, when given, is shared with this disk and its parents; else the disk
    // makes its own of 1024 tables. `parentDisk`, when given, serves as the open parent of a
    // differencing disk, with no content ID comparison.
    //
    // Throws kz::CLockFileError when the lock is held elsewhere or cannot be made (a reader
    // goes on without a lock when the lock file cannot be made and does not exist), CIOError
    // code 5 for a disk of an unsupported kind or a corrupt descriptor or first extent,
    // kz::CError "Specified VMDK encryption password is not correct." for a wrong password,
    // and what the file system throws.
    CVMDKDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri, kz::IIOStream::Access access,
              const kz::String& password, int compressionLevel,
              CVMDKGrainTableCache* grainTableCache, CVMDKDisk* parentDisk);

    // Creates a disk of at least `minSizeBytes` (see getVirtualDiskSizeBytesFromMinSizeBytes)
    // at `uri` and returns it open for writing. `password` empty: not encrypted.
    // `compressed`: grains are compressed, the create type is "streamOptimized".
    // `fileSizeLimit` -1: one file; else extent files of at most that many bytes (at most
    // 2 TiB), named "<title>-s<5 digits><extension>" beside `uri`. `sParentRelPath` and
    // `parentContentID` name the parent of a differencing disk, or are empty and 0xFFFFFFFF.
    // `createExtentFilesOnDemand`: extent files after the first are made at their first write.
    //
    // Every size and argument error is thrown before the first file is touched. An error while
    // the files are written leaves the files finished before it; an extent file that was being
    // written is deleted. Files of an earlier disk of the same name are replaced, unless that
    // disk is open: the disk's lock file is held while the files are written, and a lock held
    // elsewhere fails the call with kz::CLockFileError before any file changes.
    static kz::P<CVMDKDisk> create(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                   long long minSizeBytes, const kz::String& password,
                                   bool compressed, int compressionLevel, long long fileSizeLimit,
                                   const kz::String& sParentRelPath, unsigned int parentContentID,
                                   bool createExtentFilesOnDemand);

    // The largest extent file of a split disk that create() makes by default: 2 GiB.
    static long long getDefaultFileSizeLimit() { return 2147483648LL; }

    // The size create() gives a disk for `minSizeBytes`: at least 8 MiB, rounded up to a
    // multiple of 64 KiB.
    static long long getVirtualDiskSizeBytesFromMinSizeBytes(long long minSizeBytes);

    // Fills `key` with `keyBytes` bytes derived from `password` (its UTF-8 bytes) by
    // `algorithm`, "pkcs5-pbkdf2-hmac-sha1:<iterations>" with at least 1000 iterations, and
    // `salt` of at least 8 bytes. Else a kz::CInvalidArgError.
    static void deriveEncryptKey(kz::TCryptBuffer<unsigned char>& key, int keyBytes,
                                 const kz::String& password, const kz::String& algorithm,
                                 const kz::TBuffer<unsigned char>& salt);

    CVMDKDisk(const CVMDKDisk&) = default;
    CVMDKDisk& operator=(const CVMDKDisk&) = default;
    // Flushes the open extent of a writable disk; a failure there is reported to the log and
    // does not leave the destructor.
    ~CVMDKDisk() override;

    // Sets the position; 0 to getSizeBytes(), both included, else a CIOError code 7.
    void seek(long long newPosition);

    long long getPosition() const { return position; }

    // Transfer `bytes` bytes at the position. A count of 0 or below moves nothing and opens no
    // extent. Past the end: a CIOError code 4 (read) or 3 (write). write on a disk opened
    // read-only: an internal CError, after the size test.
    void read(void* buffer, int bytes);
    void write(const void* buffer, int bytes);

    // One grain in prepared form at the position, which must lie on a grain boundary with the
    // whole grain inside the disk (else a CIOError code 3, then 11); advances by one grain. A
    // grain that an extent boundary cuts gives an internal CError.
    void readPreparedGrainData(kz::TBuffer<unsigned char>& buffer);
    void writePreparedGrainData(const kz::TBuffer<unsigned char>& buffer);

    // Ask the extent that holds the position; the position does not move. At getSizeBytes()
    // no extent holds it: an internal CError.
    bool isGrainWritten();
    bool isGrainWrittenAndIndependentOfParent();

    // Copies grain `grainIndex` (counted over the whole disk) from the parent into its extent
    // and leaves the position at the start of the next grain. Returns the extent's answer.
    long long makeGrainIndependentOfParent(long long grainIndex);

    // Flushes the open extent of a writable disk. The extent stays open.
    void flushChanges();

    // Flushes what changed and closes the open extent's file, reporting a failure of either:
    // the way to learn that the last changes reached the files before the disk is let go,
    // whose destructor can only log. After a failure the extent stays open and a later call
    // tries again. After success no extent file is open (the lock stays until the disk goes),
    // and a later operation opens an extent again.
    void close();

    // Writes the descriptor in memory back to the main file. An internal CError on a disk
    // not opened for writing.
    void storeDescriptor();

    // Names another parent file (a file reference, resolved against the main file's folder)
    // and stores the descriptor. The parent content ID stays, and a parent already opened
    // stays in use. An internal CError on a disk not opened for writing.
    void changeParentRelPath(const kz::String& sParentRelPath);

    // How the disk's files spend their bytes, summed over the extents. Walks every grain table
    // and, on a writable disk, flushes each extent first. The position is the same afterwards,
    // also when the walk fails.
    kz::P<CVMDKSpaceInfo> gatherSpaceInfo();

    long long getSizeBytes() const { return sizeBytes; }

    long long getGrainSizeBytes() const { return grainSizeBytes; }

    bool getCompressed() const { return compressed; }

    kz::CURI getMainFileURI() const { return mainFileURI; }

    kz::CURI getFirstExtentFileURI() const { return firstExtentFileURI; }

    // The parent's main file; empty for a disk without a parent.
    kz::CURI getParentDiskMainURI() const { return parentDiskMainURI; }

    // The provider that reads the parent, or null for a disk without a parent.
    kz::P<CVMDKParentDiskDataProvider> getParentProvider() const { return parentDataProvider; }

    kz::IIOStream::Access getAccess() const { return access; }

    kz::P<CVMDKDescriptor> getDescriptor() const { return descriptor; }

    // The cache of grain tables that the disk's extents share.
    kz::P<CVMDKGrainTableCache> getGrainTableCache() const { return grainTableCache; }

    // Whether the table cache writes and drops tables beyond its limit as it goes. A cache
    // shared with other disks changes for them too.
    void setAutomaticGrainTableFlushingEnabled(bool enabled);

    // Whether the first change of the opened disk gives it a new content ID.
    void setContentIDUpdatesEnabled(bool enabled);

    // A new preparer with this disk's grain size, compression and level. It carries no
    // cipher: prepared grains are in the clear.
    kz::P<CVMDKDataPreparer> createDataPreparer() const;

    // Sectors per grain of a disk that create() writes; getGrainSizeBytes() tells what this
    // disk has.
    static long long getGrainSizeSectors() { return 128; }

protected:
    // A disk without extents, at position 0: `mainFileURI` is kept normalized. The extent map
    // is filled through appendExtentRange and finished by finishExtentMap.
    CVMDKDisk(kz::IFileSystem* fileSystem, const kz::CURI& mainFileURI,
              kz::IIOStream::Access access, int compressionLevel);

    // Adds the range of one extent line behind those added so far. The first call names the
    // first extent file. A line of size 0 takes no position and gets no map entry. A negative
    // size, or a disk beyond the range of byte positions, is a CIOError code 5.
    void appendExtentRange(const kz::CURI& fileURI, long long rangeSizeSectors);

    // Sets the grain geometry, which the first extent gives for the whole disk, and the start
    // grain index of every range (rounded up for a range that starts inside a grain). Leaves
    // the position at 0 with no extent open.
    void finishExtentMap(long long diskGrainSizeSectors, bool diskCompressed);

    // Makes the extent object for a map entry whose range holds the position: `uri` is the
    // entry's file, normalized. An on-demand extent for a missing file of a disk that makes
    // its files on demand, else a sparse extent over the file. Never returns null; throws
    // when the extent cannot be made.
    virtual kz::P<IVMDKExtentFile> makeExtentFile(const kz::CURI& uri, long long startGrainIndex,
                                                  long long rangeSizeSectors);

    // An accessor of the main file's descriptor: on the open extent's stream when that extent
    // is the main file, else on a new stream of the main file.
    kz::P<CVMDKDescriptorAccessor> openDescriptorAccessor();

    // The step of every operation that reaches an extent. Closes the open extent if the
    // position has left it, opens the one that holds the position, and seeks it there (only if
    // its own position differs). Out: `extent`, a new reference to it; `opBytes`, how many of
    // `bytes` lie in it from the position on. The position does not move.
    void beginIOOp(long long bytes, kz::P<IVMDKExtentFile>& extent, long long& opBytes);

private:
    // Writes the files of a new disk: a descriptor file unless it is embedded, then each
    // extent file in disk order, after deleting what stands under its name.
    static void writeNewDiskFiles(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                  bool embedDescriptor, long long descriptorSectors,
                                  bool compressed, bool createExtentFilesOnDemand,
                                  CVMDKDescriptor& descriptor,
                                  const kz::TArray<std::pair<kz::String, long long>>& extents,
                                  const kz::TBuffer<unsigned char>& keyHash);
    void takeLock(const kz::CURI& uri);
    void loadDescriptor(const kz::CURI& uri);
    void setUpEncryption(const kz::CURI& uri, const kz::String& password);
    void readGeometry();
    void openExtentAtPosition();
    // The size test, then the grain boundary test, of a prepared grain read or write.
    void checkPreparedGrainRange(const char* what) const;
    void testGrainOpBytes(long long opBytes, const char* message) const;
    kz::CProps mainFileProps() const;

    // Members go in reverse declaration order: the key material first (the key buffer wipes
    // itself), and whatever stands behind currentExtent, a lock on the disk included, before
    // the open extent closes its file.
    kz::P<kz::IFileSystem> fileSystem;
    kz::CURI mainFileURI;
    kz::IIOStream::Access access;
    kz::CURI firstExtentFileURI;
    int compressionLevel;
    kz::P<CVMDKGrainTableCache> grainTableCache;
    kz::CURI parentDiskMainURI;
    kz::P<CVMDKParentDiskDataProvider> parentDataProvider;
    kz::P<CVMDKDescriptor> descriptor;
    kz::TArray<kz::P<CVMDKExtentInfo>> extentInfos;
    kz::TMap<CExtentKey, CExtentValue> extentMap;
    long long sizeSectors = 0;
    long long sizeBytes = 0;
    long long grainSizeSectors;
    long long grainSizeBytes;
    bool compressed = false;
    long long position = 0;
    kz::P<IVMDKExtentFile> currentExtent;
    kz::CURI currentExtentURI;
    long long currentExtentStartBytes = -1;
    long long currentExtentSizeBytes = 0;
    kz::P<CVMDKContentIDUpdater> contentIDUpdater;
    bool createExtentFilesOnDemand = false;
    kz::P<kz::CLockFile> lockFile;
    kz::P<vesk::ICipher> cipher;
    kz::TCryptBuffer<unsigned char> encryptionKey;
    kz::TBuffer<unsigned char> encryptionIV;
    kz::TBuffer<unsigned char> encryptionKeyHash;
};

}  // namespace harl
