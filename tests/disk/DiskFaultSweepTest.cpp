// Fault sweeps over whole disks, as the extent sweeps do over extents: a monolithic disk, a
// split disk whose extent files are made on demand, and a differencing child over its parent.
// Each run fails the Nth file system operation of creating the disk or of a write sequence
// (new grains, rewrites, prepared grains, a partial write that merges with the parent's
// grain, flushes, the destructor's flush), for every N the sequence makes, in the four modes
// of harltest::SweepMode; then the disk is opened again and every grain checked against the
// model: what was flushed reads as flushed, and no grain reads as another grain's data.
#include "harl/disk/CVMDKDisk.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/FaultSweep.h"
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using namespace harl;
using harltest::SweepMode;
using Bytes = std::vector<unsigned char>;

constexpr int kGrainBytes = 65536;
// 32 grains; a split disk has four extent files of 8 grains.
constexpr long long kDiskBytes = 2LL << 20;
constexpr long long kExtentFileBytes = 512LL << 10;
const kz::CURI kDisk("file:///sweep/disk.vmdk");
const kz::CURI kParent("file:///sweep/parent.vmdk");

Bytes version(int grain, int number) {
    return harltest::grainVersion(grain, number, kGrainBytes);
}

enum class Shape { Monolithic, SplitOnDemand, Child };

kz::P<CVMDKDisk> createDisk(kz::IFileSystem* fs, const kz::CURI& uri, Shape shape,
                            unsigned int parentContentID = 0xFFFFFFFF) {
    const bool split = shape == Shape::SplitOnDemand;
    const bool child = shape == Shape::Child && uri == kDisk;
    return CVMDKDisk::create(fs, uri, kDiskBytes, "", false, 1, split ? kExtentFileBytes : -1,
                             child ? "parent.vmdk" : "", parentContentID, split);
}

kz::P<CVMDKDisk> openDisk(kz::IFileSystem* fs, kz::IIOStream::Access access) {
    return kz::makeP<CVMDKDisk>(fs, kDisk, access, "", 1, nullptr, nullptr);
}

// The first 4 KiB of the grain from `data`, the rest as the grain reads now (from the
// parent, for a child's grain that has no slot yet).
void writeGrainStart(CVMDKDisk& disk, harltest::CSweepModel& model, int grain, const Bytes& data) {
    Bytes merged = model.current(grain);
    std::copy(data.begin(), data.begin() + 4096, merged.begin());
    model.write(grain, merged);
    disk.seek(static_cast<long long>(grain) * kGrainBytes);
    disk.write(data.data(), 4096);
}

// The state before the faults: the disk (and a child's parent), with grains written and
// flushed. The parent's grains are what the child's unwritten grains read as.
void prepare(kz::IFileSystem* fs, Shape shape, harltest::CSweepModel& model) {
    unsigned int parentContentID = 0xFFFFFFFF;
    if (shape == Shape::Child) {
        kz::P<CVMDKDisk> parent = createDisk(fs, kParent, shape);
        for (int grain : {0, 1, 9, 25}) {
            harltest::writeSweepGrain(*parent, model, grain, version(grain, 7));
        }
        parent->flushChanges();
        parentContentID = parent->getDescriptor()->getContentID();
    }
    kz::P<CVMDKDisk> disk = createDisk(fs, kDisk, shape, parentContentID);
    for (int grain : {0, 2, 17}) {
        harltest::writeSweepGrain(*disk, model, grain, version(grain, 1));
    }
    disk->flushChanges();
}

// The changes every disk sequence makes; the last ones are left to the destructor's flush.
void writeSequence(kz::IFileSystem* fs, harltest::CSweepModel& model) {
    kz::P<CVMDKDisk> disk = openDisk(fs, kz::IIOStream::AccessReadWrite);
    harltest::writeSweepGrain(*disk, model, 3, version(3, 1));
    harltest::writeSweepGrain(*disk, model, 20, version(20, 1));
    harltest::writeSweepGrain(*disk, model, 0, version(0, 2));
    writeGrainStart(*disk, model, 1, version(1, 3));
    disk->flushChanges();
    model.commit();
    harltest::writeSweepGrainPrepared(*disk, model, 5, version(5, 1));
    harltest::writeSweepGrain(*disk, model, 30, version(30, 1));
    writeGrainStart(*disk, model, 9, version(9, 3));
    disk->flushChanges();
    model.commit();
    harltest::writeSweepGrain(*disk, model, 3, version(3, 2));
    harltest::writeSweepGrain(*disk, model, 26, version(26, 1));
}

