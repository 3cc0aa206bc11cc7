// Threads: the library starts none; a host may run disks on threads of its own.

#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/TPathImpl.h"
#include "harl/grain/CVMDKDataPreparer.h"

#include "docs/examples/GuideSupport.h"

#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

const long long kGrains = 64;

kz::CURI localURI(const std::string& path) {
    return kz::CURI(kz::TPathImpl<kz::CUnixPathTraits>(kz::String(path)), false);
}

// [start:disk-per-thread]
// Each thread makes its own file system object and its own disks: reference counts are not
// atomic, so no object of the library may be in use on two threads at once.
void backUp(const std::string& path, unsigned char fill) {
    kz::P<kz::IFileSystem> fileSystem(new kz::CLocalFileSystem);
    kz::P<harl::CVMDKDisk> disk = harl::CVMDKDisk::create(fileSystem.get(), localURI(path), 0, "",
                                                          true, -1, -1, "", 0xFFFFFFFF, false);
    std::vector<unsigned char> data(kGrains * 65536, fill);
    disk->write(data.data(), static_cast<int>(data.size()));
    disk->flushChanges();
}

// [end:disk-per-thread]

// Grains of `fill` for every index `worker` of `workers` owns, prepared by `preparer`.
std::vector<kz::P<kz::TBuffer<unsigned char>>> prepareShare(harl::CVMDKDataPreparer* preparer,
                                                            int worker, int workers,
                                                            unsigned char fill) {
    std::vector<kz::P<kz::TBuffer<unsigned char>>> prepared(kGrains);
    for (long long index = worker; index < kGrains; index += workers) {
        kz::P<kz::TBuffer<unsigned char>> plain(new kz::TBuffer<unsigned char>(65536));
        std::memset(plain->getData(), fill, plain->getUsed());
        kz::P<kz::TBuffer<unsigned char>> aux(new kz::TBuffer<unsigned char>);
        prepared[index] = preparer->prepareGrainData(plain.get(), index, aux.get());
    }
    return prepared;
}

void compressInParallel(const std::string& path) {
    kz::P<kz::IFileSystem> fileSystem(new kz::CLocalFileSystem);
    kz::P<harl::CVMDKDisk> disk = harl::CVMDKDisk::create(fileSystem.get(), localURI(path), 0, "",
                                                          true, -1, -1, "", 0xFFFFFFFF, false);
    // [start:parallel-compression]
    // Compression in parallel: a preparer belongs to no disk, so each worker gets one of its
    // own, made on the disk's thread before the worker starts. The disk's thread writes.
    const int workers = 2;
    std::vector<kz::P<harl::CVMDKDataPreparer>> preparers;
    for (int worker = 0; worker < workers; ++worker) {
        preparers.push_back(disk->createDataPreparer());
    }
    std::vector<std::vector<kz::P<kz::TBuffer<unsigned char>>>> shares(workers);
    std::vector<std::thread> threads;
    for (int worker = 0; worker < workers; ++worker) {
        threads.emplace_back([&, worker] {
            shares[worker] = prepareShare(preparers[worker].get(), worker, workers, 0x33);
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (long long index = 0; index < kGrains; ++index) {
        disk->seek(index * disk->getGrainSizeBytes());
        disk->writePreparedGrainData(*shares[index % workers][index]);
    }
    // [end:parallel-compression]
    std::vector<unsigned char> read(kGrains * 65536);
    disk->seek(0);
    disk->read(read.data(), static_cast<int>(read.size()));
    guide::check(read == std::vector<unsigned char>(read.size(), 0x33),
                 "grains prepared on other threads read back");
}

}  // namespace

int main() {
    return guide::run([] {
        guide::CScratchFolder folder;
        // [start:threads]
        std::thread first(backUp, folder.getPath() + "/first.vmdk", 0x11);
        std::thread second(backUp, folder.getPath() + "/second.vmdk", 0x22);
        first.join();
        second.join();
        // [end:threads]
        kz::P<kz::IFileSystem> fileSystem(new kz::CLocalFileSystem);
        kz::P<harl::CVMDKDisk> disk = kz::makeP<harl::CVMDKDisk>(
            fileSystem.get(), localURI(folder.getPath() + "/second.vmdk"),
            kz::IIOStream::AccessRead, "", -1, nullptr, nullptr);
        std::vector<unsigned char> read(kGrains * 65536);
        disk->read(read.data(), static_cast<int>(read.size()));
        guide::check(read == std::vector<unsigned char>(read.size(), 0x22),
                     "each thread wrote its disk");
        compressInParallel(folder.getPath() + "/parallel.vmdk");
    });
}
