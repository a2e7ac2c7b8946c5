/**
 * @file
 * @brief Tables for people, laid out by libsmartcols.
 */
#ifndef ZENDRA_ZDDEVICES_TABLE_H
#define ZENDRA_ZDDEVICES_TABLE_H

#include <cstddef>
#include <limits>
#include <string>
#include <vector>

namespace Zendra::ZDDevices {

/** Column::least of a column whose texts are never broken: nobody reads a size in two halves. */
constexpr std::size_t wholeTexts = std::numeric_limits<std::size_t>::max();

/** One column. */
struct Column {
    /** The heading, in capitals. */
    const char* heading = "";
    /** Where the terminal is too narrow, a text of more characters than these goes on in the next line. */
    std::size_t least = wholeTexts;
};

/** Each row has as many cells as there are columns, fit to be printed (see text.h). */
struct Table {
    std::vector<Column> columns;
    std::vector<std::vector<std::string>> rows;
};

/** Whether a table begins with a line of headings. */
enum class Headings { Shown, None };

/**
 * @brief The table as lines of text, headings first, without trailing blanks, each line ended.
 *
 * Cells that are too wide go on in the next line, if possible between words. Where that does not suffice, each row is
 * shown as lines of a heading and a text, with an empty line between two rows.
 *
 * @param width the columns of the terminal that the lines must fit; 0 for no limit, and then every row is one line and
 *              whole. A terminal that has no room for 8 columns of text beside the headings is not thought of.
 * @throws std::bad_alloc, std::runtime_error.
 */
std::string RenderTable(const Table& table, std::size_t width, Headings headings = Headings::Shown);

}  // namespace Zendra::ZDDevices

#endif
