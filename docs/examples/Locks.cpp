// The lock file beside the main file: a writer excludes everyone, readers share.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CLockFileError.h"
#include "harl/foundation/kz/Log.h"
#include "harl/foundation/kz/TPathImpl.h"

#include "docs/examples/GuideSupport.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

// [start:lock-refused]
// Opens a disk for reading, or says who keeps it from being opened.
kz::P<harl::CVMDKDisk> openForReading(kz::IFileSystem* fileSystem, const kz::CURI& uri) {
    try {
        return kz::makeP<harl::CVMDKDisk>(fileSystem, uri, kz::IIOStream::AccessRead, "", -1,
                                          nullptr, nullptr);
    } catch (const kz::CLockFileError& e) {
        // what(): "Cannot take the lock file: another user holds it [uri=.../disk.vmdk.lock,
        // type=1]". A writer records itself in the lock file; readers record nobody.
        if (const kz::P<kz::CLockHolder> holder = e.getLockHolder()) {
            std::printf("%s is being written by process %lld on %s.\n",
                        uri.toString(true).toUTF8().c_str(), holder->getProcessID(),
                        holder->getHostName().toUTF8().c_str());
        }
        return nullptr;
    }
}

// [end:lock-refused]

}  // namespace

int main() {
    return guide::run([] {
        guide::CScratchFolder folder;
        const std::string path = folder.getPath() + "/disk.vmdk";
        const kz::CURI uri(kz::TPathImpl<kz::CUnixPathTraits>(kz::String(path)), false);
        kz::P<kz::IFileSystem> fileSystem(new kz::CLocalFileSystem);
        // The refused opener's log line is not this program's business.
        kz::setLogSink([](kz::LogLevel, const kz::String&) {});

        kz::P<harl::CVMDKDisk> writer = harl::CVMDKDisk::create(fileSystem.get(), uri, 0, "", false,
                                                                -1, -1, "", 0xFFFFFFFF, false);
        guide::check(std::filesystem::exists(path + ".lock"), "the lock file lies beside");
        guide::check(!openForReading(fileSystem.get(), uri), "a writer excludes readers");
        try {
            kz::makeP<harl::CVMDKDisk>(fileSystem.get(), uri, kz::IIOStream::AccessRead, "", -1,
                                       nullptr, nullptr);
        } catch (const kz::CLockFileError& e) {
            guide::check(
                std::string(e.what()) == "Cannot take the lock file: another user holds it [uri=" +
                                             uri.toString(true).toUTF8() + ".lock, type=1]",
                "the lock error's text");
            guide::check(e.getLockHolder() && e.getLockHolder()->getProcessID() == ::getpid(),
                         "the writer's process ID is in the lock file");
        }
        writer = nullptr;
        guide::check(!std::filesystem::exists(path + ".lock"), "the last user deletes it");

        kz::P<harl::CVMDKDisk> reader = openForReading(fileSystem.get(), uri);
        kz::P<harl::CVMDKDisk> secondReader = openForReading(fileSystem.get(), uri);
        guide::check(reader && secondReader, "readers share the lock");
        try {
            kz::makeP<harl::CVMDKDisk>(fileSystem.get(), uri, kz::IIOStream::AccessReadWrite, "",
                                       -1, nullptr, nullptr);
            guide::check(false, "readers exclude a writer");
        } catch (const kz::CLockFileError& e) {
            guide::check(!e.getLockHolder(), "readers record nobody");
        }
    });
}
