// One suite over every file system: the host's and the one in memory must behave alike.
#include "foundation/kz/IFileSystem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "foundation/kz/CFileSystemError.h"
#include "foundation/kz/CIOError.h"
#include "foundation/kz/CInvalidArgError.h"
#include "foundation/kz/CLocalFileSystem.h"
#include "foundation/kz/CMemoryFileSystem.h"
#include "tests/support/CScratchFolder.h"

namespace {

using kz::CFileSystemError;
using kz::CIOError;
using kz::IIOStream;
using kz::P;

struct CLocal {
    harltest::CScratchFolder folder;
    P<kz::IFileSystem> fileSystem{new kz::CLocalFileSystem};

    kz::CURI uriOf(const std::string& name) const { return folder.uriOf(name); }
};

struct CMemory {
    P<kz::IFileSystem> fileSystem{new kz::CMemoryFileSystem};

    kz::CURI uriOf(const std::string& name) const { return kz::CURI("mem:///t/" + name); }
};

template <class Kind>
class IFileSystemTest : public ::testing::Test {
protected:
    P<IIOStream> open(const std::string& name, IIOStream::Access access) {
        return kind.fileSystem->open(kind.uriOf(name), access, 0);
    }

    void writeText(IIOStream* stream, const std::string& text) {
        stream->write(text.data(), static_cast<int>(text.size()), nullptr);
    }

    std::string readText(IIOStream* stream, int size) {
        std::string text(static_cast<size_t>(size), '?');
        text.resize(static_cast<size_t>(stream->readLax(text.data(), size)));
        return text;
    }

    template <class F>
    CFileSystemError::Problem problemOf(F call) {
        try {
            call();
        } catch (const CFileSystemError& error) {
            EXPECT_EQ(error.getProps().get("uri"), kind.uriOf("a").toString(true));
            return error.getProblem();
        }
        ADD_FAILURE() << "no CFileSystemError";
        return CFileSystemError::Other;
    }

    template <class F>
    int ioCodeOf(F call) {
        try {
            call();
        } catch (const CIOError& error) {
            return error.getCode();
        }
        return 0;
    }

