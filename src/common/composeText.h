/**
 * @file
 * @brief Texts made of many parts: measured first, so that they are written once and into room that was asked for once.
 */
#ifndef ZENDRA_COMMON_COMPOSETEXT_H
#define ZENDRA_COMMON_COMPOSETEXT_H

#include <boost/container/small_vector.hpp>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

namespace Zendra {

/** Not for callers. */
namespace Internal {

/** Digits of the largest number. */
constexpr std::size_t longestNumber = std::numeric_limits<std::uint16_t>::digits10 + 1;

/** Bytes that a literal takes at most, as a part of a text. */
template <std::size_t size>
constexpr std::size_t RoomFor(const char (&/*literal*/)[size])
{
    return size - 1;
}

/** Bytes that a text takes at most. */
inline std::size_t RoomFor(std::string_view text)
{
    return text.size();
}

/** Bytes that a number takes at most. */
constexpr std::size_t RoomFor(std::uint16_t /*number*/)
{
    return longestNumber;
}

/** Writes a literal to `out`; the end of what was written. */
template <std::size_t size>
char* Write(char* out, const char (&literal)[size])
{
    std::memcpy(out, literal, size - 1);
    return out + (size - 1);
}

/** Writes a text to `out`; the end of what was written. */
inline char* Write(char* out, std::string_view text)
{
    return out + text.copy(out, text.size());
}

/** Writes a number to `out` in decimal digits; the end of what was written. */
inline char* Write(char* out, std::uint16_t number)
{
    return std::to_chars(out, out + longestNumber, number).ptr;
}

/** Makes a text so long, whatever it holds then. */
inline void Resize(std::string& text, std::size_t size)
{
    text.resize(size);
}

/** Makes a text so long, whatever it holds then. */
template <std::size_t usualLength>
void Resize(boost::container::small_vector<char, usualLength>& text, std::size_t size)
{
    text.resize(size, boost::container::default_init);
}

}  // namespace Internal

/** The number in decimal digits. */
inline std::string DecimalText(std::uint16_t number)
{
    char digits[Internal::longestNumber];
    return std::string(digits, Internal::Write(digits, number));
}

/**
 * Makes a text of parts, one behind the other.
 *
 * @param text  a std::string, or a small_vector of characters for one that is short-lived and needs no memory then.
 * What it holds is replaced, in the room that it has.
 * @param parts literals, texts, and numbers, which are written in decimal digits. None may lie in `text`.
 */
template <typename Text, typename... Parts>
void ComposeText(Text& text, const Parts&... parts)
{
    Internal::Resize(text, (Internal::RoomFor(parts) + ...));
    char* out = text.data();
    ((out = Internal::Write(out, parts)), ...);
    Internal::Resize(text, static_cast<std::size_t>(out - text.data()));
}

}  // namespace Zendra

#endif
