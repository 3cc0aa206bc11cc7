// Split disks whose extent files are made when they are first written.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "docs/examples/GuideSupport.h"

#include <vector>

int main() {
    return guide::run([] {
        kz::P<kz::CMemoryFileSystem> fileSystem(new kz::CMemoryFileSystem);
        const kz::CURI uri("mem:/big.vmdk");
        // [start:on-demand]
        // 64 GiB in extent files of at most 2 GiB, "big-s00000.vmdk", "big-s00001.vmdk", ...
        // beside the descriptor "big.vmdk". Only the first extent file is made now; the others
        // come when a write first reaches them, and read as holes until then.
        kz::P<harl::CVMDKDisk> disk =
            harl::CVMDKDisk::create(fileSystem.get(), uri, 64LL << 30, "", false, -1,
                                    harl::CVMDKDisk::getDefaultFileSizeLimit(), "", 0xFFFFFFFF,
                                    /*createExtentFilesOnDemand*/ true);
        // [end:on-demand]
        guide::check(fileSystem->exists(kz::CURI("mem:/big-s00000.vmdk")) &&
                         !fileSystem->exists(kz::CURI("mem:/big-s00001.vmdk")) &&
                         !fileSystem->exists(kz::CURI("mem:/big-s00031.vmdk")),
                     "only the first extent file is made");
        std::vector<unsigned char> bytes(4096, 0x42);
        disk->seek(40LL << 30);
        disk->read(bytes.data(), static_cast<int>(bytes.size()));
        guide::check(bytes[0] == 0 && !fileSystem->exists(kz::CURI("mem:/big-s00020.vmdk")),
                     "a read of a missing extent file gives zeros and makes nothing");
        bytes.assign(bytes.size(), 0x42);
        disk->seek(40LL << 30);
        disk->write(bytes.data(), static_cast<int>(bytes.size()));
        guide::check(fileSystem->exists(kz::CURI("mem:/big-s00020.vmdk")),
                     "the first write makes the file");
        guide::check(!fileSystem->exists(kz::CURI("mem:/big-s00019.vmdk")),
                     "the others stay missing");
    });
}
