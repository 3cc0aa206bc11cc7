#include "harl/foundation/kz/CBase.h"
#include "harl/foundation/kz/P.h"

#include <gtest/gtest.h>

namespace {

class IShape : public virtual kz::IBase {
public:
    virtual int sides() const = 0;
};

class CSquare : public kz::CBase, public IShape {
public:
    explicit CSquare(int* deaths) : deaths(deaths) {}

    ~CSquare() override { ++*deaths; }

    int sides() const override { return 4; }

private:
    int* deaths;
};

// Refuses to be reached behind its interface.
class CSealed : public kz::CBase, public IShape {
public:
    int sides() const override { return 0; }

    bool checkCastAllowed(const std::type_info& target) const override {
        return target != typeid(CSealed);
    }
};

TEST(CBaseTest, CountsReferencesAndDeletesWithTheLast) {
    int deaths = 0;
    {
        kz::P<CSquare> a(new CSquare(&deaths));
        EXPECT_EQ(a->getRefCount(), 1);
        kz::P<IShape> b = a;
        EXPECT_EQ(a->getRefCount(), 2);
        kz::P<IShape> c = std::move(b);
        EXPECT_FALSE(b);
        EXPECT_EQ(a->getRefCount(), 2);
        a = nullptr;
        EXPECT_EQ(deaths, 0);
        EXPECT_EQ(c->sides(), 4);
    }
    EXPECT_EQ(deaths, 1);
}

TEST(CBaseTest, DownCastsAskTheObject) {
    int deaths = 0;
    kz::P<IShape> square(new CSquare(&deaths));
    EXPECT_TRUE(kz::P<CSquare>::cast(square));
    EXPECT_FALSE(kz::P<CSealed>::cast(square));

    kz::P<IShape> sealed(new CSealed);
    EXPECT_FALSE(kz::P<CSealed>::cast(sealed));
    EXPECT_FALSE(kz::P<CSquare>::cast(kz::P<IShape>()));
}

}  // namespace
