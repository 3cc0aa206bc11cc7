// Fault sweeps over the life of an extent, in the manner of SQLite's I/O error tests: each run
// lets the Nth file system operation of a sequence fail, for every N that the sequence makes,
// then reopens the file and checks what survived. The sequences create an extent, write it
// (new grains, rewrites that move compressed grains, prepared grains, grains in three tables
// with a cache of one table, so that tables are evicted and written in between), flush and
// close it, in the four grain forms, and let an on-demand extent create its file.
//
// Faults: an operation fails and the process goes on; a write stores half its bytes and fails;
// the process dies (nothing after the fault reaches the file); the process dies and the power
// goes, so that only flushed writes remain. After each: the fault reaches the caller as the
// file system's error, and on reopening the file opens, every grain that no write touched
// since the last completed flush reads as it was then, a grain that got its first slot since
// reads as zeros or as written, and no grain reads as another grain's data.
//
// A negative control flushes the tables before the grains and must be caught.
#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/descriptor/CVMDKDescriptorAccessor.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKOnDemandExtentFile.h"
#include "harl/extent/CVMDKSparseExtentFile.h"
#include "harl/format/VMDKFileStream.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/vesk/CCipher_AES256CBC.h"
#include "harl/foundation/vesk/CDigestType_SHA256.h"
#include "harl/foundation/vesk/IDigest.h"
#include "harl/grain/CVMDKGrainTableCache.h"
#include "harl/grain/VMDKEmptyExtent.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/FaultSweep.h"
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace harl;
using Bytes = std::vector<unsigned char>;
using harltest::SweepMode;
using Mode = SweepMode;
using CModel = harltest::CSweepModel;

constexpr long long kGrainSectors = 8;
constexpr int kGrainBytes = 4096;
constexpr int kSectorBytes = 512;
// Three grain tables of 512 entries.
constexpr long long kGrainCount = 1100;

struct CForm {
    bool compressed;
    bool encrypted;
};

Bytes grainVersion(int grain, int version) {
    return harltest::grainVersion(grain, version, kGrainBytes);
}

// A sparse extent whose flush writes the tables behind the grains without a flush of the
// stream between them, so that the tables may reach the medium first: the negative control.
class CMisorderedFlushExtent : public CVMDKSparseExtentFile {
public:
    using CVMDKSparseExtentFile::CVMDKSparseExtentFile;

    void flushChanges() override {
        writeGrainData();
        writeTables();
        getStream()->flush();
    }
};

// One form of extent on one file system, with the key and the objects an extent needs.
class CExtentWorld {
public:
    CExtentWorld(const CForm& form, kz::IFileSystem* fs) : form(form), fs(fs) {
        key.setUsed(32);
        key.fill(0x5c);
        iv.setUsed(16);
        iv.fill(0x3a);
    }

    kz::TBuffer<unsigned char> keyHash() const {
        if (!form.encrypted) {
            return kz::TBuffer<unsigned char>();
        }
        kz::P<vesk::IDigest> digest;
        vesk::CDigestType_SHA256().createDigest(digest);
        digest->update(key.getData(), static_cast<int>(key.getUsed()));
        digest->finish();
        kz::TBuffer<unsigned char> hash;
        hash.assign(digest->getData(), static_cast<size_t>(digest->getSize()));
        return hash;
    }

    void create() {
        const std::string text =
            "# Disk DescriptorFile\nversion=1\nCID=abcdef01\nparentCID=ffffffff\n"
            "createType=\"monolithicSparse\"\nRW 8800 SPARSE \"e.vmdk\"\n";
        kz::TBuffer<unsigned char> textBuffer;
        textBuffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        kz::P<CVMDKDescriptor> descriptor(new CVMDKDescriptor(textBuffer));
        kz::TBuffer<unsigned char> zeros(kGrainBytes);
        zeros.fill(0);
        createEmptyVMDKSparseExtentFile(fs.get(), uri, form.compressed, kGrainCount, kGrainSectors,
                                        zeros, descriptor.get(), 4, keyHash());
    }

