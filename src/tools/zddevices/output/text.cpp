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

std::string Hexadecimal(std::string_view bytes)
{
    static const char digits[] = "0123456789abcdef";
    std::string escaped;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        escaped.append({'\\', 'x', digits[value >> 4U], digits[value & 0x0FU]});
    }
    return escaped;
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
        Hexadecimal);
}

/** A character of a printable text. */
struct Character {
    /** In bytes. */
    std::size_t size;
    /** In columns of a terminal. */
    std::size_t width;
};

Character FirstCharacter(std::string_view text)
{
    wchar_t character = 0;
    std::mbstate_t state{};
    const std::size_t size = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool isOne = size > 0 && size <= text.size();
    return {isOne ? size : 1, isOne ? static_cast<std::size_t>(std::max(wcwidth(character), 0)) : 1};
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

std::string PrintableLine(std::string_view text)
{
    return Replaced(
        text,
        [utf8 = LocaleIsUtf8()](CodePoint code, std::string_view rest) {
            const bool looksEscaped =
                boost::algorithm::starts_with(rest, "\\x") || boost::algorithm::starts_with(rest, "\\n");
            return !looksEscaped && (code == '\t' || ShowsItself(code, utf8));
        },
        [](std::string_view bytes) { return bytes == "\n" ? "\\n" : Hexadecimal(bytes); });
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

std::size_t TextWidth(std::string_view text)
{
    std::size_t width = 0;
    while (!text.empty()) {
        const Character first = FirstCharacter(text);
        width += first.width;
        text.remove_prefix(first.size);
    }
    return width;
}

std::vector<std::string> BrokenBetweenWords(std::string_view text, std::size_t width)
{
    std::vector<std::string> lines;
    // No character takes more columns than bytes.
    while (text.size() > width && TextWidth(text) > width) {
        std::size_t size = 0;
        std::size_t columns = 0;
        std::size_t lastBlank = 0;
        for (Character next = FirstCharacter(text); size == 0 || columns + next.width <= width;
             next = FirstCharacter(text.substr(size))) {
            lastBlank = text[size] == ' ' ? size : lastBlank;
            size += next.size;
            columns += next.width;
        }
        lastBlank = size < text.size() && text[size] == ' ' ? size : lastBlank;
        lines.emplace_back(text.substr(0, lastBlank != 0 ? lastBlank : size));
        text.remove_prefix(lastBlank != 0 ? lastBlank + 1 : size);
    }
    if (!text.empty() || lines.empty()) {
        lines.emplace_back(text);
    }
    return lines;
}

std::string FoldedLines(std::string_view text, std::size_t width)
{
    if (width == 0) {
        return std::string(text);
    }
    constexpr std::size_t deeper = 2;
    constexpr std::size_t narrowest = 8;
    std::string out;
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        std::string indentation(std::min(line.find_first_not_of(' '), line.size()), ' ');
        line.remove_prefix(indentation.size());
        if (indentation.size() + TextWidth(line) <= width) {
            out += indentation.append(line) + "\n";
            continue;
        }
        const std::size_t used = indentation.size() + deeper;
        for (const std::string& part : BrokenBetweenWords(line, std::max(width, used + narrowest) - used)) {
            out += indentation + part + "\n";
            indentation.resize(used, ' ');
        }
    }
    return out;
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

std::string DescribeError(int error)
{
    const char* name = strerrorname_np(error);
    return std::generic_category().message(error) + (name != nullptr ? std::string(" (") + name + ")" : "");
}

}  // namespace Zendra::ZDDevices
