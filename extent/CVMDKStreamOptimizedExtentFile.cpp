#include "harl/extent/CVMDKStreamOptimizedExtentFile.h"

#include "harl/extent/CVMDKScannedGrainMap.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/CVMDKSparseExtentHeader.h"
#include "harl/format/VMDKFormatError.h"
#include "harl/format/VMDKMarkers.h"
#include "harl/format/VMDKStreamOptimized.h"
#include "harl/foundation/kz/CDataInStream.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKGrain.h"
#include "harl/grain/CVMDKGrainDirectory.h"
#include "harl/grain/CVMDKGrainTable.h"
#include "harl/grain/VMDKEntryArrays.h"

#include <algorithm>
#include <climits>

namespace harl {

namespace {

// No engine makes more than twice a grain out of one; the grain reader's ceiling.
constexpr long long kMaxCompressedGrainsPerGrain = 2;
constexpr long long kTableEntrySizeBytes = 4;

// The two bytes of a zlib stream's header (RFC 1950) that say whether the library's
// decompressor reads it: deflate with a window it knows, no preset dictionary, and the check
// that makes the pair a multiple of 31.
constexpr int kZlibHeaderBytes = 2;
constexpr unsigned kZlibMethodDeflate = 8;
constexpr unsigned kZlibMaxWindowCode = 7;
constexpr unsigned kZlibPresetDictionaryFlag = 0x20;
constexpr unsigned kZlibHeaderCheckDivisor = 31;

bool isUsableDirectoryOffset(unsigned long long posSectors) {
    return posSectors != 0 && posSectors != kVMDKGrainDirectoryAtEnd;
}

}  // namespace

CVMDKStreamOptimizedExtentFile::CVMDKStreamOptimizedExtentFile(kz::IIOStream* stream,
                                                               long long startGrainIndex,
                                                               int compressionLevel)
    : CVMDKReadOnlyExtentFile(stream->getURI(), startGrainIndex, compressionLevel),
      stream(stream),
      fileLengthBytes(stream->getLength()) {
    loadHeader();
    checkHeader();
    findGrains();
    grain =
        kz::makeP<CVMDKGrain>(this->stream.get(), kz::IIOStream::AccessRead, getGrainSizeSectors(),
                              nullptr, true, compressionLevel, nullptr, nullptr,
                              kz::TCryptBuffer<unsigned char>(), kz::TBuffer<unsigned char>());
    dataPreparer = createDataPreparer();
}

CVMDKStreamOptimizedExtentFile::~CVMDKStreamOptimizedExtentFile() = default;

void CVMDKStreamOptimizedExtentFile::loadHeader() {
    header = kz::makeP<CVMDKSparseExtentHeader>();
    try {
        stream->seek(0);
        kz::CDataInStream in(stream.get());
        header->load(in);
    } catch (const kz::CIOError&) {
        rethrowNamingFile(0);
    }
}

void CVMDKStreamOptimizedExtentFile::checkHeader() {
    const unsigned version = header->getVersion();
    if (version < 1 || version > 3) {
        throw kz::CIOError(
            kz::CIOError::UnsupportedVersion,
            "VMDK file has an unsupported version: " + kz::String::numberUnsigned(version),
            uriProps());
    }
    if ((header->getFlags() & kVMDKHeaderFlagCompressed) == 0 ||
        header->getCompressAlgorithm() != kVMDKCompressAlgorithmDeflate ||
        header->getEncryptionExtensionEnabled()) {
        corrupt("VMDK file is not a stream-optimized extent of deflate-compressed grains.",
                kz::CProps()
                    .add("flags", kz::String::numberUnsigned(header->getFlags()))
                    .add("compressAlgorithm", static_cast<int>(header->getCompressAlgorithm())));
    }
    // The same ceilings as the library's own extents: the grain size and table length divide
    // and size everything below.
    const unsigned long long grainSectors = header->getGrainSizeSectors();
    const unsigned long long tableEntries = header->getGrainTableEntryCount();
    const unsigned long long capacity = header->getCapacitySectors();
    if (grainSectors == 0 || grainSectors > CVMDKSparseExtentFile::kMaxGrainSizeSectors ||
        tableEntries == 0 || tableEntries > CVMDKGrainTable::kMaxGrainCount ||
        capacity > CVMDKSparseExtentFile::kMaxCapacitySectors) {
        corrupt("VMDK sparse header has an invalid geometry.",
                kz::CProps()
                    .add("grainSizeSectors", kz::String::numberUnsigned(grainSectors))
                    .add("grainTableEntryCount", kz::String::numberUnsigned(tableEntries))
                    .add("capacitySectors", kz::String::numberUnsigned(capacity)));
    }
    setGeometry(static_cast<long long>(grainSectors), static_cast<long long>(capacity), true);
    grainsPerTable = static_cast<long long>(tableEntries);
    extentGrainCount = CVMDKGrainDirectory::calcExtentGrainCount(
        static_cast<long long>(capacity), static_cast<long long>(grainSectors));
    zeroedGrainEntries = (header->getFlags() & kVMDKHeaderFlagZeroedGrainEntries) != 0;
}

void CVMDKStreamOptimizedExtentFile::findGrains() {
    if (tryDirectoryAt(header->getGrainDirectoryOffsetSectors(), GrainSource::HeaderDirectory)) {
        return;
    }
    CVMDKSparseExtentHeader footer;
    bool haveFooter = false;
    try {
        haveFooter = readVMDKStreamFooter(*stream, footer);
    } catch (const kz::CIOError&) {
        rethrowNamingFile(fileLengthBytes / kSectorSizeBytes - 2);
    }
    if (haveFooter) {
        checkFooter(footer);
        if (tryDirectoryAt(footer.getGrainDirectoryOffsetSectors(), GrainSource::FooterDirectory)) {
            return;
        }
    }
    // The grains start behind the header, the descriptor and whatever the header counts as
    // overhead; a file cut short, with no end-of-stream marker, is refused by the scan.
    const unsigned long long descriptorEnd =
        std::min(header->getDescriptorOffsetSectors(), kVMDKGrainDirectoryAtEnd / 2) +
        std::min(header->getDescriptorSizeSectors(), kVMDKGrainDirectoryAtEnd / 2);
    const unsigned long long firstSector =
        std::max<unsigned long long>({1, header->getOverheadSectors(), descriptorEnd});
    scannedGrains = kz::makeP<CVMDKScannedGrainMap>(
        stream.get(), static_cast<long long>(std::min<unsigned long long>(firstSector, LLONG_MAX)),
        getGrainSizeSectors(), extentGrainCount, getStartGrainIndex());
    grainSource = GrainSource::MarkerScan;
}

void CVMDKStreamOptimizedExtentFile::checkFooter(const CVMDKSparseExtentHeader& footer) {
    if (footer.getCapacitySectors() != header->getCapacitySectors() ||
        footer.getGrainSizeSectors() != header->getGrainSizeSectors() ||
        footer.getGrainTableEntryCount() != header->getGrainTableEntryCount()) {
        corrupt("VMDK stream-optimized extent has a footer that does not match its header.",
                kz::CProps());
    }
}

bool CVMDKStreamOptimizedExtentFile::tryDirectoryAt(unsigned long long posSectors,
                                                    GrainSource source) {
    if (!isUsableDirectoryOffset(posSectors)) {
        return false;
    }
    // The directory, and every table it names, must lie in the file before any of them sizes
    // a buffer: a header of a huge extent over a small file costs nothing.
    const long long fileSectors = fileLengthBytes / kSectorSizeBytes;
    const long long tableCount = CVMDKGrainDirectory::calcExtentGrainTableCount(
        getSizeBytes() / kSectorSizeBytes, getGrainSizeSectors(), static_cast<int>(grainsPerTable));
    if (posSectors > static_cast<unsigned long long>(fileSectors) ||
        tableCount * kTableEntrySizeBytes >
            fileLengthBytes - static_cast<long long>(posSectors) * kSectorSizeBytes) {
        corrupt("VMDK grain directory lies outside the file.",
                kz::CProps().add("sector", kz::String::numberUnsigned(posSectors)));
    }
    readVMDKEntries(*stream, static_cast<long long>(posSectors), tableCount, directory);
    const long long tableBytes = grainsPerTable * kTableEntrySizeBytes;
    for (size_t index = 0; index < directory.getUsed(); ++index) {
        const long long tableSector = directory[index];
        if (tableSector != 0 && tableBytes > fileLengthBytes - tableSector * kSectorSizeBytes) {
            corrupt("VMDK grain table lies outside the file.",
                    kz::CProps()
                        .add("table", static_cast<long long>(index))
                        .add("sector", tableSector));
        }
    }
    tables = kz::makeP<kz::TMostRecentlyUsedCache<long long, CVMDKGrainTable>>(kCachedTableLimit);
    grainSource = source;
    return true;
}

long long CVMDKStreamOptimizedExtentFile::lookUpGrain(long long grainIndex) {
    if (grainIndex < 0 || grainIndex >= extentGrainCount) {
        throw kz::CInvalidArgError("CVMDKStreamOptimizedExtentFile::lookUpGrain",
                                   "Invalid grain index: " + kz::String::number(grainIndex),
                                   uriProps());
    }
    if (scannedGrains) {
        return scannedGrains->getGrainPosSectors(grainIndex);
    }
    const long long tableIndex = grainIndex / grainsPerTable;
    const long long tableSector = directory[static_cast<size_t>(tableIndex)];
    if (tableSector == 0) {
        return 0;
    }
    kz::P<CVMDKGrainTable> table = tables->get(tableIndex);
    if (!table) {
        table = kz::makeP<CVMDKGrainTable>(stream.get(), kz::IIOStream::AccessRead,
                                           getGrainSizeSectors(), tableSector, 0, 0,
                                           static_cast<int>(grainsPerTable));
        tables->set(tableIndex, table);
    }
    long long posSectors = 0;
    long long slotSizeSectors = 0;
    table->getGrainInfo(grainIndex % grainsPerTable, posSectors, slotSizeSectors);
    return zeroedGrainEntries && posSectors == 1 ? 0 : posSectors;
}

long long CVMDKStreamOptimizedExtentFile::checkGrainMarker(long long grainIndex,
                                                           long long posSectors) {
    const auto props = [&] { return kz::CProps().add("sector", posSectors); };
    if (posSectors > (fileLengthBytes - kVMDKGrainMarkerSizeBytes) / kSectorSizeBytes) {
        corrupt("VMDK grain lies outside the file.", props());
    }
    unsigned char bytes[kVMDKGrainMarkerSizeBytes];
    stream->seek(posSectors * kSectorSizeBytes);
    stream->read(bytes, kVMDKGrainMarkerSizeBytes);
    const VMDKGrainMarker marker = decodeVMDKGrainMarker(bytes);
    const long long grainSizeBytes = getGrainSizeBytes();
    if (marker.size == 0 || marker.size > kMaxCompressedGrainsPerGrain * grainSizeBytes) {
        corrupt("VMDK grain marker has an invalid compressed size.",
                props().add("compressedGrainSize", static_cast<long long>(marker.size)));
    }
    const long long slotBytes = (kVMDKGrainMarkerSizeBytes + marker.size + kSectorSizeBytes - 1) /
                                kSectorSizeBytes * kSectorSizeBytes;
    if (slotBytes > fileLengthBytes - posSectors * kSectorSizeBytes) {
        corrupt("VMDK grain runs past the end of the file.",
                props().add("compressedGrainSize", static_cast<long long>(marker.size)));
    }
    const unsigned long long expectedLba =
        static_cast<unsigned long long>(getStartGrainIndex() + grainIndex) *
        static_cast<unsigned long long>(getGrainSizeSectors());
    if (marker.lba != expectedLba) {
        corrupt("VMDK grain marker names another grain than its table.",
                props()
                    .add("lba", kz::String::numberUnsigned(marker.lba))
                    .add("expectedLba", kz::String::numberUnsigned(expectedLba)));
    }
    return slotBytes / kSectorSizeBytes;
}

int CVMDKStreamOptimizedExtentFile::beginGrainOp(long long maxBytes) {
    const long long grainSizeBytes = getGrainSizeBytes();
    const long long grainIndex = position / grainSizeBytes;
    if (grainIndex != currentGrainIndex || !grain->isOpen()) {
        currentGrainIndex = -1;
        const long long posSectors = lookUpGrain(grainIndex);
        const long long slotSectors =
            posSectors == 0 ? 0 : checkGrainMarker(grainIndex, posSectors);
        grain->open(grainIndex, getStartGrainIndex() + grainIndex, posSectors, slotSectors);
        currentGrainIndex = grainIndex;
    }
    const long long inGrain = position % grainSizeBytes;
    if (grain->getPosition() != inGrain) {
        grain->seek(inGrain);
    }
    return static_cast<int>(std::min(maxBytes, grainSizeBytes - inGrain));
}

void CVMDKStreamOptimizedExtentFile::read(void* buffer, int size) {
    checkReadRange(size);
    auto* out = static_cast<unsigned char*>(buffer);
    while (size > 0) {
        const int chunk = beginGrainOp(size);
        try {
            grain->read(out, chunk);
        } catch (const kz::CIOError&) {
            rethrowNamingFile(grain->getGrainStartPositionSectors());
        }
        out += chunk;
        size -= chunk;
        position += chunk;
    }
}

void CVMDKStreamOptimizedExtentFile::readPreparedGrainData(kz::TBuffer<unsigned char>& data) {
    checkPreparedGrainRead();
    beginGrainOp(getGrainSizeBytes());
    grain->readPreparedGrainData(data);
    if (grain->getGrainStartPositionSectors() > 0 && !canPassOn(data)) {
        prepareAnew(data, getStartGrainIndex() + currentGrainIndex);
    }
    position += getGrainSizeBytes();
}

bool CVMDKStreamOptimizedExtentFile::canPassOn(const kz::TBuffer<unsigned char>& prepared) const {
    const size_t header = CVMDKDataPreparer::kHeaderSizeBytes;
    const long long longest = dataPreparer->getWorstCaseGrainSizeSectors() * kSectorSizeBytes;
    if (prepared.getUsed() < header + kZlibHeaderBytes ||
        static_cast<long long>(prepared.getUsed()) > longest) {
        return false;
    }
    const unsigned method = prepared[header];
    const unsigned flags = prepared[header + 1];
    return (method & 0x0f) == kZlibMethodDeflate && (method >> 4) <= kZlibMaxWindowCode &&
           (flags & kZlibPresetDictionaryFlag) == 0 &&
           (method << 8 | flags) % kZlibHeaderCheckDivisor == 0;
}

void CVMDKStreamOptimizedExtentFile::prepareAnew(kz::TBuffer<unsigned char>& data,
                                                 long long diskGrainIndex) {
    if (!storedGrain) {
        storedGrain = kz::makeP<kz::TBuffer<unsigned char>>();
        plainGrain = kz::makeP<kz::TBuffer<unsigned char>>();
        preparedGrain = kz::makeP<kz::TBuffer<unsigned char>>();
    }
    storedGrain->assign(data.getData(), data.getUsed());
    kz::P<kz::TBuffer<unsigned char>> plain;
    try {
        plain = dataPreparer->unprepareGrainData(storedGrain.get(), plainGrain.get());
    } catch (const kz::CIOError&) {
        rethrowNamingFile(grain->getGrainStartPositionSectors());
    }
    data = *dataPreparer->prepareGrainData(plain.get(), diskGrainIndex, preparedGrain.get());
}

bool CVMDKStreamOptimizedExtentFile::isGrainWritten() {
    return lookUpGrain(position / getGrainSizeBytes()) != 0;
}

kz::P<CVMDKSpaceInfo> CVMDKStreamOptimizedExtentFile::gatherSpaceInfo() {
    long long payloadSize = 0;
    long long payloadSizeInFile = 0;
    const auto count = [&](long long grainIndex, long long posSectors) {
        if (posSectors != 0) {
            payloadSize += getGrainSizeBytes();
            payloadSizeInFile += checkGrainMarker(grainIndex, posSectors) * kSectorSizeBytes;
        }
    };
    // Only the stored grains are visited, never the whole capacity: their number is bounded by
    // the file's length, the extent's grains by the header alone.
    if (scannedGrains) {
        for (const CVMDKScannedGrainMap::CStoredGrain& stored : scannedGrains->getStoredGrains()) {
            count(stored.grainIndex, stored.posSectors);
        }
    }
    for (size_t table = 0; table < directory.getUsed(); ++table) {
        const long long first = static_cast<long long>(table) * grainsPerTable;
        const long long end = std::min(first + grainsPerTable, extentGrainCount);
        for (long long grainIndex = first; directory[table] != 0 && grainIndex < end;
             ++grainIndex) {
            count(grainIndex, lookUpGrain(grainIndex));
        }
    }
    const long long headerSize =
        static_cast<long long>(std::min<unsigned long long>(header->getOverheadSectors(),
                                                            fileLengthBytes / kSectorSizeBytes)) *
        kSectorSizeBytes;
    kz::P<CVMDKSpaceInfo> info = kz::makeP<CVMDKSpaceInfo>();
    info->setPayloadSize(payloadSize);
    info->setPayloadSizeInFile(payloadSizeInFile);
    info->setHeaderSize(headerSize);
    info->setDeadSpaceSize(std::max(0LL, fileLengthBytes - headerSize - payloadSizeInFile));
    return info;
}

void CVMDKStreamOptimizedExtentFile::rethrowNamingFile(long long sector) const {
    rethrowVMDKFormatErrorNamingFile(getURI(), kz::CProps().add("sector", sector));
}

void CVMDKStreamOptimizedExtentFile::corrupt(const kz::String& message,
                                             const kz::CProps& props) const {
    throwVMDKFormatError(getURI(), message, props);
}

}  // namespace harl