    kz::P<CVMDKSparseExtentFile> open(kz::IIOStream::Access access, bool misordered = false) {
        kz::P<kz::IIOStream> stream = openVMDKFileStream(fs.get(), uri, access);
        kz::P<CVMDKContentIDUpdater> updater;
        if (access == kz::IIOStream::AccessReadWrite) {
            kz::P<CVMDKDescriptorAccessor> accessor(
                new CVMDKDescriptorAccessor(stream.get(), kz::IIOStream::AccessRead));
            updater = new CVMDKContentIDUpdater(fs.get(), uri, accessor->getDescriptor().get());
        }
        // One table at a time, so that moving between tables evicts and writes them.
        kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(1));
        vesk::ICipher* usedCipher = form.encrypted ? cipher.get() : nullptr;
        const kz::TCryptBuffer<unsigned char> usedKey =
            form.encrypted ? key : kz::TCryptBuffer<unsigned char>();
        if (misordered) {
            return new CMisorderedFlushExtent(stream.get(), access, 0, 1, cache.get(), nullptr,
                                              updater.get(), usedCipher, usedKey, iv);
        }
        return new CVMDKSparseExtentFile(stream.get(), access, 0, 1, cache.get(), nullptr,
                                         updater.get(), usedCipher, usedKey, iv);
    }

    // The descriptor of an on-demand extent lives in a main file of its own.
    void writeMainFile() {
        const std::string text = "version=1\nCID=1\nparentCID=ffffffff\n" + std::string(400, '\0');
        kz::P<kz::IIOStream> main = fs->open(mainUri, kz::IIOStream::AccessReadWrite, 0);
        main->write(text.data(), static_cast<int>(text.size()), nullptr);
        main->close();
    }

    kz::P<CVMDKOnDemandExtentFile> openOnDemand(kz::IIOStream::Access access) {
        kz::P<kz::IIOStream> main = fs->open(mainUri, kz::IIOStream::AccessRead, 0);
        kz::P<CVMDKDescriptorAccessor> accessor(
            new CVMDKDescriptorAccessor(main.get(), kz::IIOStream::AccessRead));
        kz::P<CVMDKContentIDUpdater> updater(
            new CVMDKContentIDUpdater(fs.get(), mainUri, accessor->getDescriptor().get()));
        kz::P<CVMDKGrainTableCache> cache(new CVMDKGrainTableCache(1));
        return new CVMDKOnDemandExtentFile(
            fs.get(), uri, access, 0, kGrainSectors, kGrainCount * kGrainSectors, kSectorBytes,
            form.compressed, 1, nullptr, cache.get(), updater.get(),
            form.encrypted ? cipher.get() : nullptr,
            form.encrypted ? key : kz::TCryptBuffer<unsigned char>(), iv, keyHash());
    }

    CForm form;
    kz::P<kz::IFileSystem> fs;
    kz::CURI uri{"file:///sweep/e.vmdk"};
    kz::CURI mainUri{"file:///sweep/main.vmdk"};
    kz::P<vesk::ICipher> cipher{new vesk::CCipher_AES256CBC};
    kz::TCryptBuffer<unsigned char> key;
    kz::TBuffer<unsigned char> iv;
};

// The changes that every write sequence makes, in the order a host might make them.
void writeSequence(IVMDKExtentFile& extent, CModel& model) {
    for (int grain : {3, 4, 600}) {
        harltest::writeSweepGrain(extent, model, grain, grainVersion(grain, 1));
    }
    // Rewrites: an incompressible version moves a compressed grain, a compressible one fits.
    harltest::writeSweepGrain(extent, model, 0, grainVersion(0, 2));
    harltest::writeSweepGrain(extent, model, 1, grainVersion(1, 3));
    harltest::writeSweepGrain(extent, model, 513, grainVersion(513, 2));
    extent.flushChanges();
    model.commit();
    harltest::writeSweepGrainPrepared(extent, model, 5, grainVersion(5, 1));
    harltest::writeSweepGrainPrepared(extent, model, 2, grainVersion(2, 2));
    harltest::writeSweepGrain(extent, model, 1029, grainVersion(1029, 1));
    harltest::writeSweepGrain(extent, model, 3, grainVersion(3, 2));
    extent.flushChanges();
    model.commit();
    harltest::writeSweepGrain(extent, model, 1, grainVersion(1, 4));
    harltest::writeSweepGrain(extent, model, 700, grainVersion(700, 1));
    extent.close();
    model.commit();
}

