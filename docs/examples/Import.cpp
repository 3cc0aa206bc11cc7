// Disks that other programs wrote: opened read only for import, and copied into a disk of
// the library's own.

#include "harl/disk/CVMDKDisk.h"
#include "harl/disk/CVMDKImportDisk.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "docs/examples/GuideSupport.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

void writeFile(kz::IFileSystem* fileSystem, const kz::CURI& uri, const std::string& content) {
    kz::P<kz::IIOStream> stream = fileSystem->open(uri, kz::IIOStream::AccessReadWrite, 0);
    stream->write(content.data(), static_cast<int>(content.size()), nullptr);
    stream->close();
}

// [start:import]
// Copies the disk at `foreign`, of any kind that CVMDKImportDisk reads, into a new compressed
// disk at `own`, by bytes: grains of zeros stay holes. (A compressed source with the same
// grain size could pass its grains in prepared form instead, as copyGrains does.)
void importDisk(kz::IFileSystem* fileSystem, const kz::CURI& foreign, const kz::CURI& own) {
    kz::P<harl::CVMDKDisk> source = harl::CVMDKImportDisk::open(fileSystem, foreign, "", -1);
    kz::P<harl::CVMDKDisk> target = harl::CVMDKDisk::create(
        fileSystem, own, source->getSizeBytes(), "", true, -1, -1, "", 0xFFFFFFFF, false);
    std::vector<unsigned char> grain(static_cast<size_t>(target->getGrainSizeBytes()));
    for (long long position = 0; position < source->getSizeBytes();
         position += static_cast<long long>(grain.size())) {
        const int bytes = static_cast<int>(std::min<long long>(static_cast<long long>(grain.size()),
                                                               source->getSizeBytes() - position));
        source->seek(position);
        source->read(grain.data(), bytes);
        target->seek(position);
        target->write(grain.data(), bytes);
    }
    target->flushChanges();
}

// [end:import]

}  // namespace

int main() {
    return guide::run([] {
        kz::P<kz::IFileSystem> fileSystem(new kz::CMemoryFileSystem);
        // A flat disk of another writer: a descriptor and a file of raw bytes, 16384 sectors.
        writeFile(fileSystem.get(), kz::CURI("mem:/appliance.vmdk"),
                  "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                  "createType=\"monolithicFlat\"\n\n# Extent description\n"
                  "RW 16384 FLAT \"appliance-flat.vmdk\" 0\n");
        std::string raw(16384 * 512, '\0');
        std::fill(raw.begin() + 65536, raw.begin() + 2 * 65536, 'x');
        writeFile(fileSystem.get(), kz::CURI("mem:/appliance-flat.vmdk"), raw);
        guide::check(guide::thrownText([&] {
                         kz::makeP<harl::CVMDKDisk>(
                             fileSystem.get(), kz::CURI("mem:/appliance.vmdk"),
                             kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
                     }) ==
                         "VMDK disk has an unsupported create type: 'monolithicFlat'. "
                         "[uri=mem:/appliance.vmdk]",
                     "the library's own disks refuse other kinds");

        importDisk(fileSystem.get(), kz::CURI("mem:/appliance.vmdk"), kz::CURI("mem:/own.vmdk"));
        kz::P<harl::CVMDKDisk> own =
            kz::makeP<harl::CVMDKDisk>(fileSystem.get(), kz::CURI("mem:/own.vmdk"),
                                       kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
        std::vector<unsigned char> read(raw.size());
        own->read(read.data(), static_cast<int>(read.size()));
        guide::check(std::equal(read.begin(), read.end(), raw.begin()), "the copy reads the same");
        guide::check(own->gatherSpaceInfo()->getPayloadSize() == 65536,
                     "only the grain that holds data is stored");
    });
}
