#include "common/composeText.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

#include "common/makeRoom.h"
#include "support/allocations.h"

namespace Zendra {
namespace {

template <typename... Parts>
std::string Composed(const Parts&... parts)
{
    std::string text;
    ComposeText(text, parts...);
    return text;
}

TEST(ComposeText, PartsStandOneBehindTheOther)
{
    const std::string name = "sda";
    EXPECT_EQ("/dev/sda is 7 of 12, at last", Composed("/dev/", name, " is ", std::uint16_t(7), " of ",
                                                       std::uint16_t(12), std::string_view(", at last")));
    EXPECT_EQ("", Composed(""));
    EXPECT_EQ("", Composed("", std::string(), std::string_view()));
}

TEST(ComposeText, NumbersAreDecimalWithoutLeadingZeros)
{
    for (unsigned int number = 0; number <= std::numeric_limits<std::uint16_t>::max(); ++number) {
        const auto value = static_cast<std::uint16_t>(number);
        ASSERT_EQ(std::to_string(number), DecimalText(value));
        ASSERT_EQ("<" + std::to_string(number) + ">", Composed("<", value, ">"));
    }
}

TEST(ComposeText, EveryByteOfATextIsKept)
{
    std::string all;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
    }
    EXPECT_EQ("[" + all + "|" + all + "]", Composed("[", all, "|", all, "]"));
}

TEST(ComposeText, WhatTheTextHeldIsReplacedAndItsRoomUsed)
{
    std::string text(300, 'x');
    const char* const room = text.data();
    ComposeText(text, "Port:", std::uint16_t(65535), "|");
    EXPECT_EQ("Port:65535|", text);
    EXPECT_EQ(room, text.data());
}

TEST(ComposeText, ShortLivedTextsGrowBeyondTheirUsualLength)
{
    boost::container::small_vector<char, 8> text;
    for (const std::string& part : {std::string("ab"), std::string(100, 'y'), std::string("c")}) {
        ComposeText(text, "<", part, std::uint16_t(12), ">");
        EXPECT_EQ("<" + part + "12>", std::string(text.data(), text.size()));
    }
}

TEST(MakeRoom, ThereIsRoomForSoManyMore)
{
    std::vector<int> list = {1, 2, 3};
    MakeRoom(list, 100);
    EXPECT_EQ(std::vector<int>({1, 2, 3}), list);
    const int* const elements = list.data();
    list.resize(103);
    EXPECT_EQ(elements, list.data());
}

TEST(MakeRoom, RoomThatIsThereIsKept)
{
    std::vector<int> list;
    list.reserve(50);
    const std::size_t room = list.capacity();
    MakeRoom(list, 50);
    EXPECT_EQ(room, list.capacity());
}

TEST(MakeRoom, WithoutMemoryForItTheListStays)
{
    std::vector<int> list = {1, 2, 3};
    const int* const elements = list.data();
    ZendraTest::Allocations::FailAfter(0);
    MakeRoom(list, 1000);
    EXPECT_TRUE(ZendraTest::Allocations::StopFailing());
    EXPECT_EQ(elements, list.data());
    EXPECT_EQ(std::vector<int>({1, 2, 3}), list);
}

TEST(MakeRoom, ManySmallStepsMoveTheElementsSeldom)
{
    std::vector<int> list;
    int moves = 0;
    for (int step = 0; step < 1000; ++step) {
        const std::size_t before = list.capacity();
        MakeRoom(list, 1);
        moves += list.capacity() != before ? 1 : 0;
        list.push_back(step);
    }
    EXPECT_LE(moves, 11);
}

}  // namespace
}  // namespace Zendra
