#include "harl/format/VMDKMarkers.h"
#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CInvalidArgError.h"

#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

namespace {

using namespace harl;

kz::TBuffer<unsigned char> zeros(size_t size) {
    kz::TBuffer<unsigned char> buffer(size);
    buffer.fill(0);
    return buffer;
}

// A stream that records the size of every write, to see how padding is cut.
class CWriteSizes : public kz::CBufferStream {
public:
    void write(const void* data, int size, kz::IWriteBarrier* barrier) override {
        sizes.push_back(size);
        CBufferStream::write(data, size, barrier);
    }

    std::vector<int> sizes;
};

TEST(VMDKMarkersTest, MarkerRoundTripAndRejections) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    writeVMDKMarker(out, VMDKMarkerGrainDirectory, 7, zeros(kSectorSizeBytes));
    ASSERT_EQ(stream->getLength(), kSectorSizeBytes);

    unsigned char* sector = stream->getBuffer().getData();
    EXPECT_EQ(sector[0], 7);
    EXPECT_EQ(sector[12], 2);
    long long value = -1;
    EXPECT_TRUE(isVMDKMarker(sector, VMDKMarkerGrainDirectory, &value));
    EXPECT_EQ(value, 7);
    EXPECT_FALSE(isVMDKMarker(sector, VMDKMarkerGrainTable, &value));
    EXPECT_EQ(value, 0);
    EXPECT_TRUE(isVMDKMarker(sector, VMDKMarkerGrainDirectory, nullptr));

    // One stray byte in the size word or anywhere in the fill makes it no marker.
    for (int offset : {kMarkerSizeOffsetBytes, kMarkerFillOffsetBytes, kSectorSizeBytes - 1}) {
        sector[offset] = 1;
        EXPECT_FALSE(isVMDKMarker(sector, VMDKMarkerGrainDirectory, &value)) << offset;
        EXPECT_EQ(value, 0);
        sector[offset] = 0;
    }

    const kz::TBuffer<unsigned char> allZero = zeros(kSectorSizeBytes);
    value = -1;
    EXPECT_TRUE(isVMDKMarker(allZero.getData(), VMDKMarkerEndOfStream, &value));
    EXPECT_EQ(value, 0);
}

TEST(VMDKMarkersTest, MarkerOfTheExtensionTypesAndNegativeValues) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    kz::CDataOutStream out(stream.get());
    writeVMDKMarker(out, VMDKMarkerSlotSizeDirectory, -2, zeros(600));
    long long value = 0;
    EXPECT_TRUE(isVMDKMarker(stream->getBuffer().getData(), VMDKMarkerSlotSizeDirectory, &value));
    EXPECT_EQ(value, -2);
    EXPECT_EQ(stream->getBuffer()[12], 0x02);
    EXPECT_EQ(stream->getBuffer()[15], 0x18);
    // The fill takes 496 bytes of the zero buffer; one byte less is refused.
    EXPECT_EQ(harltest::thrownText<kz::CInvalidArgError>(
                  [&] { writeVMDKMarker(out, VMDKMarkerFooter, 1, zeros(495)); }),
              "-1 harl::writeVMDKMarker: Zero buffer too small [size=495]");
    writeVMDKMarker(out, VMDKMarkerFooter, 1, zeros(496));
    EXPECT_TRUE(isVMDKMarker(stream->getBuffer().getData() + 512, VMDKMarkerFooter, nullptr));
}

TEST(VMDKMarkersTest, PaddingReusesTheBuffer) {
    kz::P<CWriteSizes> stream(new CWriteSizes);
    kz::TBuffer<unsigned char> pad = zeros(512);
    vmdkWritePadding(*stream, 1000, pad);
    EXPECT_EQ(stream->sizes, (std::vector<int>{512, 488}));
    vmdkWritePadding(*stream, 0, pad);
    vmdkWritePadding(*stream, -5, kz::TBuffer<unsigned char>());
    EXPECT_EQ(stream->getLength(), 1000);
    EXPECT_THROW(vmdkWritePadding(*stream, 1, kz::TBuffer<unsigned char>()), kz::CError);
}

TEST(VMDKMarkersTest, StreamPositionInSectors) {
    kz::P<kz::CBufferStream> stream(new kz::CBufferStream);
    EXPECT_EQ(getStreamPositionVMDKSectors(*stream), 0);
    stream->seek(1024);
    EXPECT_EQ(getStreamPositionVMDKSectors(*stream), 2);
    stream->seek(513);
    EXPECT_EQ(harltest::thrownText<kz::CError>([&] { getStreamPositionVMDKSectors(*stream); }),
              "-1 Internal error in harl::getStreamPositionVMDKSectors. Stream position should "
              "be a multiple of 512 but it is not. [uri=, position=513]");
}

}  // namespace
