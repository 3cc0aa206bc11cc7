// Errors: what a host catches, what the log says, and what survives a failed write.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CLockFileError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/Log.h"

#include "docs/examples/GuideSupport.h"

#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

// [start:catch]
// One way to sort what the library throws. Every error is a kz::CError (a std::exception)
// whose what() gives message, detail, properties and cause in one line.
std::string describe(const std::function<void()>& work) {
    try {
        work();
        return "done";
    } catch (const kz::CLockFileError& e) {
        return std::string("in use elsewhere: ") + e.what();
    } catch (const kz::CFileSystemError& e) {
        // The file system failed: getProblem() says how (NotFound, AccessDenied, NoSpace, ...).
        return "storage problem " + std::to_string(e.getProblem()) + ": " + e.what();
    } catch (const kz::CIOError& e) {
        // getCode() 5: a file is damaged or of a kind this library does not serve.
        return "I/O error " + std::to_string(e.getCode()) + ": " + e.what();
    } catch (const kz::CError& e) {
        // A wrong password, a bad argument, or an "Internal error": a call the object's state
        // does not allow.
        return std::string("error: ") + e.what();
    }
}

// [end:catch]

void failedWrite() {
    // [start:after-a-failure]
    // Storage that fails on command, over files in memory that keep what was flushed.
    kz::P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem(true));
    kz::P<kz::CFaultInjectingFileSystem> storage(new kz::CFaultInjectingFileSystem(memory.get()));
    const kz::CURI uri("mem:/disk.vmdk");
    std::vector<unsigned char> first(65536, 1);
    std::vector<unsigned char> second(65536, 2);
    kz::P<harl::CVMDKDisk> disk =
        harl::CVMDKDisk::create(storage.get(), uri, 0, "", true, -1, -1, "", 0xFFFFFFFF, false);
    disk->write(first.data(), 65536);
    disk->flushChanges();  // grain 0 is safe from here on
    disk->write(second.data(), 65536);
    storage->failOperation(1, true);  // the storage goes away for good
    const std::string failure = describe([&] { disk->flushChanges(); });
    // "storage problem 0: File system error 0: Injected fault [uri=mem:/disk.vmdk, ...]"
    disk = nullptr;  // the release tries to flush again; that failure goes to the log
    memory->dropUnflushedWrites();  // the machine lost its power
    kz::P<harl::CVMDKDisk> reopened = kz::makeP<harl::CVMDKDisk>(
        memory.get(), uri, kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
    std::vector<unsigned char> read(65536);
    reopened->read(read.data(), 65536);  // grain 0 as flushed
    // [end:after-a-failure]
    guide::check(failure.rfind("storage problem 0: File system error 0: Injected fault "
                               "[uri=mem:/disk.vmdk, operation=",
                               0) == 0,
                 "the failed flush throws the file system's error");
    guide::check(read == first, "what was flushed before the failure is intact");
}

}  // namespace

int main() {
    return guide::run([] {
        std::vector<std::string> log;
        // [start:log-sink]
        // The library reports through one sink per process: stderr until the host sets its own,
        // before it uses the library. Error lines there include failures that a destructor
        // could not throw.
        kz::setLogSink([&log](kz::LogLevel level, const kz::String& message) {
            if (level == kz::LogLevel::Error) {
                log.push_back(message.toUTF8());
            }
        });
        // [end:log-sink]
        failedWrite();
        guide::check(!log.empty(), "the failed flush in the release is logged");

        kz::P<kz::IFileSystem> memory(new kz::CMemoryFileSystem);
        guide::check(describe([&] {
                         kz::makeP<harl::CVMDKDisk>(memory.get(), kz::CURI("mem:/none.vmdk"),
                                                    kz::IIOStream::AccessRead, "", -1, nullptr,
                                                    nullptr);
                     }) ==
                         "storage problem 1: File system error 1: No such file "
                         "[uri=mem:/none.vmdk]",
                     "a missing disk is NotFound");
        kz::P<harl::CVMDKDisk> disk = harl::CVMDKDisk::create(
            memory.get(), kz::CURI("mem:/disk.vmdk"), 0, "", false, -1, -1, "", 0xFFFFFFFF, false);
        guide::check(describe([&] { disk->seek(-1); }) ==
                         "I/O error 7: Bad seek position in VMDK disk: -1 "
                         "[mainFileURI=mem:/disk.vmdk, diskSize=8388608]",
                     "a bad seek is code 7");
        disk = nullptr;
        kz::setLogSink(nullptr);
    });
}
