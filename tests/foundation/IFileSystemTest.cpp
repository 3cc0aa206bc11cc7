// One suite over every file system: the host's and the one in memory must behave alike.
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/CLocalFileSystem.h"
#include "harl/foundation/kz/CMemoryFileSystem.h"
#include "harl/foundation/kz/IFileSystem.h"

#include "tests/support/CScratchFolder.h"
#include <gtest/gtest.h>

#include <string>

namespace {

using kz::CFileSystemError;
using kz::CIOError;
using kz::IIOStream;
using kz::IStreamBase;
using kz::P;

struct CLocal {
    harltest::CScratchFolder folder;
    P<kz::IFileSystem> fs{new kz::CLocalFileSystem};
    kz::CURI uri = folder.uriOf("a%20b");
};

struct CMemory {
    P<kz::IFileSystem> fs{new kz::CMemoryFileSystem};
    kz::CURI uri{"mem:///t/a%20b"};
};

// The problem of a CFileSystemError or the code of a CIOError that `call` throws; -1 when
// nothing is thrown. A CFileSystemError must name the file, and any error that names it must
// name it readably.
template <class F>
int failureOf(F call, const kz::CURI& uri) {
    try {
        call();
    } catch (const CFileSystemError& error) {
        EXPECT_EQ(error.getProps().get("uri"), uri.toString(true));
        return error.getProblem();
    } catch (const CIOError& error) {
        EXPECT_EQ(error.getProps().get("uri"),
                  error.getProps().has("uri") ? uri.toString(true) : "");
        return error.getCode();
    }
    return -1;
}

std::string readText(IIOStream& stream, int size) {
    std::string text(static_cast<size_t>(size), '?');
    text.resize(static_cast<size_t>(stream.readLax(text.data(), size)));
    return text;
}

template <class Kind>
class IFileSystemTest : public ::testing::Test {
protected:
    P<IIOStream> open(IIOStream::Access access) { return k.fs->open(k.uri, access, 0); }

