#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/grain/CVMDKGrainTable.h"

#include "tests/support/CLogCapture.h"
#include "tests/support/CRecordingStream.h"
#include "tests/support/GrainMetadataLayout.h"
#include <gtest/gtest.h>

#include <tuple>

namespace {

using harl::CVMDKGrainTable;

constexpr int kGrains = 8;
constexpr long long kGrainSectors = 128;
// One sector each: the grain table, its redundant copy, the slot-size table.
constexpr long long kTable = 1, kRedundant = 2, kSlots = 3;

struct CVMDKGrainTableTest : ::testing::Test {
    CVMDKGrainTableTest() { stream->setLength(4 * 512); }

    kz::P<CVMDKGrainTable> open(kz::IIOStream::Access access, long long redundant = kRedundant,
                                int grains = kGrains) {
        return new CVMDKGrainTable(stream.get(), access, kGrainSectors, kTable, redundant, kSlots,
                                   grains);
    }

    kz::P<harltest::CRecordingStream> stream{new harltest::CRecordingStream};
};

// Indexes, counts and values out of range are refused, in this order, before any change; a
// writable table whose redundant copy lies behind the end of the file, where a flush would
// write, is refused before it is read. Changes whose write failed stay dirty.
TEST_F(CVMDKGrainTableTest, RefusesWhatItCannotHoldAndKeepsWhatItCouldNotWrite) {
    long long pos = -1, slot = -1;
    harltest::pokeUInt16(*stream, kSlots * 512, 5);
    kz::P<CVMDKGrainTable> readOnly = open(kz::IIOStream::AccessRead, 4);
    readOnly->getGrainInfo(0, pos, slot);
    EXPECT_EQ(slot, 0);  // the slot-size entry beside an unallocated grain says nothing
    EXPECT_THROW(readOnly->getGrainInfo(-1, pos, slot), kz::CInvalidArgError);
    kz::P<CVMDKGrainTable> writable = open(kz::IIOStream::AccessReadWrite);
    for (const auto& [table, index, posSectors, slotSectors, message] :
         {std::tuple{readOnly, kGrains, 7LL, 0LL, "Invalid grain index: 8"},
          {readOnly, 0, 7, kGrainSectors,
           "Internal error: CVMDKGrainTable::setGrainInfo was called, but the table was not "
           "opened for writing."},
          {writable, 2, 1LL << 32, 3, "Invalid grain position: 4294967296"},
          {writable, 2, 77, 1 << 16,
           "Invalid grain slot size - it does not fit a slot-size table entry (slot size: "
           "65536)"}}) {
        try {
            table->setGrainInfo(index, posSectors, slotSectors);
            ADD_FAILURE() << message;
        } catch (const kz::CError& error) {
            EXPECT_EQ(error.getMessage(), message);
            EXPECT_FALSE(table->hasUnflushedChanges());
        }
    }
    EXPECT_THROW(open(kz::IIOStream::AccessReadWrite, 4), kz::CIOError);

    // A table holds 0 to kMaxGrainCount entries, whatever the caller asks for.
    stream->setLength(CVMDKGrainTable::kMaxGrainCount * 4 + 4 * 512);
    for (int count : {-1, CVMDKGrainTable::kMaxGrainCount + 1}) {
        EXPECT_THROW(open(kz::IIOStream::AccessRead, 0, count), kz::CInvalidArgError);
    }
    EXPECT_NO_THROW(open(kz::IIOStream::AccessRead, 0, 0));
    EXPECT_NO_THROW(open(kz::IIOStream::AccessRead, 0, CVMDKGrainTable::kMaxGrainCount));

    kz::P<CVMDKGrainTable> table = open(kz::IIOStream::AccessReadWrite);
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
