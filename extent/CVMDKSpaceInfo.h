#pragma once

#include "harl/foundation/kz/CBase.h"

namespace harl {

// How the bytes of a disk's files are spent, all counts in bytes. A snapshot: nothing updates
// it after it was filled in.
//
// payloadSize:       the grains held, at their full uncompressed grain size.
// payloadSizeInFile: what those grains occupy in the file.
// headerSize:        the overhead before the first grain.
// deadSpaceSize:     the rest of the file: abandoned slots, padding, trail data.
class CVMDKSpaceInfo : public kz::CBase {
public:
    CVMDKSpaceInfo() = default;

    long long getPayloadSize() const { return payloadSize; }

    long long getPayloadSizeInFile() const { return payloadSizeInFile; }

    long long getHeaderSize() const { return headerSize; }

    long long getDeadSpaceSize() const { return deadSpaceSize; }

    void setPayloadSize(long long value) { payloadSize = value; }

    void setPayloadSizeInFile(long long value) { payloadSizeInFile = value; }

    void setHeaderSize(long long value) { headerSize = value; }

    void setDeadSpaceSize(long long value) { deadSpaceSize = value; }

    // Adds each count of `other` to the same count here, to sum extents into a disk.
    void addSpaceInfo(const CVMDKSpaceInfo& other) {
        payloadSize += other.payloadSize;
        payloadSizeInFile += other.payloadSizeInFile;
        headerSize += other.headerSize;
        deadSpaceSize += other.deadSpaceSize;
    }

private:
    long long payloadSize = 0;
    long long payloadSizeInFile = 0;
    long long headerSize = 0;
    long long deadSpaceSize = 0;
};

}  // namespace harl
