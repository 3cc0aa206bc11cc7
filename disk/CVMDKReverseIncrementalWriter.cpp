#include "harl/disk/CVMDKReverseIncrementalWriter.h"

#include "harl/disk/CVMDKDisk.h"

namespace harl {

CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter(
    const kz::TPathImpl<kz::CWindowsPathTraits>& firstPath,
    const kz::TPathImpl<kz::CWindowsPathTraits>& secondPath, CVMDKDisk* disk, std::uint64_t value)
    : firstPath(firstPath), secondPath(secondPath), disk(disk), value(value) {
}

CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter(
    const CVMDKReverseIncrementalWriter& other) = default;

// Moving copies: the record is shared state, and a moved-from writer must stay usable.
CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter&& other)
    : CVMDKReverseIncrementalWriter(static_cast<const CVMDKReverseIncrementalWriter&>(other)) {
}

CVMDKReverseIncrementalWriter& CVMDKReverseIncrementalWriter::operator=(
    const CVMDKReverseIncrementalWriter& other) = default;

CVMDKReverseIncrementalWriter& CVMDKReverseIncrementalWriter::operator=(
    CVMDKReverseIncrementalWriter&& other) {
    return *this = static_cast<const CVMDKReverseIncrementalWriter&>(other);
}

CVMDKReverseIncrementalWriter::~CVMDKReverseIncrementalWriter() = default;

}  // namespace harl
