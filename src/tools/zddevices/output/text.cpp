#include "tools/zddevices/output/text.h"

#include <langinfo.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/locale/utf.hpp>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <locale>
#include <utility>

namespace Zendra::ZDDevices {

const char* const unknownText = "-";

namespace {

using CodePoint = boost::locale::utf::code_point;
using Utf8 = boost::locale::utf::utf_traits<char>;

bool LocaleIsUtf8()
{
    return boost::algorithm::iequals(nl_langinfo(CODESET), "UTF-8", std::locale::classic());
}

/**
 * Characters that the C library calls printable or that terminals disagree on, and that show nothing or change
 * how their neighbours are shown (Unicode's Bidi_Control and Default_Ignorable_Code_Point, line and paragraph
 * separators, interlinear annotation).
 */
constexpr std::pair<CodePoint, CodePoint> unseen[] = {
    {0x00AD, 0x00AD}, {0x034F, 0x034F}, {0x061C, 0x061C},   {0x115F, 0x1160},   {0x17B4, 0x17B5},   {0x180B, 0x180F},
    {0x200B, 0x200F}, {0x2028, 0x202E}, {0x2060, 0x206F},   {0x3164, 0x3164},   {0xFE00, 0xFE0F},   {0xFEFF, 0xFEFF},
    {0xFFA0, 0xFFA0}, {0xFFF0, 0xFFFB}, {0x1BCA0, 0x1BCA3}, {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF},
};

bool IsUnseen(CodePoint code)
{
    return std::any_of(std::begin(unseen), std::end(unseen),
                       [code](const auto& range) { return code >= range.first && code <= range.second; });
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

/**
 * The text with what `replace` makes of it in place of each byte that is not UTF-8, and of the bytes of each character
 * that does not stay. `stays` gets a character and the text that begins with it.
 */
template <typename Stays, typename Replace>
std::string Replaced(std::string_view text, Stays stays, Replace replace)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const char* next = text.data();
        const CodePoint code = Utf8::decode(next, text.data() + text.size());
        const bool isCharacter = boost::locale::utf::is_valid_codepoint(code);
        const auto length = isCharacter ? static_cast<std::size_t>(next - text.data()) : 1;
        if (isCharacter && stays(code, text)) {
            out += text.substr(0, length);
        } else {
            out += replace(text.substr(0, length));
        }
        text.remove_prefix(length);
    }
    return out;
}

/** The text with every character that does not stay, and every byte that is not UTF-8, written as \xNN. */
template <typename Stays>
std::string Escaped(std::string_view text, Stays stays)
{
    return Replaced(
        text,
        [stays](CodePoint code, std::string_view rest) {
            return stays(code) && !boost::algorithm::starts_with(rest, "\\x");
        },
        [](std::string_view bytes) {
            static const char digits[] = "0123456789abcdef";
            std::string escaped;
            for (const char byte : bytes) {
                const auto value = static_cast<unsigned char>(byte);
                escaped.append({'\\', 'x', digits[value >> 4U], digits[value & 0x0FU]});
            }
            return escaped;
        });
}

std::string_view WithoutPadding(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
    while (!text.empty() && (static_cast<unsigned char>(text.back()) <= 0x20 || text.back() == 0x7F)) {
        text.remove_suffix(1);
    }
    return text;
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
    const std::string_view core = WithoutPadding(text);
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
    return Replaced(
        text, [](CodePoint, std::string_view) { return true; }, [](std::string_view) { return "\xEF\xBF\xBD"; });
}

}  // namespace Zendra::ZDDevices
