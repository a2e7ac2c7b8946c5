/**
 * @file
 * @brief Texts that come from devices, made fit for a terminal and for JSON.
 *
 * A device's text may hold any byte: blanks around the words, control characters, escape sequences, bytes that
 * are not UTF-8. Nothing here looks at what a text means.
 */
#ifndef ZENDRA_ZDDEVICES_TEXT_H
#define ZENDRA_ZDDEVICES_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Zendra::ZDDevices {

/** What a table shows where a text is not known. */
extern const char* const unknownText;

/**
 * @brief The text with every byte that a terminal might act on, or not show, written as \xNN.
 *
 * That is: control characters (C0, DEL, C1), bytes that are not UTF-8, and characters that are invisible,
 * without width, or change the direction of writing. Where the locale's character set is not UTF-8, every byte
 * beyond ASCII. A backslash before an "x" is written as \x5c, so that what the device sent stays readable out
 * of the result.
 */
std::string Printable(std::string_view text);

/**
 * @brief As Printable(), but tabs stay and a line feed is written as \n: a text of several lines, such as a log
 *        message, in one.
 *
 * A backslash before an "n" is written as \x5c as well.
 */
std::string PrintableLine(std::string_view text);

/**
 * @brief The text as a table cell: Printable(), without the white space around it and the control characters
 *        behind it, or "-" when nothing is left.
 *
 * Devices pad their texts, and some leave a binary byte behind them.
 */
std::string CellText(std::string_view text);

/**
 * @brief The text as CellText() shows it, but the same in every locale, and empty when nothing is left.
 *
 * For values that are compared over months and between hosts: an inventory by a service with no locale and one by
 * a person have to give the same text. All characters of UTF-8 stay, except control characters and those that are
 * invisible or change the direction of writing. Two texts that differ within their padding stay different.
 */
std::string LabelText(std::string_view text);

/** How many columns of a terminal a printable text takes. */
std::size_t TextWidth(std::string_view text);

/** A printable text as lines of at most so many columns, broken between words; a longer word is broken anywhere. */
std::vector<std::string> BrokenBetweenWords(std::string_view text, std::size_t width);

/**
 * @brief Lines of printable text, each ended, with those of more than `width` columns broken between words.
 *
 * What goes on in the next line stands two columns further to the right. @param width 0 for no limit.
 */
std::string FoldedLines(std::string_view text, std::size_t width);

/** The text as UTF-8: each byte that is not part of a UTF-8 character becomes U+FFFD; all others stay. */
std::string ValidUtf8(std::string_view text);

/** An error of a system call: "Permission denied (EACCES)". */
std::string DescribeError(int error);

}  // namespace Zendra::ZDDevices

#endif
