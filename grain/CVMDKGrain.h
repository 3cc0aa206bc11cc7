#pragma once

#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/foundation/kz/TConstBufferSlice.h"
#include "harl/foundation/vesk/ICipher.h"
#include "harl/grain/CVMDKDataPreparer.h"
#include "harl/grain/IVMDKDataProvider.h"
#include "harl/grain/IVMDKGrainAllocator.h"

namespace harl {

// A sparse extent's window on one grain at a time. The extent opens it on a grain; byte reads
// and writes then work on an in-memory copy of the grain's plain data, and the grain is stored
// when another grain is opened, on a flush, before a prepared read, at close and in the
// destructor. Everything a grain's bytes go through between the caller and the file happens
// here: read-through to the parent, merging of partial writes, compression (through the data
// preparer), encryption and slot handling (through the allocator). One object serves a whole
// extent and keeps its buffers from grain to grain.
//
// A grain on disk starts at byte posSectors x 512 of the extent file. Which form a file uses
// follows from the extent (compressed or not, with a cipher or not), never from the grain:
//
// | form            | bytes                                               | slot length   |
// |-----------------|-----------------------------------------------------|---------------|
// | plain           | grainSizeBytes of grain data                        | the grain     |
// | encrypted       | grainSizeBytes of ciphertext (a grain is whole      | the grain     |
// |                 | cipher blocks, so the length stays)                 |               |
// | compressed      | the prepared grain of CVMDKDataPreparer, byte for   | its sectors,  |
// |                 | byte: header, compressed bytes, zero fill           | or more       |
// | compressed and  | the prepared grain's 12-byte header in the clear,   | its sectors,  |
// | encrypted       | then the ciphertext of everything behind it, fill   | or more       |
// |                 | included                                            |               |
//
// The compressed forms, little-endian:
//
// | offset | size       | field | meaning                                                    |
// |--------|------------|-------|------------------------------------------------------------|
// | 0      | 8          | lba   | first sector of the grain on the virtual disk; unsigned;   |
// |        |            |       | written, never tested on reading                           |
// | 8      | 4          | size  | number of compressed bytes, before encryption; unsigned;   |
// |        |            |       | a reader refuses more than 2 x grainSizeBytes              |
// | 12     | size       | data  | compressed bytes (compressed form)                         |
// | 12     | size up to | data  | ciphertext (compressed and encrypted form); a reader       |
// |        | cipher     |       | decrypts size rounded up to whole cipher blocks            |
// |        | blocks     |       |                                                            |
// | after  | to sector  | fill  | zeros (compressed form); behind the data nothing has a     |
// |        | boundary   |       | meaning: the slot may be longer than the grain             |
//
// Compression comes first, then encryption, and the 12-byte header is never encrypted, so a
// prepared grain of L bytes is stored in L + 12 bytes with a cipher of 16-byte blocks: one
// sector more. Each grain is encrypted under its own IV (makeGrainEncryptIV), made from the
// disk's base IV and the grain's index in the whole disk, so the same content gives different
// ciphertext at different places. Prepared data is always in the clear.
//
// Slots: a grain is written over its slot for as long as it fits. A compressed grain that
// outgrows its slot moves to the end of the data into a slot of worstCaseGrainSizeSectors and
// never has to move again; the old slot is left behind as dead space. A new grain takes just
// the sectors it needs.
//
// Not copyable: two objects holding the same unflushed grain would store it twice.
class CVMDKGrain : public kz::CBase {
public:
    // `stream` is the extent file, shared with the extent, the directory and the allocator;
    // whoever uses it seeks first. `allocator` may be null only for `access` 1. `cipher` null
    // means no encryption; with one, `encryptionIV` holds one cipher block (the base IV) and
    // the grain size must be a whole number of blocks. Key and IV are copied. Throws a
    // CInvalidArgError for a grain size below 1 sector or beyond an int of bytes and for the
    // cases above. The object starts closed.
    CVMDKGrain(kz::IIOStream* stream, kz::IIOStream::Access access, long long grainSizeSectors,
               IVMDKGrainAllocator* allocator, bool compressed, int compressionLevel,
               IVMDKDataProvider* fallbackDataProvider, vesk::ICipher* cipher,
               const kz::TCryptBuffer<unsigned char>& encryptionKey,
               const kz::TBuffer<unsigned char>& encryptionIV);
    CVMDKGrain(const CVMDKGrain&) = delete;
    CVMDKGrain& operator=(const CVMDKGrain&) = delete;