// What one run of a sweep does, and how its file is checked after.
struct CScenario {
    // Without faults: makes the state the faults then meet, written and flushed.
    std::function<void(CExtentWorld&, CModel&)> prepare;
    // With the faults armed.
    std::function<void(CExtentWorld&, CModel&)> run;
    // Opens the file for the check.
    std::function<kz::P<IVMDKExtentFile>(CExtentWorld&)> reopen;
    // The fault may hit the file's creation: while nothing was flushed, the file may then fail
    // to open or to read, with a clear error.
    bool createsTheFile;
};

// Reads every grain the model knows of and a few that nothing touched.
void checkFile(CExtentWorld& world, const CScenario& scenario, const CModel& model, bool lenient,
               std::vector<std::string>& problems) {
    const bool mayFail = scenario.createsTheFile && !model.anythingCommitted();
    kz::P<IVMDKExtentFile> extent;
    try {
        extent = scenario.reopen(world);
    } catch (const kz::CError& error) {
        if (!mayFail) {
            problems.push_back(std::string("the file does not open: ") + error.what());
        }
        return;
    }
    std::vector<int> grains = model.touchedGrains();
    grains.insert(grains.end(), {6, 512, 1099});
    for (int grain : grains) {
        Bytes data(kGrainBytes);
        std::string error;
        try {
            extent->seek(static_cast<long long>(grain) * kGrainBytes);
            extent->read(data.data(), kGrainBytes);
        } catch (const kz::CError& e) {
            error = e.what();
            if (error.rfind("Internal error", 0) == 0) {
                problems.push_back("grain " + std::to_string(grain) + ": " + error);
            }
            if (mayFail) {
                continue;
            }
        }
        const std::string problem = model.check(grain, data, error, lenient);
        if (!problem.empty()) {
            problems.push_back("grain " + std::to_string(grain) + " " + problem);
        }
    }
}

// Runs the scenario once for each operation it makes, failing that operation in `mode`.
// Returns what went wrong, each with the run it went wrong in.
std::vector<std::string> sweep(const CScenario& scenario, const CForm& form, Mode mode) {
    std::vector<std::string> problems;
    harltest::CLogCapture log;  // what destructors could not flush is logged, not thrown
    for (long long n = 1;; ++n) {
        kz::P<kz::CMemoryFileSystem> memory(new kz::CMemoryFileSystem(true));
        kz::P<kz::CFaultInjectingFileSystem> faulty(
            new kz::CFaultInjectingFileSystem(memory.get()));
        CModel model(kGrainBytes);
        CExtentWorld setup(form, memory.get());
        scenario.prepare(setup, model);
        model.commit();
        faulty->failOperation(n, harltest::faultOf(mode));
        std::vector<std::string> runProblems;
        try {
            CExtentWorld world(form, faulty.get());
            scenario.run(world, model);
        } catch (const std::exception& error) {
            // The fault reaches the caller as it is, or as the cause of the caller's error.
            if (std::string(error.what()).find("Injected fault") == std::string::npos) {
                runProblems.push_back(std::string("unexpected error: ") + error.what());
            }
        }
        if (mode == Mode::PowerCut) {
            memory->cutPower(static_cast<unsigned>(n));
        }
        CExtentWorld after(form, memory.get());
        const bool lenient = mode == Mode::TornWrite || form.encrypted;
        checkFile(after, scenario, model, lenient, runProblems);
        for (const std::string& problem : runProblems) {
            problems.push_back(std::string(harltest::sweepModeName(mode)) + " at operation " +
                               std::to_string(n) + ": " + problem);
        }
        if (!faulty->hasFailed()) {
            return problems;
        }
    }
}

