// Prepared grains: grains that move from disk to disk without being compressed again.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/grain/CVMDKDataPreparer.h"

#include "docs/examples/GuideSupport.h"

#include <cstring>
#include <vector>

namespace {

// [start:copy-prepared]
// Copies every grain that `source` holds, itself or through its parents, to the same place
// in `target`, without decompressing or compressing it. Both disks need the same grain size
// and compression, and `target` at least the size of `source`; their passwords may differ.
// Returns the number of grains copied.
long long copyGrains(harl::CVMDKDisk& source, harl::CVMDKDisk& target) {
    if (source.getGrainSizeBytes() != target.getGrainSizeBytes() ||
        source.getCompressed() != target.getCompressed()) {
        throw kz::CError("The disks store grains differently; copy them by read and write.");
    }
    const long long grainBytes = source.getGrainSizeBytes();
    kz::TBuffer<unsigned char> grain;
    long long copied = 0;
    for (long long position = 0; position < source.getSizeBytes(); position += grainBytes) {
        source.seek(position);
        if (!source.isGrainWritten()) {
            continue;  // a hole stays a hole
        }
        source.readPreparedGrainData(grain);  // decrypted, still compressed
        target.seek(position);
        target.writePreparedGrainData(grain);  // encrypted under the target's key
        ++copied;
    }
    target.flushChanges();
    return copied;
}

// [end:copy-prepared]

// Grain `index` of a new disk, prepared away from the disk and then written to it.
void writePrepared(harl::CVMDKDisk& disk, long long index, unsigned char fill) {
    // [start:prepare]
    // A preparer knows the disk's grain size and compression, and nothing of its files. Plain
    // data goes in; the prepared grain comes back in `prepared` or in `plain` itself (without
    // compression), so both buffers are held through kz::P.
    kz::P<harl::CVMDKDataPreparer> preparer = disk.createDataPreparer();
    kz::P<kz::TBuffer<unsigned char>> plain(
        new kz::TBuffer<unsigned char>(static_cast<size_t>(disk.getGrainSizeBytes())));
    std::memset(plain->getData(), fill, plain->getUsed());
    kz::P<kz::TBuffer<unsigned char>> prepared(new kz::TBuffer<unsigned char>);
    kz::P<kz::TBuffer<unsigned char>> result =
        preparer->prepareGrainData(plain.get(), index, prepared.get());
    disk.seek(index * disk.getGrainSizeBytes());
    disk.writePreparedGrainData(*result);
    // [end:prepare]
}

}  // namespace

int main() {
    return guide::run([] {
        kz::P<kz::IFileSystem> fileSystem(new kz::CMemoryFileSystem);
        kz::P<harl::CVMDKDisk> source =
            harl::CVMDKDisk::create(fileSystem.get(), kz::CURI("mem:/a.vmdk"), 0, "one", true, -1,
                                    -1, "", 0xFFFFFFFF, false);
        kz::P<harl::CVMDKDisk> target =
            harl::CVMDKDisk::create(fileSystem.get(), kz::CURI("mem:/b.vmdk"), 0, "two", true, 9,
                                    -1, "", 0xFFFFFFFF, false);
        for (long long index : {3LL, 7LL, 127LL}) {
            writePrepared(*source, index, static_cast<unsigned char>(index));
        }
        guide::check(copyGrains(*source, *target) == 3, "three grains are copied");
        std::vector<unsigned char> read(65536);
        target->seek(7 * 65536);
        target->read(read.data(), 65536);
        guide::check(read[0] == 7 && read[65535] == 7, "the copy reads as the original");
        target->seek(8 * 65536);
        guide::check(!target->isGrainWritten(), "holes are not copied");
        kz::P<harl::CVMDKDisk> plain = harl::CVMDKDisk::create(
            fileSystem.get(), kz::CURI("mem:/c.vmdk"), 0, "", false, -1, -1, "", 0xFFFFFFFF, false);
        guide::check(guide::thrownText([&] { copyGrains(*source, *plain); }) ==
                         "The disks store grains differently; copy them by read and write.",
                     "the copy checks the disks' kinds");
    });
}
