// Encrypted disks: the password at creation and at every opening, and chains of disks under
// different passwords.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/Log.h"

#include "docs/examples/GuideSupport.h"

#include <cstring>
#include <vector>

namespace {

const int kGrainBytes = 65536;

void createAndOpen(kz::IFileSystem* fileSystem) {
    // [start:encrypted]
    // A password makes the disk encrypted: every grain is stored under AES-256-CBC with a
    // random data key, which the descriptor keeps wrapped under a key derived from the password.
    const kz::String password = "correct horse battery staple";
    harl::CVMDKDisk::create(fileSystem, kz::CURI("mem:/secret.vmdk"), 0, password, true, -1, -1, "",
                            0xFFFFFFFF, false);
    // Every opening needs the same password; the disk does not keep it.
    kz::P<harl::CVMDKDisk> disk =
        kz::makeP<harl::CVMDKDisk>(fileSystem, kz::CURI("mem:/secret.vmdk"),
                                   kz::IIOStream::AccessReadWrite, password, -1, nullptr, nullptr);
    // [end:encrypted]
    disk = nullptr;
    guide::check(guide::thrownText([&] {
                     kz::makeP<harl::CVMDKDisk>(fileSystem, kz::CURI("mem:/secret.vmdk"),
                                                kz::IIOStream::AccessRead, "wrong", -1, nullptr,
                                                nullptr);
                 }) ==
                     "Specified VMDK encryption password is not correct. "
                     "[uri=mem:/secret.vmdk]",
                 "a wrong password is refused");
    guide::check(guide::thrownText([&] {
                     kz::makeP<harl::CVMDKDisk>(fileSystem, kz::CURI("mem:/secret.vmdk"),
                                                kz::IIOStream::AccessRead, "", -1, nullptr,
                                                nullptr);
                 }) == "VMDK is encrypted but no password provided [uri=mem:/secret.vmdk]",
                 "an encrypted disk needs a password");
}

void chainUnderTwoPasswords(kz::IFileSystem* fileSystem) {
    std::vector<unsigned char> grain(kGrainBytes, 0x5A);
    unsigned int baseContentID = 0;
    {
        kz::P<harl::CVMDKDisk> base =
            harl::CVMDKDisk::create(fileSystem, kz::CURI("mem:/base.vmdk"), 0, "base password",
                                    true, -1, -1, "", 0xFFFFFFFF, false);
        base->write(grain.data(), kGrainBytes);
        baseContentID = base->getDescriptor()->getContentID();
    }
    harl::CVMDKDisk::create(fileSystem, kz::CURI("mem:/child.vmdk"), 0, "child password", true, -1,
                            -1, "base.vmdk", baseContentID, false);
    // [start:parent-password]
    // A child opens its parent with the child's own password. For a parent under another
    // password, open the parent first and hand it in: the child then uses that disk as its
    // parent, without comparing content IDs, so check them yourself.
    kz::P<harl::CVMDKDisk> parent = kz::makeP<harl::CVMDKDisk>(
        fileSystem, kz::CURI("mem:/base.vmdk"), kz::IIOStream::AccessRead, "base password", -1,
        nullptr, nullptr);
    kz::P<harl::CVMDKDisk> child = kz::makeP<harl::CVMDKDisk>(
        fileSystem, kz::CURI("mem:/child.vmdk"), kz::IIOStream::AccessRead, "child password", -1,
        nullptr, parent.get());
    if (parent->getDescriptor()->getContentID() != child->getDescriptor()->getParentContentID()) {
        throw kz::CError("The parent has changed since the child was made.");
    }
    // [end:parent-password]
    std::vector<unsigned char> read(kGrainBytes);
    child->read(read.data(), kGrainBytes);
    guide::check(read == grain, "the child reads through to the parent");
    child = nullptr;
    kz::P<harl::CVMDKDisk> alone = kz::makeP<harl::CVMDKDisk>(
        fileSystem, kz::CURI("mem:/child.vmdk"), kz::IIOStream::AccessRead, "child password", -1,
        nullptr, nullptr);
    guide::check(guide::thrownText([&] { alone->read(read.data(), 1); }) ==
                     "Specified VMDK encryption password is not correct. [uri=mem:/base.vmdk]",
                 "without help the child tries its own password on the parent");
}

}  // namespace

int main() {
    return guide::run([] {
        kz::P<kz::IFileSystem> fileSystem(new kz::CMemoryFileSystem);
        kz::setLogSink([](kz::LogLevel, const kz::String&) {});
        createAndOpen(fileSystem.get());
        chainUnderTwoPasswords(fileSystem.get());
    });
}
