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

TEST_F(CVMDKOnDemandExtentFileTest, AHoleReadsThroughWithoutTouchingFiles) {
    kz::P<harltest::CRecordingDataProvider> provider(new harltest::CRecordingDataProvider);
    kz::P<CVMDKOnDemandExtentFile> extent = make(kz::IIOStream::AccessReadWrite, provider.get());
    const long long operations = faulty->getOperationCount();
    extent->seek(100);
    unsigned char bytes[4];
    extent->read(bytes, 4);
    EXPECT_EQ(bytes[0], harltest::CRecordingDataProvider::patternAt(32 * kGrainBytes + 100));
    EXPECT_TRUE(extent->isHole());
    extent->setFallbackDataProvider(nullptr);
    extent->read(bytes, 4);
    EXPECT_EQ(bytes[3], 0);
    EXPECT_EQ(faulty->getOperationCount(), operations);
    EXPECT_FALSE(memory->exists(uri));
    EXPECT_EQ(extent->gatherSpaceInfo()->getHeaderSize(), 0);
}

TEST_F(CVMDKOnDemandExtentFileTest, FirstChangeCreatesTheFileAndKeepsThePosition) {
    kz::P<CVMDKOnDemandExtentFile> extent = make(kz::IIOStream::AccessReadWrite);
    extent->seek(3 * kGrainBytes + 10);
    extent->write(nullptr, 0);  // creates the file all the same
    EXPECT_FALSE(extent->isHole());
    EXPECT_TRUE(memory->exists(uri));
    EXPECT_EQ(extent->getPosition(), 3 * kGrainBytes + 10);
    const unsigned char data[3] = {1, 2, 3};
    extent->write(data, 3);
    extent->flushChanges();
    extent.reset();

    // A new object over the existing file is backed from the start.
    kz::P<CVMDKOnDemandExtentFile> again = make(kz::IIOStream::AccessRead);
    EXPECT_FALSE(again->isHole());
    again->seek(3 * kGrainBytes + 10);
    unsigned char back[3] = {};
    again->read(back, 3);
    EXPECT_EQ(back[2], 3);
    EXPECT_NE(descriptor->getContentID(), 1u);
}

TEST_F(CVMDKOnDemandExtentFileTest, ReadersCannotChangeAndFailedCreationRetries) {
    kz::P<CVMDKOnDemandExtentFile> reader = make(kz::IIOStream::AccessRead);
    const unsigned char data[1] = {9};
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { reader->write(data, 1); }),
              "-1 Internal error: VMDK extent file is about to be changed, but it was not opened "
              "for writing. [uri=file:///d/main-s003.vmdk]");
    EXPECT_FALSE(memory->exists(uri));

    kz::P<CVMDKOnDemandExtentFile> writer = make(kz::IIOStream::AccessReadWrite);
    writer->seek(kGrainBytes);
    harltest::CLogCapture log;
    faulty->failOperation(3, false);
    EXPECT_THROW(writer->write(data, 1), kz::CError);
    EXPECT_TRUE(writer->isHole());
    EXPECT_FALSE(memory->exists(uri));
    EXPECT_EQ(writer->getPosition(), kGrainBytes);
    writer->write(data, 1);
    EXPECT_FALSE(writer->isHole());
    EXPECT_EQ(writer->getPosition(), kGrainBytes + 1);
}

}  // namespace