    Kind k;
};

using Kinds = ::testing::Types<CLocal, CMemory>;
TYPED_TEST_SUITE(IFileSystemTest, Kinds);

TYPED_TEST(IFileSystemTest, OpensMissingFilesOnlyForWriting) {
    auto& k = this->k;
    EXPECT_EQ(failureOf([&] { this->open(IIOStream::AccessRead); }, k.uri),
              CFileSystemError::NotFound);
    EXPECT_FALSE(k.fs->exists(k.uri));
    P<IIOStream> created = this->open(IIOStream::AccessReadWrite);
    EXPECT_TRUE(k.fs->exists(k.uri));
    EXPECT_EQ(created->getLength(), 0);
    EXPECT_EQ(created->getURI(), k.uri);
    created->write("kept", 4, nullptr);
    created->close();
    EXPECT_EQ(readText(*this->open(IIOStream::AccessReadWrite), 10), "kept");
    EXPECT_THROW(k.fs->open(k.uri, IIOStream::AccessRead, 1), kz::CInvalidArgError);
}

TYPED_TEST(IFileSystemTest, ReadsWritesSeeksAndSetsLength) {
    P<IIOStream> stream = this->open(IIOStream::AccessReadWrite);
    stream->write("0123456789", 10, nullptr);
    EXPECT_EQ(stream->getPosition(), 10);
    stream->seek(20);
    stream->write("xy", 2, nullptr);
    EXPECT_EQ(stream->getLength(), 22);
    stream->seek(8);  // the hole behind the old end reads as zeros
    EXPECT_EQ(readText(*stream, 100), std::string("89") + std::string(10, '\0') + "xy");
    EXPECT_TRUE(stream->isEndOfStream());

    stream->seek(5);
    stream->setLength(7);
    EXPECT_EQ(stream->getPosition(), 5);
    EXPECT_EQ(readText(*stream, 100), "56");
    stream->setLength(9);
    stream->seek(5);
    EXPECT_EQ(readText(*stream, 100), std::string("56") + std::string(2, '\0'));
    stream->flush();

    char bytes[8];
    stream->seek(6);
    EXPECT_EQ(failureOf([&] { stream->read(bytes, 4); }, this->k.uri), CIOError::EndOfData);
    stream->seek(100);
    EXPECT_EQ(stream->readLax(bytes, 4), 0);
    EXPECT_EQ(failureOf([&] { stream->seek(-1); }, this->k.uri), CIOError::BadSeek);
    EXPECT_THROW(stream->setLength(-1), kz::CInvalidArgError);
    EXPECT_THROW(stream->write("x", -1, nullptr), kz::CInvalidArgError);
    stream->setLength(0);
    EXPECT_EQ(stream->getLength(), 0);
    EXPECT_THROW(stream->lockRange(-1, 1, IStreamBase::LockShared), kz::CInvalidArgError);
}

TYPED_TEST(IFileSystemTest, ReadOnlyAndClosedStreamsRefuse) {
    const kz::CURI& uri = this->k.uri;
    this->open(IIOStream::AccessReadWrite)->write("abc", 3, nullptr);
    P<IIOStream> reader = this->open(IIOStream::AccessRead);
    const int denied = CFileSystemError::AccessDenied;
    EXPECT_EQ(failureOf([&] { reader->write("x", 1, nullptr); }, uri), denied);
    EXPECT_EQ(failureOf([&] { reader->setLength(0); }, uri), denied);
    EXPECT_EQ(failureOf([&] { reader->lockRange(0, 1, IStreamBase::LockExclusive); }, uri), denied);
    reader->flush();
    EXPECT_EQ(readText(*reader, 10), "abc");
    reader->close();
    reader->close();
    EXPECT_EQ(failureOf([&] { readText(*reader, 1); }, uri), CIOError::StreamClosed);
    EXPECT_EQ(failureOf([&] { reader->getLength(); }, uri), CIOError::StreamClosed);
}

TYPED_TEST(IFileSystemTest, TwoStreamsShareBytesAndConflictInLocks) {
    P<IIOStream> a = this->open(IIOStream::AccessReadWrite);
    P<IIOStream> b = this->open(IIOStream::AccessReadWrite);
    a->write("hello", 5, nullptr);
    EXPECT_EQ(readText(*b, 10), "hello");
    EXPECT_EQ(a->getPosition(), 5);

    EXPECT_TRUE(a->lockRange(0, 1, IStreamBase::LockShared));
    EXPECT_TRUE(b->lockRange(0, 1, IStreamBase::LockShared));
    EXPECT_FALSE(b->lockRange(0, 1, IStreamBase::LockExclusive));
    EXPECT_TRUE(b->lockRange(1, 10, IStreamBase::LockExclusive));  // beside a's range
    EXPECT_FALSE(a->lockRange(0, 0, IStreamBase::LockExclusive));  // 0: to any end
    EXPECT_TRUE(a->lockRange(0, 1, IStreamBase::Unlock));
    EXPECT_TRUE(b->lockRange(0, 1, IStreamBase::LockExclusive));
    EXPECT_FALSE(a->lockRange(0, 1, IStreamBase::LockShared));
    b->close();
    EXPECT_TRUE(a->lockRange(0, 100, IStreamBase::LockExclusive));
}

TYPED_TEST(IFileSystemTest, DeletesFilesAndOpenStreamsKeepThem) {
    auto& k = this->k;
    EXPECT_EQ(failureOf([&] { k.fs->deleteFile(k.uri, false); }, k.uri),
              CFileSystemError::NotFound);
    k.fs->deleteFile(k.uri, true);
    P<IIOStream> stream = this->open(IIOStream::AccessReadWrite);
    stream->write("still here", 10, nullptr);
    k.fs->deleteFile(k.uri, false);
    EXPECT_FALSE(k.fs->exists(k.uri));
    stream->seek(0);
    EXPECT_EQ(readText(*stream, 100), "still here");
    EXPECT_EQ(this->open(IIOStream::AccessReadWrite)->getLength(), 0);
}

}  // namespace
