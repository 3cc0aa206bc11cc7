#include "harl/descriptor/CVMDKDescriptor.h"
#include "harl/extent/CVMDKContentIDUpdater.h"
#include "harl/extent/CVMDKOnDemandExtentFile.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFaultInjectingFileSystem.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/grain/CVMDKGrainTableCache.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingDataProvider.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

namespace {

using harl::CVMDKOnDemandExtentFile;

constexpr long long kGrainBytes = 65536;
constexpr long long kSizeSectors = 16 * 128;

// An extent of 16 grains, the third of its disk, whose file does not exist yet. The
// descriptor lives in a main file of its own, so that a change also rewrites that file.
class CVMDKOnDemandExtentFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        const std::string text = "version=1\nCID=1\nparentCID=ffffffff\n" + std::string(400, '\0');
        kz::P<kz::IIOStream> main = memory->open(mainUri, kz::IIOStream::AccessReadWrite, 0);
        main->write(text.data(), static_cast<int>(text.size()), nullptr);
        kz::TBuffer<unsigned char> textBuffer;
        textBuffer.assign(reinterpret_cast<const unsigned char*>(text.data()), text.size());
        descriptor = kz::P<harl::CVMDKDescriptor>(new harl::CVMDKDescriptor(textBuffer));
        updater = kz::P<harl::CVMDKContentIDUpdater>(
            new harl::CVMDKContentIDUpdater(faulty.get(), mainUri, descriptor.get()));
    }

    kz::P<CVMDKOnDemandExtentFile> make(kz::IIOStream::Access access,
                                        harl::IVMDKDataProvider* provider = nullptr) {
        return kz::P<CVMDKOnDemandExtentFile>(new CVMDKOnDemandExtentFile(
            faulty.get(), uri, access, 32, 128, kSizeSectors, 512, false, 1, provider, cache.get(),
            updater.get(), nullptr, kz::TCryptBuffer<>(), kz::TBuffer<unsigned char>(),
            kz::TBuffer<unsigned char>()));
    }

    kz::P<kz::CMemoryFileSystem> memory{new kz::CMemoryFileSystem};
    kz::P<kz::CFaultInjectingFileSystem> faulty{new kz::CFaultInjectingFileSystem(memory.get())};
    kz::CURI mainUri{"file:///d/main.vmdk"};
    kz::CURI uri{"file:///d/main-s003.vmdk"};
    kz::P<harl::CVMDKDescriptor> descriptor;
    kz::P<harl::CVMDKContentIDUpdater> updater;
    kz::P<harl::CVMDKGrainTableCache> cache{new harl::CVMDKGrainTableCache};
};

// Until its first change the extent is a hole that reads through its provider and touches no
// file; a reader cannot change it; a failed creation leaves it a hole at its position, and the
// next change creates the file, which a new object over it finds backed from the start.
TEST_F(CVMDKOnDemandExtentFileTest, TheFirstChangeCreatesTheFileAndAFailedOneRetries) {
    kz::P<harltest::CRecordingDataProvider> provider(new harltest::CRecordingDataProvider);
    kz::P<CVMDKOnDemandExtentFile> extent = make(kz::IIOStream::AccessReadWrite, provider.get());
    extent->seek(100);
    unsigned char bytes[4];
    extent->read(bytes, 4);
    EXPECT_EQ(bytes[0], harltest::CRecordingDataProvider::patternAt(32 * kGrainBytes + 100));
    extent->setFallbackDataProvider(nullptr);
    extent->read(bytes, 4);
    EXPECT_EQ(bytes[3], 0);
    EXPECT_EQ(faulty->getOperationCount(), 0);
    EXPECT_EQ(extent->gatherSpaceInfo()->getHeaderSize(), 0);
    const unsigned char data[3] = {1, 2, 3};
    EXPECT_EQ(
        harltest::thrownText<kz::CError>([&] { make(kz::IIOStream::AccessRead)->write(data, 1); }),
        "-1 Internal error: VMDK extent file is about to be changed, but it was not opened "
        "for writing. [uri=file:///d/main-s003.vmdk]");

    extent->seek(3 * kGrainBytes + 10);
    harltest::CLogCapture log;
    faulty->failOperation(3, false);
    EXPECT_THROW(extent->write(data, 1), kz::CError);
    EXPECT_TRUE(extent->isHole());
    EXPECT_FALSE(memory->exists(uri));
    EXPECT_EQ(extent->getPosition(), 3 * kGrainBytes + 10);
    extent->write(nullptr, 0);  // creates the file all the same
    EXPECT_FALSE(extent->isHole());
    EXPECT_TRUE(memory->exists(uri));
    EXPECT_EQ(extent->getPosition(), 3 * kGrainBytes + 10);
    extent->write(data, 3);
    extent->flushChanges();
    extent.reset();

    kz::P<CVMDKOnDemandExtentFile> again = make(kz::IIOStream::AccessRead);
    EXPECT_FALSE(again->isHole());
    again->seek(3 * kGrainBytes + 10);
    unsigned char back[3] = {};
    again->read(back, 3);
    EXPECT_EQ(back[2], 3);
    EXPECT_NE(descriptor->getContentID(), 1u);
}

}  // namespace