// The extent files of a split disk: "disk-s00000.vmdk" and on.
std::vector<kz::CURI> extentFiles() {
    std::vector<kz::CURI> files;
    for (int i = 0; i < kDiskBytes / kExtentFileBytes + 2; ++i) {
        char name[32];
        std::snprintf(name, sizeof(name), "disk-s%05d.vmdk", i);
        files.push_back(kz::CURI(std::string("file:///sweep/") + name));
    }
    return files;
}

// A fault that hits the creation of an extent file on demand leaves a file that is not an
// extent; the grains of its extent that were never flushed then fail to read, with a clear
// error. Nothing is lost, since nothing reached that file.
bool inUnfinishedFile(const std::string& error, const std::vector<kz::CURI>& newFiles) {
    for (const kz::CURI& file : newFiles) {
        if (error.find(file.toString(true).toUTF8()) != std::string::npos) {
            return true;
        }
    }
    return false;
}

void checkDisk(kz::IFileSystem* fs, const harltest::CSweepModel& model, bool mayFail,
               const std::vector<kz::CURI>& newFiles, std::vector<std::string>& problems) {
    kz::P<CVMDKDisk> disk;
    try {
        disk = openDisk(fs, kz::IIOStream::AccessRead);
    } catch (const kz::CError& error) {
        if (!mayFail) {
            problems.push_back(std::string("the disk does not open: ") + error.what());
        }
        return;
    }
    std::vector<int> grains = model.touchedGrains();
    grains.insert(grains.end(), {6, 31});
    for (int grain : grains) {
        Bytes data(kGrainBytes);
        std::string error;
        try {
            disk->seek(static_cast<long long>(grain) * kGrainBytes);
            disk->read(data.data(), kGrainBytes);
        } catch (const kz::CError& e) {
            error = e.what();
            if (mayFail || (!model.wasFlushed(grain) && inUnfinishedFile(error, newFiles))) {
                continue;
            }
        }
        const std::string problem = model.check(grain, data, error, false);
        if (!problem.empty()) {
            problems.push_back("grain " + std::to_string(grain) + " " + problem);
        }
    }
}

// Runs `run` once for each operation it makes, failing that operation in `mode`.
std::vector<std::string> sweep(Shape shape, SweepMode mode, bool creating) {
    std::vector<std::string> problems;
    harltest::CLogCapture log;  // what destructors could not flush is logged, not thrown
    for (long long n = 1;; ++n) {
        kz::P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem(true));
        kz::P<kz::CFaultInjectingFileSystem> faulty(
            new kz::CFaultInjectingFileSystem(memory.get()));
        harltest::CSweepModel model(kGrainBytes);
        if (!creating) {
            prepare(memory.get(), shape, model);
            model.commit();
        }
        std::vector<kz::CURI> newFiles;
        for (const kz::CURI& file : extentFiles()) {
            if (!memory->exists(file)) {
                newFiles.push_back(file);
            }
        }
        faulty->failOperation(n, harltest::faultOf(mode));
        std::vector<std::string> runProblems;
        try {
            if (creating) {
                createDisk(faulty.get(), kDisk, shape);
            } else {
                writeSequence(faulty.get(), model);
            }
        } catch (const std::exception& error) {
            // The fault reaches the caller as it is, or as the cause of the caller's error.
            if (std::string(error.what()).find("Injected fault") == std::string::npos) {
                runProblems.push_back(std::string("unexpected error: ") + error.what());
            }
        }
        if (mode == SweepMode::PowerCut) {
            memory->cutPower(static_cast<unsigned>(n));
        }
        checkDisk(memory.get(), model, creating && faulty->hasFailed(), newFiles, runProblems);
        for (const std::string& problem : runProblems) {
            problems.push_back(std::string(harltest::sweepModeName(mode)) + " at operation " +
                               std::to_string(n) + ": " + problem);
        }
        if (!faulty->hasFailed()) {
            return problems;
        }
    }
}

const SweepMode kModes[] = {SweepMode::Fail, SweepMode::TornWrite, SweepMode::Die,
                            SweepMode::PowerCut};

class DiskFaultSweepTest : public ::testing::TestWithParam<Shape> {};

TEST_P(DiskFaultSweepTest, CreatingAndWritingKeepWhatWasFlushed) {
    // A child is created like any disk; its creation needs a parent of its own.
    for (bool creating : {GetParam() != Shape::Child, false}) {
        for (SweepMode mode : kModes) {
            const std::vector<std::string> problems = sweep(GetParam(), mode, creating);
            EXPECT_TRUE(problems.empty())
                << (creating ? "creating: " : "writing: ") << problems.size()
                << " problems, the first: " << (problems.empty() ? "" : problems[0]);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Shapes, DiskFaultSweepTest,
                         ::testing::Values(Shape::Monolithic, Shape::SplitOnDemand, Shape::Child));

}  // namespace