    Kind kind;
    kz::IFileSystem& fs = *kind.fileSystem;
};

using Kinds = ::testing::Types<CLocal, CMemory>;
TYPED_TEST_SUITE(IFileSystemTest, Kinds);

TYPED_TEST(IFileSystemTest, OpensMissingFilesOnlyForWriting) {
    const kz::CURI uri = this->kind.uriOf("a");
    EXPECT_FALSE(this->fs.exists(uri));
    EXPECT_EQ(this->problemOf([&] { this->open("a", IIOStream::AccessRead); }),
              CFileSystemError::NotFound);
    EXPECT_FALSE(this->fs.exists(uri));

    P<IIOStream> created = this->open("a", IIOStream::AccessReadWrite);
    EXPECT_TRUE(this->fs.exists(uri));
    EXPECT_EQ(created->getLength(), 0);
    EXPECT_EQ(created->getPosition(), 0);
    EXPECT_EQ(created->getURI(), uri);
    this->writeText(created.get(), "kept");
    created->close();

    // Opening again for writing keeps the content.
    P<IIOStream> reopened = this->open("a", IIOStream::AccessReadWrite);
    EXPECT_EQ(this->readText(reopened.get(), 10), "kept");
    EXPECT_THROW(this->fs.open(uri, IIOStream::AccessRead, 1), kz::CInvalidArgError);
}

TYPED_TEST(IFileSystemTest, ReadsWritesSeeksAndSetsLength) {
    P<IIOStream> stream = this->open("a", IIOStream::AccessReadWrite);
    this->writeText(stream.get(), "0123456789");
    EXPECT_EQ(stream->getPosition(), 10);
    stream->seek(20);
    this->writeText(stream.get(), "xy");
    EXPECT_EQ(stream->getLength(), 22);

    // A write behind the end leaves a hole of zeros.
    stream->seek(8);
    EXPECT_EQ(this->readText(stream.get(), 100), std::string("89") + std::string(10, '\0') + "xy");
    EXPECT_TRUE(stream->isEndOfStream());

    stream->seek(5);
    stream->setLength(7);
    EXPECT_EQ(stream->getPosition(), 5);
    EXPECT_EQ(this->readText(stream.get(), 100), "56");
    stream->setLength(9);
    stream->seek(5);
    EXPECT_EQ(this->readText(stream.get(), 100), std::string("56") + std::string(2, '\0'));
    stream->flush();

    // read() wants every byte; readLax takes what is there.
    char bytes[8];
    stream->seek(6);
    EXPECT_EQ(this->ioCodeOf([&] { stream->read(bytes, 4); }), CIOError::EndOfData);
    stream->seek(100);
    EXPECT_EQ(stream->readLax(bytes, 4), 0);
    EXPECT_EQ(this->ioCodeOf([&] { stream->seek(-1); }), CIOError::BadSeek);
    EXPECT_THROW(stream->setLength(-1), kz::CInvalidArgError);
    EXPECT_THROW(stream->read(bytes, -1), kz::CInvalidArgError);
}

TYPED_TEST(IFileSystemTest, ReadOnlyAndClosedStreamsRefuse) {
    this->writeText(this->open("a", IIOStream::AccessReadWrite).get(), "abc");
    P<IIOStream> reader = this->open("a", IIOStream::AccessRead);
    EXPECT_EQ(this->problemOf([&] { this->writeText(reader.get(), "x"); }),
              CFileSystemError::AccessDenied);
    EXPECT_EQ(this->problemOf([&] { reader->setLength(0); }), CFileSystemError::AccessDenied);
    EXPECT_EQ(this->problemOf([&] { reader->lockRange(0, 1, kz::IStreamBase::LockExclusive); }),
              CFileSystemError::AccessDenied);
    reader->flush();
    EXPECT_EQ(this->readText(reader.get(), 10), "abc");

    reader->close();
    reader->close();
    char byte;
    EXPECT_EQ(this->ioCodeOf([&] { reader->readLax(&byte, 1); }), CIOError::StreamClosed);
    EXPECT_EQ(this->ioCodeOf([&] { reader->getLength(); }), CIOError::StreamClosed);
    EXPECT_EQ(this->ioCodeOf([&] { reader->seek(0); }), CIOError::StreamClosed);
}

TYPED_TEST(IFileSystemTest, TwoStreamsShareBytesAndConflictInLocks) {
    using kz::IStreamBase;
    P<IIOStream> a = this->open("a", IIOStream::AccessReadWrite);
    P<IIOStream> b = this->open("a", IIOStream::AccessReadWrite);
    this->writeText(a.get(), "hello");
    EXPECT_EQ(b->getLength(), 5);
    EXPECT_EQ(this->readText(b.get(), 5), "hello");
    EXPECT_EQ(a->getPosition(), 5);

    EXPECT_TRUE(a->lockRange(0, 1, IStreamBase::LockShared));
    EXPECT_TRUE(b->lockRange(0, 1, IStreamBase::LockShared));
    EXPECT_FALSE(b->lockRange(0, 1, IStreamBase::LockExclusive));
    EXPECT_TRUE(b->lockRange(1, 10, IStreamBase::LockExclusive));  // beside a's range
    EXPECT_FALSE(a->lockRange(0, 0, IStreamBase::LockExclusive));  // 0: to any end
    EXPECT_TRUE(a->lockRange(0, 1, IStreamBase::Unlock));
    EXPECT_TRUE(b->lockRange(0, 1, IStreamBase::LockExclusive));
    EXPECT_FALSE(a->lockRange(0, 1, IStreamBase::LockShared));
    b->close();  // close releases b's locks
    EXPECT_TRUE(a->lockRange(0, 100, IStreamBase::LockExclusive));
    EXPECT_THROW(a->lockRange(-1, 1, IStreamBase::LockShared), kz::CInvalidArgError);
}

TYPED_TEST(IFileSystemTest, DeletesFiles) {
    const kz::CURI uri = this->kind.uriOf("a");
    EXPECT_EQ(this->problemOf([&] { this->fs.deleteFile(uri, false); }),
              CFileSystemError::NotFound);
    this->fs.deleteFile(uri, true);

    P<IIOStream> stream = this->open("a", IIOStream::AccessReadWrite);
    this->writeText(stream.get(), "still here");
    this->fs.deleteFile(uri, false);
    EXPECT_FALSE(this->fs.exists(uri));
    // An open stream keeps the file that lost its name.
    stream->seek(0);
    EXPECT_EQ(this->readText(stream.get(), 100), "still here");
    EXPECT_EQ(this->open("a", IIOStream::AccessReadWrite)->getLength(), 0);
}

}  // namespace
