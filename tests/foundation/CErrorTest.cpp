#include "harl/foundation/kz/CError.h"
#include "harl/foundation/kz/CFileSystemError.h"
#include "harl/foundation/kz/CIOError.h"
#include "harl/foundation/kz/CInvalidArgError.h"
#include "harl/foundation/kz/Log.h"

#include "tests/support/CLogCapture.h"
#include <gtest/gtest.h>

namespace {

TEST(CErrorTest, WhatShowsMessageDetailPropertiesInOrderAndCause) {
    const kz::CIOError cause(kz::CIOError::EndOfData, "Unexpected end of data",
                             kz::CProps().add("uri", "file:///a.vmdk"));
    const kz::CError error("Reading failed", "table 3", 7,
                           kz::CProps().add("zeta", "1").add("alpha", 2LL),
                           std::make_exception_ptr(cause));
    EXPECT_STREQ(error.what(),
                 "Reading failed (table 3) [zeta=1, alpha=2] <- caused by: Unexpected end of "
                 "data [uri=file:///a.vmdk]");
    EXPECT_EQ(error.getCode(), 7);
    EXPECT_EQ(error.getProps().getKey(0), "zeta");
    EXPECT_EQ(error.getProps().getKey(1), "alpha");
    // Look-ups by key find any place; a missing key is empty.
    EXPECT_EQ(error.getProps().get("alpha") + error.getProps().get("beta"), "2");
    EXPECT_TRUE(error.getProps().has("alpha") && !error.getProps().has("beta"));
    EXPECT_EQ(cause.getCode(), 4);

    const kz::CError bare("Internal error: x");
    EXPECT_STREQ(bare.what(), "Internal error: x");
    EXPECT_EQ(bare.getCode(), -1);
    EXPECT_TRUE(bare.getDetail().isEmpty());
}

TEST(CErrorTest, SubclassesKeepTheirParts) {
    const kz::CInvalidArgError invalid("CVMDKGrain::seek", "Invalid seek position",
                                       kz::CProps().add("position", 5LL));
    EXPECT_EQ(invalid.getWhere(), "CVMDKGrain::seek");
    EXPECT_EQ(invalid.getMessage(), "Invalid seek position");
    EXPECT_STREQ(invalid.what(), "CVMDKGrain::seek: Invalid seek position [position=5]");

    const kz::CFileSystemError wrapped(kz::CFileSystemError::Unsupported,
                                       kz::CError("Locking is not supported."));
    EXPECT_EQ(wrapped.getProblem(), kz::CFileSystemError::Unsupported);
    EXPECT_EQ(wrapped.getMessage(), "Locking is not supported.");
    EXPECT_THROW(std::rethrow_exception(wrapped.getInner()), kz::CError);
}

TEST(CErrorTest, DestructorFailuresAreLoggedNotThrown) {
    harltest::CLogCapture log;
    kz::onExceptionInDestructorIgnored("harl::CThing", kz::CError("boom"), true);
    kz::onExceptionInDestructorIgnored("harl::CThing", kz::CError("quiet"), false);
    kz::logWarning("Something odd", kz::CError("why"), "");
    const auto errors = log.messages(kz::LogLevel::Error);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "Exception in destructor of harl::CThing ignored: boom");
    ASSERT_EQ(log.messages(kz::LogLevel::Warning).size(), 1u);
    EXPECT_EQ(log.messages(kz::LogLevel::Warning)[0], "Something odd: why");
}

}  // namespace