    // Closes the grain, which stores it; a failure is logged and goes no further.
    ~CVMDKGrain() override;

    // Closes what is open (which stores it, and throws if that fails, leaving the old grain
    // open) and stands at the start of the given grain. A `posSectors` of 0 or below means
    // that the extent does not store the grain; its slot length is then taken as 0. A stored
    // compressed grain with a slot length of 0 or below has a slot of unknown length: it reads
    // as its data says and moves when rewritten. Nothing is read. An uncompressed slot shorter
    // than a grain throws a CInvalidArgError and leaves the object closed.
    void open(long long extentGrainIndex, long long diskGrainIndex, long long posSectors,
              long long slotSizeSectors);

    // The same for a grain that the file records as written with zeros and stores nowhere: it
    // reads as zeros whatever the provider holds, counts as written here, and a store gives
    // it a new slot.
    void openZeroed(long long extentGrainIndex, long long diskGrainIndex);

    // Stores the grain if it is dirty, then forgets it. A failed store throws and leaves the
    // grain open and dirty.
    void close();

    bool isOpen() const { return posSectors != -1; }

    // Moves within the grain: 0 up to, not including, the grain size. The extent re-seeks
    // at a grain's end, so the end itself is refused.
    void seek(long long position);

    long long getPosition() const { return isOpen() ? posInGrain : 0; }

    int getBytesLeft() const;

    // 0: the extent does not store the grain; -1: closed.
    long long getGrainStartPositionSectors() const { return posSectors; }

    // Reads `size` bytes at the position and advances it. An unallocated grain that is not in
    // memory is read straight into `buffer`, from the provider or as zeros; any other grain
    // is loaded whole first. A failed load leaves nothing loaded, so the next read tries the
    // file again.
    void read(void* buffer, int size);

    // Writes `size` bytes into the grain in memory and advances the position. A whole grain
    // replaces what was there and reads nothing; a partial write first loads the grain, for
    // an unallocated grain the provider's whole grain (or zeros), so that the stored grain
    // stands by itself. Nothing reaches the file here.
    void write(const void* buffer, int size);

    // Stores a dirty grain: prepares it, encrypts it, and writes it over its slot or into a
    // new one. An unallocated all-zero grain without a provider stays unallocated. A failure
    // leaves the grain dirty with its data, so that a later flush can try again; the stream
    // position is then undefined.
    void flushChangesToStream();

    // Gives the whole grain in prepared form, never encrypted, and leaves the position at the
    // grain's end. The position must be 0. A dirty grain is stored first; a grain held in
    // memory touches no file. One read from an encrypted extent has no sector fill.
    void readPreparedGrainData(kz::TBuffer<unsigned char>& data);

    // Stores a prepared grain as it is (its lba is not rewritten), encrypting it with this
    // extent's key, and leaves the position at the grain's end. The position must be 0.
    // Unflushed changes of the grain are dropped. Data that is no prepared grain of this
    // extent's kind (too long, or a compressed one whose header does not fit it) is refused
    // with a CIOError code 5 before anything changes.
    void writePreparedGrainData(const kz::TBuffer<unsigned char>& data);

    // The same, with the data handed to the stream through writeKeepBuffer when no cipher
    // stands between, so that the stream need not copy it.
    void writePreparedGrainDataKeepBuffer(const kz::TConstBufferSlice<unsigned char>& data);

    // Brings the provider's grain into this extent and leaves the position at the grain's
    // end. Returns 0 without a provider, the grain size for a grain that has a slot here (a
    // dirty grain without a slot is stored first, so no change is lost), else the length of
    // the prepared grain that was copied. The position must be 0.
    long long makeIndependentOfParent();

