#include "common/descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <utility>

namespace Zendra {
namespace {

bool IsOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

int OpenNull()
{
    const int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(IsOpen(descriptor));
    return descriptor;
}

TEST(Descriptor, IsClosedWithItsOwner)
{
    const int number = OpenNull();
    {
        const Descriptor owner(number);
        EXPECT_TRUE(owner.IsOpen());
        EXPECT_EQ(number, owner.Get());
        EXPECT_TRUE(IsOpen(number));
    }
    EXPECT_FALSE(IsOpen(number));
}

TEST(Descriptor, ClosedByHandIsNotClosedAgain)
{
    const int number = OpenNull();
    int another = Descriptor::none;
    {
        Descriptor owner(number);
        owner.Close();
        EXPECT_FALSE(owner.IsOpen());
        EXPECT_EQ(Descriptor::none, owner.Get());
        another = OpenNull();
        ASSERT_EQ(number, another);
        owner.Close();
    }
    EXPECT_TRUE(IsOpen(another));
    close(another);
}

TEST(Descriptor, ReleasedStaysOpen)
{
    int number = Descriptor::none;
    {
        Descriptor owner(OpenNull());
        number = owner.Release();
        EXPECT_FALSE(owner.IsOpen());
    }
    EXPECT_TRUE(IsOpen(number));
    close(number);
}

TEST(Descriptor, HasOneOwnerAfterAMove)
{
    const int first = OpenNull();
    const int second = OpenNull();
    Descriptor owner(first);
    Descriptor taker(second);
    taker = std::move(owner);
    EXPECT_FALSE(IsOpen(second));
    EXPECT_EQ(first, taker.Get());
    const Descriptor last(std::move(taker));
    EXPECT_EQ(first, last.Get());
    EXPECT_TRUE(IsOpen(first));
}

TEST(Descriptor, ZeroIsADescriptorAndMinusOneIsNone)
{
    Descriptor zero(0);
    EXPECT_TRUE(zero.IsOpen());
    EXPECT_EQ(0, zero.Release());
    EXPECT_FALSE(Descriptor().IsOpen());
    EXPECT_FALSE(Descriptor(-1).IsOpen());
}

}  // namespace
}  // namespace Zendra
