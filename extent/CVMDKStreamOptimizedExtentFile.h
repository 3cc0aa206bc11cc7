#pragma once

#include "harl/extent/CVMDKReadOnlyExtentFile.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/TBuffer.h"
#include "harl/foundation/kz/TMostRecentlyUsedCache.h"

namespace harl {

class CVMDKGrain;
class CVMDKGrainTable;
class CVMDKScannedGrainMap;
class CVMDKSparseExtentHeader;

// A stream-optimized extent as other writers make it, read only (layout: VMDKStreamOptimized.h).
// Such a file has compressed grains behind grain markers and no slot-size directory, and may
// tell its grain directory only in a footer; CVMDKSparseExtentFile refuses it by design.
//
// Where the grains are, in this order of trust: the grain directory that the header names; the
// one that the footer names when the header's offset is kVMDKGrainDirectoryAtEnd (or 0); one
// sequential scan of the markers (CVMDKScannedGrainMap) when neither names one. A directory
// entry of 0 stands for a table that the writer left out: its grains are not stored.
//
// A grain's slot length comes from its grain marker, read when the grain is first used: the
// marker must lie in the file with its data, name this grain's first sector on the disk and
// hold at most twice a grain of compressed bytes. Grains are then read by CVMDKGrain, which
// keeps the grain that was last used, decompressed, so that small reads inside it cost nothing.
//
// Prepared reads hand a stored grain on as it stands in the file, without decompressing it,
// whenever the library's compressed form can hold it as it is: a zlib stream no longer than
// the worst case of this extent's data preparer. Only the zlib header is checked on that path;
// a grain whose deflate data is damaged fails when it is decompressed, in whatever disk it then
// stands. Other grains are decompressed and prepared anew.
//
// Everything that the file says is checked against the file's length and a ceiling before it
// sizes a buffer or a loop, and a damaged file ends in a kz::CIOError code 5 with "uri". The
// extent's own memory: the directory (4 bytes per table), at most kCachedTableLimit tables, one
// grain; or the scanned map.
class CVMDKStreamOptimizedExtentFile : public CVMDKReadOnlyExtentFile {
public:
    // Grain tables kept in memory: a sequential read needs one at a time.
    static constexpr int kCachedTableLimit = 64;

    // How the grains were found.
    enum class GrainSource { HeaderDirectory, FooterDirectory, MarkerScan };

    // The stream stands anywhere; the file is read from its start. Throws, with "uri": a
    // kz::CIOError code 6 for a version other than 1 to 3; code 5 for a file that is no
    // stream-optimized extent (grains not compressed, an algorithm other than deflate, the
    // encryption extension), a geometry beyond the ceilings of CVMDKSparseExtentFile, a footer
    // that does not match the header, a directory or table outside the file, and whatever the
    // scan refuses. Stream errors pass through.
    CVMDKStreamOptimizedExtentFile(kz::IIOStream* stream, long long startGrainIndex,
                                   int compressionLevel);
    ~CVMDKStreamOptimizedExtentFile() override;

    // Reads grain by grain. A damaged grain throws a kz::CIOError code 5 with "uri" and
    // "sector" and leaves the position at the start of that grain's chunk.
    void read(void* buffer, int size) override;
    // The grain at the position in the prepared form of a compressed extent of this grain size.
    void readPreparedGrainData(kz::TBuffer<unsigned char>& data) override;
    // Whether the extent stores the grain that holds the position; reads at most its table.
    bool isGrainWritten() override;
    // Reads every grain marker: a grain costs the sectors its marker says.
    kz::P<CVMDKSpaceInfo> gatherSpaceInfo() override;

    GrainSource getGrainSource() const { return grainSource; }

protected:
    void closeFile() override { stream->close(); }

private:
    void loadHeader();
    void checkHeader();
    void findGrains();
    bool tryDirectoryAt(unsigned long long posSectors, GrainSource source);
    void checkFooter(const CVMDKSparseExtentHeader& footer);
    // The sector of the grain's marker, 0 when the grain is not stored.
    long long lookUpGrain(long long grainIndex);
    // Checks the marker of a stored grain and returns its slot length in sectors.
    long long checkGrainMarker(long long grainIndex, long long posSectors);
    // Makes the grain stand at the position; returns how many of `maxBytes` lie in it.
    int beginGrainOp(long long maxBytes);
    bool canPassOn(const kz::TBuffer<unsigned char>& prepared) const;
    void prepareAnew(kz::TBuffer<unsigned char>& data, long long diskGrainIndex);
    // Throws again what is being handled, with this file's URI when a format error names none.
    [[noreturn]] void rethrowNamingFile(long long sector) const;
    [[noreturn]] void corrupt(const kz::String& message, const kz::CProps& props) const;

    kz::P<kz::IIOStream> stream;
    kz::P<CVMDKSparseExtentHeader> header;
    long long fileLengthBytes;
    long long grainsPerTable = 0;
    long long extentGrainCount = 0;
    bool zeroedGrainEntries = false;
    GrainSource grainSource = GrainSource::MarkerScan;
    // Directory mode: the validated directory and the tables read from it.
    kz::TBuffer<unsigned int> directory;
    kz::P<kz::TMostRecentlyUsedCache<long long, CVMDKGrainTable>> tables;
    // Scan mode.
    kz::P<CVMDKScannedGrainMap> scannedGrains;
    kz::P<CVMDKGrain> grain;
    long long currentGrainIndex = -1;
    // Prepares grains that cannot be passed on, and says how long a prepared grain may be.
    kz::P<CVMDKDataPreparer> dataPreparer;
    kz::P<kz::TBuffer<unsigned char>> storedGrain;
    kz::P<kz::TBuffer<unsigned char>> plainGrain;
    kz::P<kz::TBuffer<unsigned char>> preparedGrain;
};

}  // namespace harl
