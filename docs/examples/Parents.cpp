// Differencing disks: a child holds what changed and reads the rest from its parent.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/Log.h"

#include "docs/examples/GuideSupport.h"

#include <vector>

namespace {

const int kGrainBytes = 65536;

// Grain 0 and grain 1 of a new base disk hold `fill`.
unsigned int makeBase(kz::IFileSystem* fileSystem, unsigned char fill) {
    kz::P<harl::CVMDKDisk> base = harl::CVMDKDisk::create(
        fileSystem, kz::CURI("mem:/vm/base.vmdk"), 0, "", true, -1, -1, "", 0xFFFFFFFF, false);
    std::vector<unsigned char> grains(2 * kGrainBytes, fill);
    base->write(grains.data(), static_cast<int>(grains.size()));
    return base->getDescriptor()->getContentID();
}

void makeChild(kz::IFileSystem* fileSystem) {
    // [start:child]
    // The parent's content ID, read once the parent is written: the first change of an
    // opened disk gives it a new one, and a child refuses a parent whose ID has moved on.
    unsigned int parentContentID = 0;
    {
        kz::P<harl::CVMDKDisk> parent =
            kz::makeP<harl::CVMDKDisk>(fileSystem, kz::CURI("mem:/vm/base.vmdk"),
                                       kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
        parentContentID = parent->getDescriptor()->getContentID();
    }
    // The child names its parent by a reference relative to its own folder. It must have
    // the parent's grain size and compression; a child's size may differ from its parent's.
    kz::P<harl::CVMDKDisk> child =
        harl::CVMDKDisk::create(fileSystem, kz::CURI("mem:/vm/child.vmdk"), 0, "", true, -1, -1,
                                "base.vmdk", parentContentID, false);
    // [end:child]
    guide::check(child->getParentDiskMainURI() == kz::CURI("mem:/vm/base.vmdk"),
                 "the reference resolves beside the child");
}

void writeChild(kz::IFileSystem* fileSystem) {
    kz::P<harl::CVMDKDisk> child =
        kz::makeP<harl::CVMDKDisk>(fileSystem, kz::CURI("mem:/vm/child.vmdk"),
                                   kz::IIOStream::AccessReadWrite, "", -1, nullptr, nullptr);
    // [start:grains-of-a-child]
    // 100 bytes into grain 0: the child stores the whole grain, the rest of it from the parent.
    std::vector<unsigned char> bytes(100, 0xC1);
    child->write(bytes.data(), static_cast<int>(bytes.size()));
    child->seek(0);
    const bool inChild = child->isGrainWrittenAndIndependentOfParent();  // true
    child->seek(kGrainBytes);
    const bool inChain = child->isGrainWritten();                           // true
    const bool inChildToo = child->isGrainWrittenAndIndependentOfParent();  // false
    // Copy grain 1 from the parent, in prepared form: the child no longer needs it there.
    child->makeGrainIndependentOfParent(1);
    // [end:grains-of-a-child]
    guide::check(inChild && inChain && !inChildToo, "the grain questions");
    child->seek(kGrainBytes);
    guide::check(child->isGrainWrittenAndIndependentOfParent(), "grain 1 is the child's now");
    std::vector<unsigned char> read(kGrainBytes);
    child->seek(0);
    child->read(read.data(), kGrainBytes);
    guide::check(read[99] == 0xC1 && read[100] == 0xB0, "grain 0 mixes child and parent");
}

void changedParent(kz::IFileSystem* fileSystem) {
    makeBase(fileSystem, 0xEE);  // a new parent under the old name
    kz::P<harl::CVMDKDisk> child =
        kz::makeP<harl::CVMDKDisk>(fileSystem, kz::CURI("mem:/vm/child.vmdk"),
                                   kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
    std::vector<unsigned char> read(kGrainBytes);
    // Grains 0 and 1 are the child's own: reading them opens no parent.
    child->read(read.data(), kGrainBytes);
    child->seek(2 * kGrainBytes);
    guide::check(guide::thrownText([&] { child->read(read.data(), 1); })
                         .rfind("VMDK parent disk has changed, but a child disk depended on it. "
                                "[parentURI=mem:/vm/base.vmdk, childURI=mem:/vm/child.vmdk, "
                                "expectedContentID=",
                                0) == 0,
                 "a changed parent is refused when it is first needed");
}

}  // namespace

int main() {
    return guide::run([] {
        kz::P<kz::IFileSystem> fileSystem(new kz::CMemoryFileSystem);
        kz::setLogSink([](kz::LogLevel, const kz::String&) {});
        makeBase(fileSystem.get(), 0xB0);
        makeChild(fileSystem.get());
        writeChild(fileSystem.get());
        changedParent(fileSystem.get());
    });
}
