#include "tools/zddevices/output/text.h"

#include <langinfo.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <boost/locale/utf.hpp>
#include <cwchar>
#include <cwctype>

namespace Zendra {
namespace ZDDevices {

const char* const unknownText = "-";

namespace {

using CodePoint = boost::locale::utf::code_point;
using Utf8 = boost::locale::utf::utf_traits<char>;

struct Character {
    CodePoint code;
    std::size_t length;
    bool valid;
};

/** The first character of a text that is not empty; a byte that starts none counts alone. */
Character FirstCharacter(std::string_view text)
{
    const char* next = text.data();
    const CodePoint code = Utf8::decode(next, text.data() + text.size());
    if (code == boost::locale::utf::illegal || code == boost::locale::utf::incomplete) {
        return {0, 1, false};
    }
    return {code, static_cast<std::size_t>(next - text.data()), true};
}

bool LocaleIsUtf8()
{
    return boost::algorithm::iequals(nl_langinfo(CODESET), "UTF-8", std::locale::classic());
}

struct Range {
    CodePoint first;
    CodePoint last;
};

/**
 * Characters that the C library calls printable or that terminals disagree on, and that show nothing or change
 * how their neighbours are shown (Unicode's Bidi_Control and Default_Ignorable_Code_Point, line and paragraph
 * separators, interlinear annotation).
 */
constexpr Range unseen[] = {
    {0x00AD, 0x00AD}, {0x034F, 0x034F}, {0x061C, 0x061C},   {0x115F, 0x1160},   {0x17B4, 0x17B5},   {0x180B, 0x180F},
    {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},   {0x3164, 0x3164},   {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},
    {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
};

bool IsUnseen(CodePoint code)
{
    for (const Range& range : unseen) {
        if (code >= range.first && code <= range.last) {
            return true;
        }
    }
    return false;
}

bool IsPrintableAscii(CodePoint code)
{
    return code >= 0x20 && code < 0x7F;
}

/** Whether a character may be shown on a terminal as it is. */
bool ShowsItself(CodePoint code, bool localeIsUtf8)
{
    if (code < 0x80 || !localeIsUtf8 || IsUnseen(code)) {
        return IsPrintableAscii(code);
    }
    // A width of 0 is a combining mark: hundreds of them on one letter spill over the lines around it.
    return std::iswprint(static_cast<std::wint_t>(code)) != 0 && wcwidth(static_cast<wchar_t>(code)) > 0;
}

void AppendEscaped(std::string& out, std::string_view bytes)
{
    static const char digits[] = "0123456789abcdef";
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out += "\\x";
        out += digits[value >> 4U];
        out += digits[value & 0x0FU];
    }
}

/** The text with every character written as \xNN that does not stay, and every byte that is none. */
template <typename Stays>
std::string Escaped(std::string_view text, Stays stays)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character first = FirstCharacter(text);
        const std::string_view bytes = text.substr(0, first.length);
        const bool looksEscaped = first.code == '\\' && text.size() > 1 && text[1] == 'x';
        if (first.valid && stays(first.code) && !looksEscaped) {
            out += bytes;
        } else {
            AppendEscaped(out, bytes);
        }
        text.remove_prefix(first.length);
    }
    return out;
}

bool IsWhiteSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool IsWhiteSpaceOrControl(char c)
{
    return static_cast<unsigned char>(c) <= 0x20 || c == 0x7F;
}

std::string WithoutPadding(std::string_view text)
{
    std::string core(text);
    boost::algorithm::trim_left_if(core, IsWhiteSpace);
    boost::algorithm::trim_right_if(core, IsWhiteSpaceOrControl);
    return core;
}

}  // namespace

std::string Printable(std::string_view text)
{
    return Escaped(text, [utf8 = LocaleIsUtf8()](CodePoint code) { return ShowsItself(code, utf8); });
}

std::string PrintableLines(std::string_view text)
{
    return Escaped(text, [utf8 = LocaleIsUtf8()](CodePoint code) {
        return code == '\n' || code == '\t' || ShowsItself(code, utf8);
    });
}

std::string CellText(std::string_view text)
{
    const std::string core = WithoutPadding(text);
    return core.empty() ? unknownText : Printable(core);
}

std::string LabelText(std::string_view text)
{
    constexpr CodePoint lastControl = 0x9F;
    return Escaped(WithoutPadding(text),
                   [](CodePoint code) { return IsPrintableAscii(code) || (code > lastControl && !IsUnseen(code)); });
}

std::string ValidUtf8(std::string_view text)
{
    // Nearly all texts are ASCII, and there may be thousands.
    if (boost::algorithm::all(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        return std::string(text);
    }
    static const char replacement[] = "\xEF\xBF\xBD";  // U+FFFD
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const Character first = FirstCharacter(text);
        if (first.valid) {
            out += text.substr(0, first.length);
        } else {
            out += replacement;
        }
        text.remove_prefix(first.length);
    }
    return out;
}

}  // namespace ZDDevices
}  // namespace Zendra
