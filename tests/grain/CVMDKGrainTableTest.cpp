#include "foundation/kz/CError.h"
#include "foundation/kz/CIOError.h"
#include "foundation/kz/CInvalidArgError.h"
#include "grain/CVMDKGrainTable.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/GrainMetadataLayout.h"
#include <gtest/gtest.h>

#include <vector>

namespace {

using harl::CVMDKGrainTable;
using harltest::CRecordingStream;
using Write = CRecordingStream::CWrite;

constexpr int kGrains = 8;
constexpr long long kGrainSectors = 128;
// One sector each: the grain table, its redundant copy, the slot-size table.
constexpr long long kTableSector = 1, kRedundantSector = 2, kSlotSector = 3;

struct CVMDKGrainTableTest : ::testing::Test {
    CVMDKGrainTableTest() {
        stream->setLength(4 * 512);
        harltest::pokeUInt32(*stream, kTableSector * 512 + 4, 900);  // grain 1 at sector 900
        harltest::pokeUInt16(*stream, kSlotSector * 512, 5);         // beside grain 0, which is 0
        harltest::pokeUInt16(*stream, kSlotSector * 512 + 2, 3);
        stream->writes.clear();
    }

    kz::P<CVMDKGrainTable> open(bool tracking,
                                kz::IIOStream::Access access = kz::IIOStream::AccessReadWrite,
                                long long redundant = kRedundantSector) {
        return new CVMDKGrainTable(stream.get(), access, kGrainSectors, kTableSector, redundant,
                                   tracking ? kSlotSector : 0, kGrains);
    }

