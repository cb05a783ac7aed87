#include <gtest/gtest.h>

#include <utility>

#include "qzsse/base/RbReferenceCounted.h"

namespace {

struct Counted : RbReferenceCounted {
    explicit Counted(int* deaths_) : deaths(deaths_) {}
    ~Counted() override { ++*deaths; }
    int* deaths;
};

struct Derived : Counted {
    using Counted::Counted;
};

} // namespace

TEST(RbSmartPtr, CountsHoldersAndDeletesWithTheLast)
{
    int deaths = 0;
    Counted* raw = new Counted(&deaths);
    EXPECT_EQ(raw->getReferenceCounter(), 0);
    {
        RbSmartPtr<Counted> a(raw);
        {
            RbSmartPtr<Counted> b = a;
            RbSmartPtr<Counted> c;
            c = b;
            EXPECT_EQ(raw->getReferenceCounter(), 3);
        }
        RbSmartPtr<Counted> moved(std::move(a));
        EXPECT_EQ(raw->getReferenceCounter(), 1);
        moved = RbSmartPtr<Counted>(new Counted(&deaths));  // releases the first object
        EXPECT_EQ(deaths, 1);
    }
    EXPECT_EQ(deaths, 2);
}

TEST(RbSmartPtr, BasePointerSharesTheCountAndCopiesStartAtZero)
{
    int deaths = 0;
    RbSmartPtr<Derived> derived(new Derived(&deaths));
    {
        RbSmartPtr<Counted> base(derived);
        EXPECT_EQ(derived->getReferenceCounter(), 2);
        // A copied object is a new object: it does not inherit the original's holders.
        Counted copy(*base);
        EXPECT_EQ(copy.getReferenceCounter(), 0);
    }
    EXPECT_EQ(deaths, 1);  // only the stack copy
    EXPECT_EQ(derived->getReferenceCounter(), 1);
    derived = RbSmartPtr<Derived>();
    EXPECT_EQ(deaths, 2);
}
