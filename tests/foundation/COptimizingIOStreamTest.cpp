#include "harl/foundation/kz/CBufferStream.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/COptimizingIOStream.h"

#include "tests/support/SampleData.h"
#include "tests/support/ThrownText.h"
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

namespace {

using harltest::Bytes;
using harltest::makeRandomData;
using kz::CBufferStream;
using kz::COptimizingIOStream;
using kz::P;

// A stream in memory that records the raw calls made on it and can refuse writes.
class CRecordingStream : public CBufferStream {
public:
    int readLax(void* data, int size) override {
        reads.push_back(size);
        lastReadTarget = data;
        return CBufferStream::readLax(data, size);
    }

    void write(const void* data, int size, kz::IWriteBarrier* barrier) override {
        if (failWrites) {
            throw kz::CFileSystemError(kz::CFileSystemError::NoSpace, kz::CError("Disk full"));
        }
        writes.push_back(size);
        lastWriteSource = data;
        CBufferStream::write(data, size, barrier);
    }

    void flush() override {
        ++flushes;
        CBufferStream::flush();
    }

    std::vector<int> reads;
    std::vector<int> writes;
    const void* lastReadTarget = nullptr;
    const void* lastWriteSource = nullptr;
    int flushes = 0;
    bool failWrites = false;
};

Bytes contentOf(CBufferStream& stream) {
    const auto& buffer = stream.getBuffer();
    return Bytes(buffer.getData(), buffer.getData() + buffer.getUsed());
}

// Sizes from 1 byte to 200 KiB, most of them small, as header, table and grain accesses are.
int randomSize(std::mt19937& random) {
    const unsigned kind = random() % 10;
    const int limit = kind < 7 ? 600 : kind < 9 ? 70000 : 204800;
    return 1 + static_cast<int>(random() % static_cast<unsigned>(limit));
}

TEST(COptimizingIOStreamTest, MatchesAnUnbufferedStreamOverASeededRandomMix) {
    for (const int bufferSize : {65536, 4096, 1000}) {
        SCOPED_TRACE(bufferSize);
        std::mt19937 random(1234 + bufferSize);
        P<CBufferStream> reference(new CBufferStream);
        P<CBufferStream> raw(new CBufferStream);
        P<COptimizingIOStream> buffered(new COptimizingIOStream(raw.get(), bufferSize));
        for (int step = 0; step < 4000; ++step) {
            const long long length = reference->getLength();
            // Accesses go on near the last one, near the end (appends, holes) or anywhere.
            const unsigned where = random() % 4;
            const long long near = where == 0 ? reference->getPosition() : length;
            const long long position =
                where < 2 ? std::max(0LL, near - 8 + static_cast<long long>(random() % 17))
                          : static_cast<long long>(random() % (length + 8192));
            reference->seek(position);
            buffered->seek(position);
            const unsigned op = random() % 20;
            if (op < 9) {
                const int size = randomSize(random);
                Bytes expected(size), actual(size);
                ASSERT_EQ(buffered->readLax(actual.data(), size),
                          reference->readLax(expected.data(), size))
                    << step;
                ASSERT_EQ(actual, expected) << step;
            } else if (op < 18) {
                const Bytes data = makeRandomData(randomSize(random), step);
                const int size = static_cast<int>(data.size());
                reference->write(data.data(), size, nullptr);
                buffered->write(data.data(), size, nullptr);
            } else if (op == 18) {
                buffered->flush();
                ASSERT_EQ(contentOf(*raw), contentOf(*reference)) << step;
            } else {
                const long long newLength = random() % (length + 1000);
                reference->setLength(newLength);
                buffered->setLength(newLength);
            }
            ASSERT_EQ(buffered->getPosition(), reference->getPosition()) << step;
            if (step % 7 == 0) {
                ASSERT_EQ(buffered->getLength(), reference->getLength()) << step;
                ASSERT_EQ(buffered->isEndOfStream(), reference->isEndOfStream()) << step;
            }
        }
        buffered->close();
        EXPECT_EQ(contentOf(*raw), contentOf(*reference));
    }
}

TEST(COptimizingIOStreamTest, GathersSmallAccessesAndPassesLargeOnesThrough) {
    const int grain = COptimizingIOStream::kDefaultBufferSizeBytes;
    P<CRecordingStream> raw(new CRecordingStream);
    P<COptimizingIOStream> stream(new COptimizingIOStream(raw.get()));

    const Bytes sector = makeRandomData(512, 1);
    for (int i = 0; i < grain / 512; ++i) {
        stream->write(sector.data(), 512, nullptr);
    }
    EXPECT_TRUE(raw->writes.empty());
    const Bytes data = makeRandomData(3 * grain, 2);
    stream->write(data.data(), grain, nullptr);
    EXPECT_EQ(raw->writes, std::vector<int>{grain});
    EXPECT_EQ(raw->lastWriteSource, data.data());  // no copy on the way
    EXPECT_EQ(stream->getLength(), 2 * grain);
    stream->flush();
    EXPECT_EQ(raw->writes, (std::vector<int>{grain, grain}));
    EXPECT_EQ(raw->flushes, 1);
    stream->close();
    EXPECT_EQ(raw->flushes, 1);  // nothing changed since the flush

    // Headers and tables: many small reads, one raw read.
    const P<CRecordingStream> written = raw;
    raw = new CRecordingStream;
    raw->getBuffer() = written->getBuffer();
    stream = new COptimizingIOStream(raw.get());
    Bytes small(100);
    for (int i = 0; i < 50; ++i) {
        stream->seek(i * 700);
        stream->read(small.data(), 100);
    }
    EXPECT_EQ(raw->reads, std::vector<int>{grain});
    Bytes large(2 * grain);
    stream->seek(grain);
    EXPECT_EQ(stream->readLax(large.data(), 2 * grain), grain);
    EXPECT_EQ(raw->reads, (std::vector<int>{grain, 2 * grain}));
    EXPECT_EQ(raw->lastReadTarget, large.data());

    // A buffered write past the end makes a hole that a large read must see as zeros.
    stream->seek(10 * grain);
    stream->write(sector.data(), 10, nullptr);
    stream->seek(grain);
    EXPECT_EQ(stream->readLax(large.data(), 2 * grain), 2 * grain);
    EXPECT_EQ(large[2 * grain - 1], 0);

    // A large write over buffered unwritten bytes writes them first, then itself over them.
    stream->seek(10);
    stream->write(sector.data(), 100, nullptr);
    stream->seek(0);
    stream->write(data.data(), 2 * grain, nullptr);
    stream->setLength(2 * grain);
    stream->close();
    EXPECT_EQ(raw->flushes, 1);
    EXPECT_EQ(contentOf(*raw), Bytes(data.begin(), data.begin() + 2 * grain));
    EXPECT_THROW(raw->getLength(), kz::CIOError);  // closed with the buffered stream
}

TEST(COptimizingIOStreamTest, FailedWriteBackStaysDirtyAndErrorsPassThrough) {
    P<CRecordingStream> raw(new CRecordingStream);
    P<COptimizingIOStream> stream(new COptimizingIOStream(raw.get()));
    const Bytes data = makeRandomData(70000, 3);
    raw->failWrites = true;
    stream->write(data.data(), 100, nullptr);
    EXPECT_EQ(harltest::thrownText<kz::CFileSystemError>([&] { stream->flush(); }),
              "-1 File system error 4: Disk full");
    EXPECT_EQ(raw->flushes, 0);
    EXPECT_THROW(stream->write(data.data(), 70000, nullptr), kz::CFileSystemError);
    EXPECT_EQ(stream->getPosition(), 100);
    EXPECT_THROW(stream->close(), kz::CFileSystemError);
    EXPECT_EQ(raw->getLength(), 0);  // still open

    // The buffered view still holds the write, and the next flush delivers it.
    Bytes back(100);
    stream->seek(0);
    stream->read(back.data(), 100);
    EXPECT_EQ(back, Bytes(data.begin(), data.begin() + 100));
    raw->failWrites = false;
    stream->close();
    EXPECT_EQ(contentOf(*raw), back);
    EXPECT_THROW(stream->read(back.data(), 1), kz::CIOError);
    EXPECT_THROW(stream->write(back.data(), 1, nullptr), kz::CIOError);
    EXPECT_THROW(stream->waitReadable(0), kz::CIOError);

    // A stream dropped without close still writes back what it buffered.
    P<CRecordingStream> second(new CRecordingStream);
    P<COptimizingIOStream>(new COptimizingIOStream(second.get()))->write(data.data(), 10, nullptr);
    EXPECT_EQ(contentOf(*second), Bytes(data.begin(), data.begin() + 10));
}

}  // namespace