    // For the open grain: it has data here, in memory or up the provider's chain.
    bool isGrainWritten();

    // For the open grain: it has data here or in memory, whatever the provider holds.
    bool isGrainWrittenAndIndependentOfParent() const { return dirty || posSectors != 0 || zeroed; }

    // Replaces the provider; null removes it. Buffers stay.
    void setFallbackDataProvider(IVMDKDataProvider* provider);

    kz::P<CVMDKDataPreparer> createDataPreparer() const;

    // `iv` becomes `baseIV` with the eight bytes of `grainIndex`, least significant first,
    // XORed over it and repeated every eight bytes. Index 0 gives the base IV.
    static void makeGrainEncryptIV(kz::TBuffer<unsigned char>& iv,
                                   const kz::TBuffer<unsigned char>& baseIV, long long grainIndex);

protected:
    // Loads the whole plain grain into grainData (and, compressed, its prepared form into
    // preparedData). On failure both are emptied and the error goes on.
    void readGrainData();
    // The stream stands at the grain. Gives the prepared grain in the clear: with its sector
    // fill without a cipher, ending at 12 + size with one.
    void readCompressedGrain(kz::TBuffer<unsigned char>& data);
    // The stream stands at the grain. Gives the plain grain.
    void readUncompressedGrain(kz::TBuffer<unsigned char>& data);
    // Makes the prepared all-zero grain on first need and patches it for `grainIndex`.
    void initZeroGrainData(long long grainIndex);
    void writePreparedGrainDataImpl(const kz::TConstBufferSlice<unsigned char>& data,
                                    bool keepBuffer);
    // Encrypts and stores prepared data over the slot or in a new one; the slot fields change
    // only once the allocator has answered.
    void writePreparedGrainDataInternal(const kz::TConstBufferSlice<unsigned char>& data,
                                        bool keepBuffer);

private:
    void checkOpen(const char* operation) const;
    void checkPreparedData(const kz::TConstBufferSlice<unsigned char>& data) const;
    kz::TConstBufferSlice<unsigned char> encrypt(const kz::TConstBufferSlice<unsigned char>& data);
    kz::CProps grainProps() const;
    kz::String uriText() const;

    kz::P<kz::IIOStream> stream;
    kz::IIOStream::Access access;
    kz::P<IVMDKGrainAllocator> allocator;
    long long posSectors = -1;
    long long slotSizeSectors = -1;
    long long extentGrainIndex = -1;
    long long diskGrainIndex = -1;
    // The open grain is stored nowhere (posSectors 0) and reads as zeros, not from the
    // provider, until a store gives it a slot.
    bool zeroed = false;
    long long grainSizeSectors;
    long long grainSizeBytes;
    bool compressed;
    int compressionLevel;
    kz::P<IVMDKDataProvider> fallbackDataProvider;
    // The plain data of the open grain; a used length of 0 means that it is not loaded. On
    // the heap, as the preparer hands it back through P.
    kz::P<kz::TBuffer<unsigned char>> grainData;
    bool dirty = false;
    long long posInGrain = 0;
    kz::P<CVMDKDataPreparer> dataPreparer;
    long long worstCaseGrainSizeSectors;
    // The prepared form of what grainData holds, or of the stored grain while grainData is
    // not loaded; a used length of 0 means that it is not known. Emptied by every write.
    kz::P<kz::TBuffer<unsigned char>> preparedData;
    kz::P<kz::TBuffer<unsigned char>> zeroGrainData;
    kz::P<kz::TBuffer<unsigned char>> zeroGrainAuxBuffer;
    kz::P<kz::TBuffer<unsigned char>> preparedZeroGrainData;
    kz::TBuffer<unsigned char> parentPreparedData;
    kz::P<vesk::ICipher> cipher;
    int cipherBlockSize = 0;
    kz::TCryptBuffer<unsigned char> encryptionKey;
    kz::TBuffer<unsigned char> encryptionIV;
    kz::TBuffer<unsigned char> encryptedData;
    kz::TBuffer<unsigned char> grainIV;
    kz::TBuffer<unsigned char> paddedData;
};

}  // namespace harl
