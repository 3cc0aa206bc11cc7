#pragma once

#include "harl/disk/CVMDKDisk.h"

#include <vector>

namespace harl {

// A disk that other writers made, opened read-only so that a host can convert it into the
// library's own disks: the byte and prepared-grain operations of CVMDKDisk over extents that
// CVMDKDisk itself refuses by design.
//
// Descriptors of the create types "monolithicFlat", "twoGbMaxExtentFlat", "vmfs",
// "streamOptimized", "monolithicSparse" and "twoGbMaxExtentSparse", in a descriptor file or
// embedded in a sparse extent, with extent lines of these types:
//
// | type   | extent                                                                         |
// |--------|--------------------------------------------------------------------------------|
// | SPARSE | compressed grains: CVMDKStreamOptimizedExtentFile, whether another writer's    |
// |        | stream-optimized file or the library's own compressed extent; else             |
// |        | CVMDKSparseExtentFile, read only                                               |
// | FLAT   | CVMDKFlatExtentFile: raw bytes of the named file from the line's offset (in    |
// |        | sectors) on                                                                    |
// | VMFS   | the same; a line without an offset starts at the file's first byte             |
// | ZERO   | CVMDKNullExtentFile without a provider: zeros. Its line names no file          |
// |        | ("RW 2048 ZERO"), so it is read here from the descriptor's other lines         |
//
// The first SPARSE extent gives the disk its grain size and compression; every other SPARSE
// extent must have the same, for prepared grains of one form pass through the whole disk. A
// disk of FLAT, VMFS and ZERO extents alone has grains of getGrainSizeSectors() sectors,
// uncompressed. Opening reads the descriptor and the header of the first SPARSE extent; each
// other extent file is opened, and checked, when a transfer first reaches it, and closed when
// the transfer leaves it, as in CVMDKDisk.
//
// No lock file is taken: the files are another writer's, and the library's locks mean nothing
// to it. The host keeps writers away while it reads.
class CVMDKImportDisk : public CVMDKDisk {
public:
    // The entry point of a host that imports a disk. Opens `uri` read-only: as CVMDKDisk
    // (opening constructor, with its lock file) when the disk is one that the library's own
    // disks read, that is a descriptor with a parent, with the library's own "kz" keys, or of
    // the create types "monolithicSparse" and "twoGbMaxExtentSparse"; as a CVMDKImportDisk
    // otherwise. The result reads bytes and prepared grains; compressed grains of a
    // stream-optimized file come out as they are stored.
    //
    // Throws what CVMDKDisk's opening constructor throws, or for an import disk: kz::CIOError
    // code 5 with "uri" for an unsupported create type or extent type, an extent line of
    // invalid size, extents of different grain geometry, or a first SPARSE extent that its
    // reader refuses; the errors of the descriptor accessor and of the file system.
    static kz::P<CVMDKDisk> open(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                 const kz::String& password, int compressionLevel);

    // Whether open() opens a disk of this descriptor as CVMDKDisk, by the rule above.
    static bool isOwnKind(const CVMDKDescriptor& descriptor);

    // The disk that open() gives, as a read-only stream of its bytes (CVMDKDiskIOStream); the
    // disk closes with the stream. Throws what open() throws.
    static kz::P<kz::IIOStream> openStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                           const kz::String& password);

    // The descriptor as read at opening.
    kz::P<CVMDKDescriptor> getImportedDescriptor() const { return importedDescriptor; }

    enum class ExtentKind { Sparse, Flat, Zero };

    // One extent line, in disk order.
    struct CExtentLine {
        long long startSector = 0;
        long long sizeSectors = 0;
        ExtentKind kind = ExtentKind::Zero;
        // As the line spells it: "SPARSE", "FLAT", "VMFS" or "ZERO".
        kz::String type;
        // The file as the line names it, and where it resolves; empty for a ZERO line.
        kz::String filename;
        kz::CURI uri;
        long long offsetSectors = 0;
    };

    // The extent lines of a size above 0, as mapped at opening: what a host shows of the disk
    // or checks extent by extent.
    const std::vector<CExtentLine>& getExtentLines() const { return lines; }

protected:
    // Maps the extent lines of `descriptor`, read from `uri`, and reads the grain geometry.
    CVMDKImportDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri, int compressionLevel,
                    CVMDKDescriptor* descriptor);

    // The extent of the line that holds the position.
    kz::P<IVMDKExtentFile> makeExtentFile(const kz::CURI& uri, long long startGrainIndex,
                                          long long rangeSizeSectors) override;

private:
    void mapExtentLines();
    void addExtentLine(const kz::String& type, long long sizeSectors, const kz::String& filename,
                       long long offsetSectors);
    void readGrainGeometry();
    // A SPARSE extent over its file: the stream-optimized reader for compressed grains, else
    // the sparse extent file. Checks it against the line and the disk's geometry when
    // `checkGeometry` is set.
    kz::P<IVMDKExtentFile> openSparseExtent(const CExtentLine& line, long long startGrainIndex,
                                            bool checkGeometry);

    kz::P<kz::IFileSystem> fileSystem;
    int compressionLevel;
    kz::P<CVMDKDescriptor> importedDescriptor;
    std::vector<CExtentLine> lines;
};

}  // namespace harl