    kz::P<CRecordingStream> stream{new CRecordingStream(kz::CURI("file:///x/a.vmdk"))};
};

TEST_F(CVMDKGrainTableTest, ReadsEntriesWithinItsBounds) {
    long long pos = -1, slot = -1;
    kz::P<CVMDKGrainTable> tracked = open(true);
    EXPECT_TRUE(tracked->getSlotSizeTrackingEnabled());
    tracked->getGrainInfo(0, pos, slot);
    EXPECT_EQ(pos, 0);
    EXPECT_EQ(slot, 0);  // the slot-size entry beside an unallocated grain says nothing
    tracked->getGrainInfo(1, pos, slot);
    EXPECT_EQ(pos, 900);
    EXPECT_EQ(slot, 3);
    tracked->getGrainInfo(kGrains - 1, pos, slot);
    for (long long bad : {-1LL, static_cast<long long>(kGrains)}) {
        try {
            tracked->getGrainInfo(bad, pos, slot);
            FAIL() << bad;
        } catch (const kz::CInvalidArgError& error) {
            EXPECT_EQ(error.getWhere(), "CVMDKGrainTable::getGrainInfo");
            EXPECT_EQ(error.getMessage(), "Invalid grain index: " + kz::String::number(bad));
            EXPECT_EQ(error.getProps().toString(), "uri=file:///x/a.vmdk");
        }
    }
    kz::P<CVMDKGrainTable> plain = open(false);
    EXPECT_FALSE(plain->getSlotSizeTrackingEnabled());
    plain->getGrainInfo(1, pos, slot);
    EXPECT_EQ(slot, kGrainSectors);

    // A table behind the end of the file fails in the stream's read.
    try {
        CVMDKGrainTable(stream.get(), kz::IIOStream::AccessRead, kGrainSectors, 4, 0, 0, 1);
        FAIL();
    } catch (const kz::CIOError& error) {
        EXPECT_EQ(error.getCode(), kz::CIOError::EndOfData);
    }
    EXPECT_THROW(CVMDKGrainTable(stream.get(), kz::IIOStream::AccessRead, kGrainSectors, 1, 0, 0,
                                 CVMDKGrainTable::kMaxGrainCount + 1),
                 kz::CInvalidArgError);
}

TEST_F(CVMDKGrainTableTest, SetGrainInfoChecksInOrderBeforeAnyChange) {
    auto messageOf = [](kz::P<CVMDKGrainTable> table, long long index, long long pos,
                        long long slot) -> kz::String {
        try {
            table->setGrainInfo(index, pos, slot);
        } catch (const kz::CError& error) {
            EXPECT_FALSE(table->hasUnflushedChanges());
            return error.getMessage();
        }
        return "no error";
    };
    const kz::String mustEqual = "Invalid grain slot size - it must equal the grain size";
    kz::P<CVMDKGrainTable> readOnlyPlain = open(false, kz::IIOStream::AccessRead);
    EXPECT_EQ(messageOf(readOnlyPlain, kGrains, 7, 0), "Invalid grain index: 8");
    EXPECT_EQ(messageOf(readOnlyPlain, 0, 7, 0),
              mustEqual + " (slot size: 0, grain size: 128)");  // before the access check too
    EXPECT_EQ(messageOf(readOnlyPlain, 0, 7, kGrainSectors),
              "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not "
              "opened for writing.");

    kz::P<CVMDKGrainTable> tracked = open(true);
    try {
        tracked->setGrainInfo(2, 77, -1);
        FAIL();
    } catch (const kz::CInvalidArgError& error) {
        EXPECT_EQ(error.getMessage(), "Invalid grain slot size.");
        EXPECT_EQ(error.getProps().toString(),
                  "uri=file:///x/a.vmdk, slotSizeSectors=-1, grainSizeSectors=128, posSectors=77");
    }
    EXPECT_EQ(messageOf(tracked, 2, 1LL << 32, 3), "Invalid grain position: 4294967296");
    EXPECT_EQ(messageOf(tracked, 2, 77, 1 << 16),
              "Invalid grain slot size - it does not fit a slot-size table entry (slot size: "
              "65536)");
    EXPECT_EQ(messageOf(tracked, 1, 900, 3), "no error");  // the values it holds
    EXPECT_EQ(messageOf(tracked, 2, 0xffffffffLL, 0xffff), "no error");
    EXPECT_TRUE(tracked->hasUnflushedChanges());
}

TEST_F(CVMDKGrainTableTest, FlushWritesOnlyWhatIsDirtyInOrder) {
    kz::P<CVMDKGrainTable> table = open(true);
    table->setGrainInfo(1, 900, 4);  // the slot length alone
    table->flushChangesToStream();
    EXPECT_EQ(stream->writes, (std::vector<Write>{{kSlotSector * 512, kGrains * 2}}));

    stream->writes.clear();
    table->setGrainInfo(3, 1000, 6);
    table->flushChangesToStream();
    EXPECT_EQ(stream->writes, (std::vector<Write>{{kTableSector * 512, kGrains * 4},
                                                  {kRedundantSector * 512, kGrains * 4},
                                                  {kSlotSector * 512, kGrains * 2}}));
    EXPECT_FALSE(table->hasUnflushedChanges());
    const kz::TBuffer<unsigned char>& file = stream->getBuffer();
    EXPECT_EQ(file[kRedundantSector * 512 + 12], 1000 & 0xff);
    EXPECT_EQ(file[kRedundantSector * 512 + 4], 900 & 0xff);  // written from memory, not copied
    EXPECT_EQ(file[kSlotSector * 512 + 6], 6);

    // A clean flush touches neither the file nor the position.
    stream->writes.clear();
    stream->seek(17);
    table->flushChangesToStream();
    EXPECT_TRUE(stream->writes.empty());
    EXPECT_EQ(stream->getPosition(), 17);

    kz::P<CVMDKGrainTable> single = open(false, kz::IIOStream::AccessReadWrite, 0);
    single->setGrainInfo(0, 5, kGrainSectors);
    single->flushChangesToStream();
    EXPECT_EQ(stream->writes, (std::vector<Write>{{kTableSector * 512, kGrains * 4}}));
}

TEST_F(CVMDKGrainTableTest, FailedWritesStayDirtyAndTheDestructorSwallowsThem) {
    kz::P<CVMDKGrainTable> table = open(true);
    table->setGrainInfo(0, 50, 2);
    stream->failWritesFrom(1);  // the redundant copy fails
    EXPECT_THROW(table->flushChangesToStream(), kz::CIOError);
    EXPECT_TRUE(table->hasUnflushedChanges());
    stream->failWritesFrom(-1);
    stream->writes.clear();
    table->flushChangesToStream();  // everything under both flags again
    EXPECT_EQ(stream->writes.size(), 3u);

    table->setGrainInfo(0, 60, 2);
    stream->failWritesFrom(0);
    harltest::CLogCapture log;
    table = nullptr;  // the destructor's flush fails, and the error stops there
    ASSERT_EQ(log.messages(kz::LogLevel::Error).size(), 1u);
    EXPECT_NE(log.messages(kz::LogLevel::Error)[0].find("harl::CVMDKGrainTable"), kz::String::npos);

    stream->failWritesFrom(-1);
    open(false)->setGrainInfo(2, 70, kGrainSectors);  // a dropped dirty table writes itself
    EXPECT_EQ(stream->getBuffer()[kTableSector * 512 + 8], 70);
}

}  // namespace