const CForm kForms[] = {{false, false}, {true, false}, {false, true}, {true, true}};
const Mode kModes[] = {Mode::Fail, Mode::TornWrite, Mode::Die, Mode::PowerCut};

std::string formName(const CForm& form) {
    return std::string(form.compressed ? "compressed" : "plain") +
           (form.encrypted ? " encrypted" : "");
}

void expectSweepsClean(const CScenario& scenario, const CForm& form) {
    for (Mode mode : kModes) {
        const std::vector<std::string> problems = sweep(scenario, form, mode);
        EXPECT_TRUE(problems.empty())
            << formName(form) << ": " << problems.size()
            << " problems, the first: " << (problems.empty() ? "" : problems[0]);
    }
}

// One form per test, so that the sweeps of the four forms run side by side.
class ExtentFaultSweepTest : public ::testing::TestWithParam<CForm> {};

// An extent with grains in all three tables, written and flushed without faults; the faults
// then meet the write sequence.
CScenario writingScenario(bool misordered) {
    return CScenario{
        [](CExtentWorld& world, CModel& model) {
            world.create();
            kz::P<CVMDKSparseExtentFile> extent = world.open(kz::IIOStream::AccessReadWrite);
            for (int grain : {0, 1, 2, 513, 1030}) {
                harltest::writeSweepGrain(*extent, model, grain, grainVersion(grain, 1));
            }
            // Enough grains that the ones to come lie further from the tables
            // than the stream's buffer reaches, so that a write-back never
            // carries a table and a grain together.
            for (int grain = 7; grain < 31; ++grain) {
                harltest::writeSweepGrain(*extent, model, grain, grainVersion(grain, 1));
            }
            extent->close();
        },
        [misordered](CExtentWorld& world, CModel& model) {
            kz::P<CVMDKSparseExtentFile> extent =
                world.open(kz::IIOStream::AccessReadWrite, misordered);
            writeSequence(*extent, model);
        },
        [](CExtentWorld& world) -> kz::P<IVMDKExtentFile> {
            return world.open(kz::IIOStream::AccessRead);
        },
        false};
}

TEST_P(ExtentFaultSweepTest, WritingFlushingAndClosingKeepWhatWasFlushed) {
    expectSweepsClean(writingScenario(false), GetParam());
}

TEST(ExtentFaultSweepControlTest, AFlushWithoutABarrierBetweenGrainsAndTablesIsCaught) {
    const std::vector<std::string> problems =
        sweep(writingScenario(true), CForm{false, false}, Mode::PowerCut);
    EXPECT_FALSE(problems.empty());
}

// A file whose creation failed is gone, fails to open with a clear error, or reads as zeros.
TEST_P(ExtentFaultSweepTest, CreatingLeavesNoFileThatReadsWrong) {
    expectSweepsClean(CScenario{[](CExtentWorld&, CModel&) {},
                                [](CExtentWorld& world, CModel&) { world.create(); },
                                [](CExtentWorld& world) -> kz::P<IVMDKExtentFile> {
                                    return world.open(kz::IIOStream::AccessRead);
                                },
                                true},
                      GetParam());
}

// An on-demand extent creates its file at the first write; a missing file reads as a hole.
TEST_P(ExtentFaultSweepTest, AnOnDemandExtentCreatesItsFileSafely) {
    expectSweepsClean(CScenario{[](CExtentWorld& world, CModel&) { world.writeMainFile(); },
                                [](CExtentWorld& world, CModel& model) {
                                    writeSequence(
                                        *world.openOnDemand(kz::IIOStream::AccessReadWrite), model);
                                },
                                [](CExtentWorld& world) -> kz::P<IVMDKExtentFile> {
                                    return world.openOnDemand(kz::IIOStream::AccessRead);
                                },
                                true},
                      GetParam());
}

INSTANTIATE_TEST_SUITE_P(Forms, ExtentFaultSweepTest, ::testing::ValuesIn(kForms));

}  // namespace
