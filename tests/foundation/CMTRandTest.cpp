#include "harl/foundation/kz/CMTRand.h"

#include <gtest/gtest.h>

#include <set>
#include <vector>

namespace {

using kz::CMTRand;

TEST(CMTRandTest, DrawsDifferentNonZeroValues) {
    kz::CMutexLock lock(CMTRand::getGlobalInstanceMutex());
    const kz::P<CMTRand> random = CMTRand::getGlobal();
    EXPECT_EQ(random, CMTRand::getGlobal());

    std::set<unsigned> values;
    for (int i = 0; i < 16; ++i) {
        values.insert(random->rand32());
    }
    EXPECT_GE(values.size(), 15u);

    std::vector<unsigned char> zeros(257, 0), a = zeros, b = zeros;
    random->randData(a.data(), a.size());
    random->randData(b.data(), b.size());
    EXPECT_NE(a, zeros);
    EXPECT_NE(a, b);
}

}  // namespace
