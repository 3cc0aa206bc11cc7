// The file system a host provides: paths as URIs, a file system of the host's own, and the
// in-memory one for tests.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/TPathImpl.h"

#include "docs/examples/GuideSupport.h"

#include <filesystem>
#include <string>

namespace {

// [start:uri-from-path]
// The "file:" URI of an absolute path of this machine. The path type gets the syntax and the
// percent-encoding right: never paste a path into "file://" text.
kz::CURI localURI(const std::string& path) {
    return kz::CURI(kz::TPathImpl<kz::CUnixPathTraits>(kz::String(path)), false);
}

// [end:uri-from-path]

// [start:own-file-system]
// A file system of the host's own: the files "vault:/<name>" live in one folder of this
// machine. It hands the work to CLocalFileSystem; a host with storage of its own implements
// the three calls the same way, with streams that implement kz::IIOStream, lockRange included.
class CVaultFileSystem : public kz::CBase, public kz::IFileSystem {
public:
    explicit CVaultFileSystem(const std::string& folder) : folder(folder) {}

    kz::P<kz::IIOStream> open(const kz::CURI& uri, kz::IIOStream::Access access,
                              int flags) override {
        return local->open(toLocal(uri), access, flags);
    }

    bool exists(const kz::CURI& uri) override { return local->exists(toLocal(uri)); }

    void deleteFile(const kz::CURI& uri, bool ignoreMissing) override {
        local->deleteFile(toLocal(uri), ignoreMissing);
    }

private:
    // Normalizing drops "..", so no name leaves the folder. Other schemes are refused with the
    // error the contract asks for: a CFileSystemError with the problem and the "uri".
    kz::CURI toLocal(const kz::CURI& uri) const {
        const kz::CURI normalized = uri.toNormalized();
        if (normalized.getScheme() != "vault") {
            throw kz::CFileSystemError(kz::CFileSystemError::Unsupported,
                                       kz::CError("Not a vault file", kz::String(), -1,
                                                  kz::CProps().add("uri", uri.toString(true))));
        }
        return localURI(folder + normalized.getPath().toUTF8());
    }

    std::string folder;
    kz::P<kz::IFileSystem> local{new kz::CLocalFileSystem};
};

// [end:own-file-system]

void useVault(const std::string& folder) {
    // [start:use-vault]
    kz::P<kz::IFileSystem> vault(new CVaultFileSystem(folder));
    // A split disk: its descriptor and extent files are all reached through the vault.
    harl::CVMDKDisk::create(vault.get(), kz::CURI("vault:/backup.vmdk"), 0, "", false, -1,
                            4 * 1024 * 1024, "", 0xFFFFFFFF, false);
    // [end:use-vault]
    guide::check(std::filesystem::exists(folder + "/backup.vmdk") &&
                     std::filesystem::exists(folder + "/backup-s00001.vmdk"),
                 "the vault's files are in its folder");
    guide::check(!std::filesystem::exists(folder + "/backup.vmdk.lock"),
                 "the lock file goes with the disk");
    guide::check(guide::thrownText([&] { vault->exists(kz::CURI("file:///etc/passwd")); }) ==
                     "File system error 6: Not a vault file [uri=file:///etc/passwd]",
                 "the vault refuses other schemes");
}

void useMemory() {
    // [start:memory-file-system]
    // The host's tests run the same code on files in memory, with URIs of any scheme.
    kz::P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem);
    harl::CVMDKDisk::create(memory.get(), kz::CURI("mem:/test.vmdk"), 0, "", true, -1, -1, "",
                            0xFFFFFFFF, false);
    // [end:memory-file-system]
    guide::check(memory->getFile(kz::CURI("mem:/test.vmdk")) != nullptr, "the disk is in memory");
}

}  // namespace

int main() {
    return guide::run([] {
        guide::check(
            localURI("/backups/Mon 1%.vmdk").toString(false) == "file:///backups/Mon%201%25.vmdk",
            "paths are percent-encoded");
        guide::CScratchFolder folder;
        useVault(folder.getPath());
        useMemory();
    });
}
