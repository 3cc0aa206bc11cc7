#pragma once

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CURI.h"
#include "harl/foundation/kz/IFileSystem.h"
#include "harl/foundation/kz/IIOStream.h"
#include "harl/foundation/kz/P.h"
#include "harl/foundation/kz/String.h"

#include <string>
#include <vector>

namespace harl {
class CVMDKGrainDirectory;
class CVMDKSparseExtentHeader;
}  // namespace harl

namespace harlimg {

// Checks a VMDK disk for what a damaged file gets wrong, reading every extent file itself
// through the library's format classes, read-only:
//
// - the descriptor reads, and a monolithic file's embedded extent line names the file itself
//   (a warning: a renamed copy would read and write the original's file);
// - every extent file exists (unless the disk makes them on demand) and its header and grain
//   directory read;
// - each grain table agrees with its redundant copy, and both lie inside the file;
// - every grain lies past the metadata and, with its slot, before the end of the data;
// - no two grains share a sector;
// - a compressed grain's slot holds its stored length, its header names its own place (lba),
//   and it decompresses (read through the opened disk, which also decrypts);
// - what is left of a file beyond its metadata, its live slots and a compressed extent's
//   closing sectors is leaked (dead) space.
//
// A disk of another writer (harl::CVMDKImportDisk) is checked through the import disk alone:
// every extent opens (a flat file holds its extent, a stream-optimized file's directory or
// markers lead to its grains), and every stored grain reads and decompresses. Its footer,
// markers and descriptor are its format, not leaked space.
//
// Corruption is recorded, not thrown, and the check goes on where it can. A failure of the file
// system or a wrong password is thrown: then the disk could not be checked.
class CDiskChecker {
public:
    struct CFinding {
        std::string kind;
        std::string file;
        std::string message;
    };

    CDiskChecker(kz::IFileSystem* fileSystem, const kz::CURI& uri, const kz::String& password);

    void run();

    // The first findings; getCorruptionCount() counts them all.
    const std::vector<CFinding>& getCorruptions() const { return corruptions; }

    long long getCorruptionCount() const { return corruptionCount; }

    const std::vector<CFinding>& getWarnings() const { return warnings; }

    long long getLeakedBytes() const { return leakedBytes; }

    long long getTotalGrains() const { return totalGrains; }

    long long getAllocatedGrains() const { return allocatedGrains; }

    long long getCompressedGrains() const { return compressedGrains; }

private:
    // What one extent file is checked with.
    struct CExtent {
        kz::CURI uri;
        long long startSector = 0;
        long long sizeSectors = 0;
        kz::P<kz::IIOStream> stream;
        kz::P<harl::CVMDKSparseExtentHeader> header;
        kz::P<harl::CVMDKGrainDirectory> directory;
        long long fileSectors = 0;
        // Where grains may end: the file's end less the closing sectors of a compressed extent.
        long long dataEndSectors = 0;
        bool encrypted = false;
        // Tables that do not lie inside the file, or could not be read: their grains are not
        // looked at.
        std::vector<bool> badTables;
    };

    // A grain's slot in the file, for the overlap test.
    struct CSlot {
        long long posSectors;
        long long sizeSectors;
        long long grainIndex;
    };

    void checkDescriptor();
    void openDisk();
    void checkImportedDisk();
    // Reads every grain that the extent from `startBytes` to `endBytes` of the disk stores.
    void readImportedGrains(const kz::CURI& extentURI, long long startBytes, long long endBytes);
    void checkExtent(CExtent& extent);
    void openExtent(CExtent& extent);
    void checkTables(CExtent& extent);
    void checkGrains(CExtent& extent, std::vector<CSlot>& slots);
    void checkCompressedGrain(CExtent& extent, long long grainIndex, long long posSectors,
                              long long slotSectors);
    void checkOverlaps(const CExtent& extent, std::vector<CSlot>& slots);
    void corrupt(const std::string& kind, const kz::CURI& uri, const std::string& message);
    void warn(const std::string& kind, const kz::CURI& uri, const std::string& message);

    kz::P<kz::IFileSystem> fileSystem;
    kz::CURI uri;
    kz::String password;
    kz::P<harl::CVMDKDescriptor> descriptor;
    kz::P<harl::CVMDKDisk> disk;
    std::vector<CFinding> corruptions;
    long long corruptionCount = 0;
    std::vector<CFinding> warnings;
    long long leakedBytes = 0;
    long long totalGrains = 0;
    long long allocatedGrains = 0;
    long long compressedGrains = 0;
};

}  // namespace harlimg
