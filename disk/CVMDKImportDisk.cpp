#include "harl/disk/CVMDKImportDisk.h"

#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/disk/CVMDKDiskIOStream.h"
#include "harl/extent/CVMDKFlatExtentFile.h"
#include "harl/extent/CVMDKNullExtentFile.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/extent/CVMDKStreamOptimizedExtentFile.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFileReference.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/format/VMDKFormatError.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/Text.h"

#include <algorithm>

namespace harl {

namespace {

const kz::IIOStream::Access kRead = kz::IIOStream::AccessRead;

const char* const kImportedCreateTypes[] = {
    "monolithicFlat",  "twoGbMaxExtentFlat", "vmfs",
    "streamOptimized", "monolithicSparse",   "twoGbMaxExtentSparse"};

// "<access> <size> ZERO": the line of an extent without a file, which names none and so is
// no CVMDKExtentInfo. Gives the size, or false for any other line.
bool tryParseZeroExtentLine(const kz::String& line, long long& sizeSectors) {
    std::vector<kz::String> words;
    for (const kz::String& word : line.trimmed().split(L' ')) {
        if (!word.isEmpty()) {
            words.push_back(word);
        }
    }
    if (words.size() != 3 || words[2] != "ZERO") {
        return false;
    }
    for (size_t i = 0; i < words[1].getLength(); ++i) {
        if (words[1].at(i) < L'0' || words[1].at(i) > L'9') {
            return false;
        }
    }
    try {
        sizeSectors = kz::parseInt64(words[1], false);
        return true;
    } catch (const kz::CError&) {
        return false;  // A number beyond 64 bits.
    }
}

}  // namespace

// Disks that CVMDKDisk opens itself: the library's own keys and parents are its business, and
// so are the sparse create types, whose files its sparse extent reads whoever wrote them.
bool CVMDKImportDisk::isOwnKind(const CVMDKDescriptor& descriptor) {
    kz::String createType;
    descriptor.tryGetValue("createType", createType);
    return descriptor.getParentContentID() != 0xFFFFFFFFu ||
           !descriptor.getKzEncryptionAlgorithm().isEmpty() ||
           descriptor.getKzCreateExtentFilesOnDemand() || createType == "monolithicSparse" ||
           createType == "twoGbMaxExtentSparse";
}

kz::P<CVMDKDisk> CVMDKImportDisk::open(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                       const kz::String& password, int compressionLevel) {
    kz::P<CVMDKDescriptor> descriptor;
    {
        const kz::P<kz::IIOStream> stream = openVMDKFileStream(fileSystem, uri, kRead);
        descriptor = kz::makeP<CVMDKDescriptorAccessor>(stream.get(), kRead)->getDescriptor();
    }
    if (isOwnKind(*descriptor)) {
        return kz::makeP<CVMDKDisk>(fileSystem, uri, kRead, password, compressionLevel, nullptr,
                                    nullptr);
    }
    return kz::P<CVMDKDisk>(
        new CVMDKImportDisk(fileSystem, uri, compressionLevel, descriptor.get()));
}

kz::P<kz::IIOStream> CVMDKImportDisk::openStream(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                                 const kz::String& password) {
    return kz::makeP<CVMDKDiskIOStream>(open(fileSystem, uri, password, -1).get());
}

CVMDKImportDisk::CVMDKImportDisk(kz::IFileSystem* fileSystem, const kz::CURI& uri,
                                 int compressionLevel, CVMDKDescriptor* descriptor)
    : CVMDKDisk(fileSystem, uri, kRead, compressionLevel),
      fileSystem(fileSystem),
      compressionLevel(compressionLevel),
      importedDescriptor(descriptor) {
    // A file that is no descriptor at all reads as text without this key.
    kz::String createType;
    descriptor->tryGetValue("createType", createType);
    if (std::none_of(std::begin(kImportedCreateTypes), std::end(kImportedCreateTypes),
                     [&](const char* type) { return createType == type; })) {
        throwVMDKFormatError(uri,
                             "VMDK disk has an unsupported create type: '" + createType + "'.");
    }
    mapExtentLines();
    if (lines.empty()) {
        throwVMDKFormatError(uri, "VMDK disk has no extents.");
    }
    readGrainGeometry();
}

void CVMDKImportDisk::mapExtentLines() {
    for (const kz::P<CVMDKDescriptorEntry>& entry : importedDescriptor->getEntries()) {
        long long sizeSectors = 0;
        if (const auto* line = dynamic_cast<const CVMDKExtentInfo*>(entry.get())) {
            addExtentLine(line->getType(), line->getSizeSectors(), line->getFilename(),
                          line->getOffset());
        } else if (dynamic_cast<const CVMDKDescriptor::CGenericEntry*>(entry.get()) &&
                   tryParseZeroExtentLine(entry->toString(), sizeSectors)) {
            addExtentLine("ZERO", sizeSectors, kz::String(), -1);
        }
    }
}

void CVMDKImportDisk::addExtentLine(const kz::String& type, long long sizeSectors,
                                    const kz::String& filename, long long offsetSectors) {
    CExtentLine line;
    line.startSector = lines.empty() ? 0 : lines.back().startSector + lines.back().sizeSectors;
    line.sizeSectors = sizeSectors;
    line.type = type;
    line.filename = filename;
    if (type == "SPARSE" || type == "FLAT" || type == "VMFS") {
        line.kind = type == "SPARSE" ? ExtentKind::Sparse : ExtentKind::Flat;
        line.uri = vmdkFileReferenceToURI(getMainFileURI().getParent(), filename).toNormalized();
        // A line without an offset starts at the file's first byte.
        line.offsetSectors = std::max(offsetSectors, 0LL);
    } else if (type != "ZERO") {
        throwVMDKFormatError(getMainFileURI(),
                             "VMDK disk has an unsupported extent type: '" + type + "'.");
    }
    // Refuses a negative size and a disk beyond the range of byte positions.
    appendExtentRange(line.uri, sizeSectors);
    if (sizeSectors > 0) {
        lines.push_back(line);
    }
}

void CVMDKImportDisk::readGrainGeometry() {
    long long grainSizeSectors = getGrainSizeSectors();
    bool compressed = false;
    const auto sparse = std::find_if(lines.begin(), lines.end(), [](const CExtentLine& line) {
        return line.kind == ExtentKind::Sparse;
    });
    if (sparse != lines.end()) {
        const kz::P<IVMDKExtentFile> first = openSparseExtent(*sparse, 0, false);
        grainSizeSectors = first->getGrainSizeSectors();
        compressed = first->getCompressed();
    }
    finishExtentMap(grainSizeSectors, compressed);
}

kz::P<IVMDKExtentFile> CVMDKImportDisk::makeExtentFile(const kz::CURI& uri,
                                                       long long startGrainIndex,
                                                       long long rangeSizeSectors) {
    // The disk makes the extent that holds its position.
    const long long sector = getPosition() / kSectorSizeBytes;
    const auto behind = std::upper_bound(
        lines.begin(), lines.end(), sector,
        [](long long at, const CExtentLine& line) { return at < line.startSector; });
    if (behind == lines.begin() ||
        sector >= (behind - 1)->startSector + (behind - 1)->sizeSectors) {
        throw kz::CError(
            "Internal error: CVMDKImportDisk::makeExtentFile found no extent line "
            "for sector " +
            kz::String::number(sector));
    }
    const CExtentLine& line = *(behind - 1);
    const long long grainSizeSectors = getGrainSizeBytes() / kSectorSizeBytes;
    switch (line.kind) {
        case ExtentKind::Sparse:
            return openSparseExtent(line, startGrainIndex, true);
        case ExtentKind::Flat: {
            const kz::P<kz::IIOStream> stream = openVMDKFileStream(fileSystem.get(), uri, kRead);
            return kz::makeP<CVMDKFlatExtentFile>(stream.get(), line.offsetSectors, startGrainIndex,
                                                  grainSizeSectors, rangeSizeSectors,
                                                  getCompressed(), compressionLevel);
        }
        case ExtentKind::Zero:
            break;
    }
    return kz::makeP<CVMDKNullExtentFile>(uri, startGrainIndex, grainSizeSectors, rangeSizeSectors,
                                          kSectorSizeBytes, getCompressed(), compressionLevel,
                                          nullptr);
}

kz::P<IVMDKExtentFile> CVMDKImportDisk::openSparseExtent(const CExtentLine& line,
                                                         long long startGrainIndex,
                                                         bool checkGeometry) {
    const kz::P<kz::IIOStream> stream = openVMDKFileStream(fileSystem.get(), line.uri, kRead);
    CVMDKSparseExtentHeader header;
    try {
        kz::CDataInStream in(stream.get());
        header.load(in);
    } catch (const kz::CIOError&) {
        rethrowVMDKFormatErrorNamingFile(line.uri);
    }
    stream->seek(0);
    kz::P<IVMDKExtentFile> extent;
    long long capacityBytes = 0;
    if ((header.getFlags() & kVMDKHeaderFlagCompressed) != 0) {
        const auto streamOptimized = kz::makeP<CVMDKStreamOptimizedExtentFile>(
            stream.get(), startGrainIndex, compressionLevel);
        capacityBytes = streamOptimized->getSizeBytes();
        extent = streamOptimized;
    } else {
        const auto sparse = kz::makeP<CVMDKSparseExtentFile>(
            stream.get(), kRead, startGrainIndex, compressionLevel, getGrainTableCache().get(),
            nullptr, nullptr, nullptr, kz::TCryptBuffer<unsigned char>(),
            kz::TBuffer<unsigned char>());
        capacityBytes = sparse->getCapacityBytes();
        extent = sparse;
    }
    if (checkGeometry && (extent->getGrainSizeSectors() * kSectorSizeBytes != getGrainSizeBytes() ||
                          extent->getCompressed() != getCompressed())) {
        throwVMDKFormatError(line.uri, "VMDK disk has extents of different grain geometry.");
    }
    if (capacityBytes < line.sizeSectors * kSectorSizeBytes) {
        throwVMDKFormatError(line.uri, "VMDK extent file is smaller than its extent line.");
    }
    return extent;
}

}  // namespace harl
