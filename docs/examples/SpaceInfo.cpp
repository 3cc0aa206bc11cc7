// Space accounting: how the bytes of a disk's files are spent.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "docs/examples/GuideSupport.h"

#include <cstdio>
#include <random>
#include <vector>

int main() {
    return guide::run([] {
        kz::P<kz::IFileSystem> fileSystem(new kz::CMemoryFileSystem);
        kz::P<harl::CVMDKDisk> disk =
            harl::CVMDKDisk::create(fileSystem.get(), kz::CURI("mem:/disk.vmdk"), 0, "", true, -1,
                                    -1, "", 0xFFFFFFFF, false);
        // Four grains that compress well. (A grain of zeros is not stored at all.)
        std::vector<unsigned char> ones(4 * 65536, 1);
        disk->write(ones.data(), static_cast<int>(ones.size()));
        const kz::P<harl::CVMDKSpaceInfo> before = disk->gatherSpaceInfo();
        // Grain 0 again, with data that does not compress: it outgrows its slot and moves.
        std::vector<unsigned char> noise(65536);
        std::mt19937 random(7);
        for (unsigned char& byte : noise) {
            byte = static_cast<unsigned char>(random());
        }
        disk->seek(0);
        disk->write(noise.data(), static_cast<int>(noise.size()));
        // [start:space]
        // Walks every grain table of every extent; flushes first on a disk open for writing.
        // The disk's position is the same afterwards.
        const kz::P<harl::CVMDKSpaceInfo> space = disk->gatherSpaceInfo();
        std::printf("grains held: %lld bytes, %lld in the files\n", space->getPayloadSize(),
                    space->getPayloadSizeInFile());
        std::printf("metadata before the first grain: %lld bytes\n", space->getHeaderSize());
        std::printf("dead space: %lld bytes\n", space->getDeadSpaceSize());
        // [end:space]
        guide::check(before->getPayloadSize() == 4 * 65536 && space->getPayloadSize() == 4 * 65536,
                     "the payload counts whole grains");
        guide::check(before->getPayloadSizeInFile() < 4 * 65536,
                     "compressed grains take less in the file");
        guide::check(space->getDeadSpaceSize() > before->getDeadSpaceSize(),
                     "a grain that moved leaves its old slot as dead space");
        guide::check(disk->getPosition() == 65536, "the position stays");
    });
}
