#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKGrainTable.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/GrainMetadataLayout.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using harl::CVMDKGrainTable;
using harltest::thrownText;

constexpr int kGrains = 8;
constexpr long long kGrainSectors = 128;
// One sector each: the grain table, its redundant copy, the slot-size table.
constexpr long long kTable = 1, kRedundant = 2, kSlots = 3;

struct CVMDKGrainTableTest : ::testing::Test {
    CVMDKGrainTableTest() {
        stream->setLength(4 * 512);
        harltest::pokeUInt32(*stream, kTable * 512 + 4, 900);  // grain 1 at sector 900
        harltest::pokeUInt16(*stream, kSlots * 512, 5);        // beside grain 0, which is 0
        harltest::pokeUInt16(*stream, kSlots * 512 + 2, 3);
        stream->writes.clear();
    }

    kz::P<CVMDKGrainTable> open(bool tracking, int access = 3, long long redundant = kRedundant) {
        return new CVMDKGrainTable(stream.get(), kz::IIOStream::Access(access), kGrainSectors,
                                   kTable, redundant, tracking ? kSlots : 0, kGrains);
    }

    kz::P<harltest::CRecordingStream> stream{
        new harltest::CRecordingStream(kz::CURI("file:///x/a%20b.vmdk"))};
};

// The message of what setGrainInfo throws; a table that refuses has not changed.
kz::String refusal(kz::P<CVMDKGrainTable> table, long long index, long long pos, long long slot) {
    try {
        table->setGrainInfo(index, pos, slot);
    } catch (const kz::CError& error) {
        EXPECT_FALSE(table->hasUnflushedChanges());
        return error.getMessage();
    }
    return "none";
}

TEST_F(CVMDKGrainTableTest, ReadsEntriesWithinItsBounds) {
    long long pos = -1, slot = -1;
    kz::P<CVMDKGrainTable> tracked = open(true);
    tracked->getGrainInfo(0, pos, slot);
    EXPECT_EQ(slot, 0);  // the slot-size entry beside an unallocated grain says nothing
    tracked->getGrainInfo(1, pos, slot);
    EXPECT_EQ(pos, 900);
    EXPECT_EQ(slot, 3);
    tracked->getGrainInfo(kGrains - 1, pos, slot);
    for (long long bad : {-1LL, 8LL}) {
        EXPECT_EQ(thrownText<kz::CInvalidArgError>([&] { tracked->getGrainInfo(bad, pos, slot); }),
                  "-1 CVMDKGrainTable::getGrainInfo: Invalid grain index: " + std::to_string(bad) +
                      " [uri=file:///x/a b.vmdk]");
    }
    open(false)->getGrainInfo(1, pos, slot);
    EXPECT_EQ(slot, kGrainSectors);

    // A table behind the end of the file fails in the stream's own read; a writable one whose
    // redundant copy lies there, which a flush would write, is refused before it is read.
    EXPECT_THROW(CVMDKGrainTable(stream.get(), kz::IIOStream::AccessRead, 1, 4, 0, 0, 1),
                 kz::CIOError);
    EXPECT_EQ(thrownText<kz::CIOError>([&] {
                  CVMDKGrainTable(stream.get(), kz::IIOStream::AccessReadWrite, 1, kTable, 4, 0,
                                  kGrains);
              }),
              "5 VMDK redundant grain table lies beyond the end of the file (position: 4 "
              "sectors). [uri=file:///x/a b.vmdk]");
    EXPECT_NO_THROW(CVMDKGrainTable(stream.get(), kz::IIOStream::AccessRead, 1, kTable, 4, 0, 8));
    // Without a redundant copy a short table fails in its read.
    EXPECT_EQ(thrownText<kz::CIOError>([&] {
                  CVMDKGrainTable(stream.get(), kz::IIOStream::AccessReadWrite, 1, 0, 0, 0, 1024);
              })[0],
              '4');

    // A table holds 0 to kMaxGrainCount entries, whatever the caller asks for.
    stream->setLength(CVMDKGrainTable::kMaxGrainCount * 4);
    for (int count :
         {-1, 0, CVMDKGrainTable::kMaxGrainCount, CVMDKGrainTable::kMaxGrainCount + 1}) {
        const std::string thrown = thrownText<kz::CInvalidArgError>(
            [&] { CVMDKGrainTable(stream.get(), kz::IIOStream::AccessRead, 1, 0, 0, 0, count); });
        EXPECT_EQ(thrown, count == -1 || count > CVMDKGrainTable::kMaxGrainCount
                              ? "-1 CVMDKGrainTable constructor: Invalid grain count: " +
                                    std::to_string(count) + " [uri=file:///x/a b.vmdk]"
                              : "nothing thrown");
    }
}

TEST_F(CVMDKGrainTableTest, SetGrainInfoChecksInOrderBeforeAnyChange) {
    kz::P<CVMDKGrainTable> readOnly = open(false, 1);
    EXPECT_EQ(refusal(readOnly, kGrains, 7, 0), "Invalid grain index: 8");
    EXPECT_EQ(refusal(readOnly, 0, 7, 0),
              "Invalid grain slot size - it must equal the grain size (slot size: 0, grain "
              "size: 128)");
    EXPECT_EQ(refusal(readOnly, 0, 7, kGrainSectors),
              "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not "
              "opened for writing.");

    kz::P<CVMDKGrainTable> tracked = open(true);
    EXPECT_EQ(thrownText<kz::CInvalidArgError>([&] { tracked->setGrainInfo(2, 77, -1); }),
              "-1 CVMDKGrainTable::setGrainInfo: Invalid grain slot size. [uri=file:///x/a b.vmdk, "
              "slotSizeSectors=-1, grainSizeSectors=128, posSectors=77]");
    // Values too wide for their entries are refused, not cut.
    EXPECT_EQ(refusal(tracked, 2, 1LL << 32, 3), "Invalid grain position: 4294967296");
    EXPECT_EQ(refusal(tracked, 2, 77, 1 << 16),
              "Invalid grain slot size - it does not fit a slot-size table entry (slot size: "
              "65536)");
    EXPECT_EQ(refusal(tracked, 1, 900, 3), "none");  // the values it holds
    tracked->setGrainInfo(1, 0, 3);                  // a position of 0 frees the grain
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
    table = nullptr;
    ASSERT_EQ(log.messages(kz::LogLevel::Error).size(), 1u);
    EXPECT_NE(log.messages(kz::LogLevel::Error)[0].find("harl::CVMDKGrainTable"), kz::String::npos);
}

}  // namespace
