#include "tools/zddevices/output/text.h"

#include <langinfo.h>

#include <cwchar>
#include <nlohmann/json.hpp>

#include "toolTests.h"

namespace {
/** What the locale's character set is said to be; null for the truth. */
const char* pretendedCharacterSet = nullptr;
}  // namespace

/** In the C library's place: locales other than C and C.UTF-8 are rarely installed. */
extern "C" char* nl_langinfo(nl_item item) noexcept
{
    if (item == CODESET && pretendedCharacterSet != nullptr) {
        return const_cast<char*>(pretendedCharacterSet);
    }
    const locale_t locale = duplocale(LC_GLOBAL_LOCALE);
    char* answer = nl_langinfo_l(item, locale);
    freelocale(locale);
    return answer;
}

namespace Zendra::ZDDevices {
namespace {

using namespace std::string_literals;

/** What the \xNN sequences of a printable text stand for. */
std::string Unescape(const std::string& text)
{
    std::string bytes;
    for (std::size_t i = 0; i < text.size();) {
        if (text.compare(i, 2, "\\x") == 0) {
            bytes += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 4;
        } else {
            bytes += text[i++];
        }
    }
    return bytes;
}

TEST(Printable, PlainTextStaysAsItIs)
{
    EXPECT_EQ(Printable(""), "");
    EXPECT_EQ(Printable("  QEMU HARDDISK  "), "  QEMU HARDDISK  ");
    EXPECT_EQ(Printable("~!\"$%&/()=?{[]}\\"), "~!\"$%&/()=?{[]}\\");
    EXPECT_EQ(Printable("Gerät 日本 💾"), "Gerät 日本 💾");
}

TEST(Printable, ControlCharactersAreWrittenAsHexadecimal)
{
    EXPECT_EQ(Printable("a\0b"s), "a\\x00b");
    EXPECT_EQ(Printable("\x1b[31m"), "\\x1b[31m");
    EXPECT_EQ(Printable("a\r\n\tb"), "a\\x0d\\x0a\\x09b");
    EXPECT_EQ(Printable("\x7f"), "\\x7f");
    EXPECT_EQ(Printable("\xc2\x80\xc2\x9b\xc2\x9f"), "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f");
    for (char c = 1; c < 0x20; ++c) {
        EXPECT_EQ(Printable(std::string(1, c)).size(), 4U) << static_cast<int>(c);
    }
}

TEST(Printable, BytesThatAreNotUtf8AreWrittenAsHexadecimal)
{
    EXPECT_EQ(Printable("\x9b\xff"), "\\x9b\\xff");
    EXPECT_EQ(Printable("a\xc3"), "a\\xc3");
    EXPECT_EQ(Printable("\xc0\xaf"), "\\xc0\\xaf");
    EXPECT_EQ(Printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");
    EXPECT_EQ(Printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
    EXPECT_EQ(Printable("\xe2\x80"
                        "A"),
              "\\xe2\\x80A");
}

TEST(Printable, InvisibleAndDirectionCharactersAreWrittenAsHexadecimal)
{
    for (const char* text :
         {"\u00ad", "\u034f", "\u061c",     "\u115f",     "\u180e", "\u200b", "\u200d", "\u200e", "\u200f",
          "\u2028", "\u2029", "\u202a",     "\u202e",     "\u2060", "\u2066", "\u2069", "\u3164", "\ufe0f",
          "\ufeff", "\ufff9", "\U000e0001", "\U000e0041", "\u0301", "\u20e3", "\uffff"}) {
        const std::string shown = Printable(text);
        EXPECT_EQ(shown.rfind("\\x", 0), 0U) << shown;
        EXPECT_EQ(Unescape(shown), text);
    }
}

TEST(Printable, BackslashBeforeXIsEscapedSoThatNothingCanBeFaked)
{
    EXPECT_EQ(Printable("\\x41"), "\\x5cx41");
    EXPECT_EQ(Printable("\\\\x\\"), "\\\\x5cx\\");
}

TEST(Printable, OutsideUtf8LocalesOnlyAsciiIsShown)
{
    const CharacterSet posix("C");
    EXPECT_EQ(Printable("é~"), "\\xc3\\xa9~");
}

TEST(Printable, OnATerminalWithEightBitCharactersOnlyAsciiIsShown)
{
    ASSERT_EQ(Printable("é"), "é");
    pretendedCharacterSet = "ISO-8859-1";
    const std::string shown = Printable("é~\xe9");
    pretendedCharacterSet = nullptr;
    EXPECT_EQ(shown, "\\xc3\\xa9~\\xe9");
}

TEST(Printable, WhateverTheBytesTheResultIsHarmlessAndHoldsThemAll)
{
    HostileTexts texts(1);
    for (int i = 0; i < 20000; ++i) {
        const std::string text = texts.Next();
        const std::string shown = Printable(text);
        EXPECT_EQ(Unescape(shown), text);
        std::wstring wide(shown.size() + 1, L'\0');
        const std::size_t length = std::mbstowcs(wide.data(), shown.c_str(), wide.size());
        ASSERT_NE(length, static_cast<std::size_t>(-1)) << shown;
        for (std::size_t k = 0; k < length; ++k) {
            EXPECT_GT(wcwidth(wide[k]), 0) << shown;
        }
    }
}

TEST(PrintableLine, KeepsTabsOnly)
{
    EXPECT_EQ(PrintableLine("a\tb\nc\rd\x1b"), "a\tb\\nc\\x0dd\\x1b");
}

TEST(PrintableLine, TellsALineFeedFromABackslashAndALetter)
{
    EXPECT_EQ(PrintableLine("\n\\n\\x0a\\t"), "\\n\\x5cn\\x5cx0a\\t");
}

TEST(CellText, DropsWhiteSpaceAroundTheText)
{
    EXPECT_EQ(CellText(" \t\r\n QEMU  DISK \n "), "QEMU  DISK");
}

TEST(CellText, DropsControlCharactersBehindTheTextButShowsThemElsewhere)
{
    EXPECT_EQ(CellText("2B2QEXM7\x06"), "2B2QEXM7");
    EXPECT_EQ(CellText("1.0     \x06"), "1.0");
    EXPECT_EQ(CellText("1.0\0\0"s), "1.0");
    EXPECT_EQ(CellText("\x06"
                       "1.0"),
              "\\x061.0");
    EXPECT_EQ(CellText("1\x06"
                       "0"),
              "1\\x060");
}

TEST(CellText, IsADashWhenNothingIsLeft)
{
    EXPECT_EQ(CellText(""), "-");
    EXPECT_EQ(CellText("        "), "-");
    EXPECT_EQ(CellText(" \x06\x7f \0"s), "-");
}

TEST(ValidUtf8, KeepsEveryCharacterThatIsUtf8)
{
    const std::string text = " Gerät \u202e\x01\x7f\U0001f4be\0x"s;
    EXPECT_EQ(ValidUtf8(text), text);
}

TEST(ValidUtf8, ReplacesEachByteThatIsNot)
{
    EXPECT_EQ(ValidUtf8("a\xff\xfe"
                        "b"),
              "a\ufffd\ufffdb");
    EXPECT_EQ(ValidUtf8("\xe2\x80"), "\ufffd\ufffd");
    EXPECT_EQ(ValidUtf8("\xe2\x80é"), "\ufffd\ufffdé");
    EXPECT_EQ(ValidUtf8("\xed\xa0\x80"), "\ufffd\ufffd\ufffd");
    EXPECT_EQ(ValidUtf8("\xc0\x80"), "\ufffd\ufffd");
}

TEST(ValidUtf8, ResultIsAlwaysUtf8)
{
    HostileTexts texts(2);
    for (int i = 0; i < 20000; ++i) {
        const std::string valid = ValidUtf8(texts.Next());
        EXPECT_NO_THROW(nlohmann::json(valid).dump());
        EXPECT_EQ(ValidUtf8(valid), valid);
    }
}

}  // namespace
}  // namespace Zendra::ZDDevices
