#include "harl/extent/CVMDKFlatExtentFile.h"

#include "harl/format/VMDKFormatError.h"
#include "harl/format/VMDKMarkers.h"

namespace harl {

CVMDKFlatExtentFile::CVMDKFlatExtentFile(kz::IIOStream* stream, long long offsetSectors,
                                         long long startGrainIndex, long long grainSizeSectors,
                                         long long sizeSectors, bool compressed,
                                         int compressionLevel)
    : CVMDKReadOnlyExtentFile(stream->getURI(), startGrainIndex, compressionLevel), stream(stream) {
    setGeometry(grainSizeSectors, sizeSectors, compressed);
    // The offset comes from the descriptor: the whole range must lie in the file, so that no
    // read of the extent meets the file's end and a short file is not read as a shorter disk.
    const long long lengthBytes = stream->getLength();
    if (offsetSectors < 0 || offsetSectors > lengthBytes / kSectorSizeBytes ||
        getSizeBytes() > lengthBytes - offsetSectors * kSectorSizeBytes) {
        throwVMDKFormatError(getURI(), "VMDK flat extent file is shorter than its extent.",
                             kz::CProps()
                                 .add("offsetSectors", offsetSectors)
                                 .add("sizeSectors", sizeSectors)
                                 .add("fileSize", lengthBytes));
    }
    offsetBytes = offsetSectors * kSectorSizeBytes;
}

void CVMDKFlatExtentFile::read(void* buffer, int size) {
    checkReadRange(size);
    if (size > 0) {
        stream->seek(offsetBytes + position);
        stream->read(buffer, size);
    }
    position += size;
}

void CVMDKFlatExtentFile::readPreparedGrainData(kz::TBuffer<unsigned char>& data) {
    checkPreparedGrainRead();
    const long long grainSizeBytes = getGrainSizeBytes();
    if (!getCompressed()) {
        data.setUsed(static_cast<size_t>(grainSizeBytes));
        read(data.getData(), static_cast<int>(grainSizeBytes));
        return;
    }
    if (!dataPreparer) {
        dataPreparer = createDataPreparer();
        plainGrain = kz::makeP<kz::TBuffer<unsigned char>>(static_cast<size_t>(grainSizeBytes));
        preparedGrain = kz::makeP<kz::TBuffer<unsigned char>>();
    }
    const long long diskGrainIndex = position / grainSizeBytes + getStartGrainIndex();
    plainGrain->setUsed(static_cast<size_t>(grainSizeBytes));
    read(plainGrain->getData(), static_cast<int>(grainSizeBytes));
    data = *dataPreparer->prepareGrainData(plainGrain.get(), diskGrainIndex, preparedGrain.get());
}

kz::P<CVMDKSpaceInfo> CVMDKFlatExtentFile::gatherSpaceInfo() {
    kz::P<CVMDKSpaceInfo> info = kz::makeP<CVMDKSpaceInfo>();
    info->setPayloadSize(getSizeBytes());
    info->setPayloadSizeInFile(getSizeBytes());
    return info;
}

}  // namespace harl
