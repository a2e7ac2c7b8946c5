/**
 * @file
 * @brief Tables for people, laid out by libsmartcols.
 */
#ifndef ZENDRA_ZDDEVICES_TABLE_H
#define ZENDRA_ZDDEVICES_TABLE_H

#include <cstddef>
#include <string>
#include <vector>

namespace Zendra::ZDDevices {

/** What happens to a cell that is too wide for the terminal. */
enum class Overflow {
    /** Goes on in the next line: nothing of a serial number may be lost. */
    Wrap,
    /** Is cut: for texts whose first words tell enough. */
    Cut,
    /** Stays as it is, at the other columns' expense: for short texts that nobody reads in two halves. */
    Keep
};

/** One column. */
struct Column {
    /** The heading, in capitals. */
    const char* heading = "";
    /** The part of the terminal's width that the column should have, 0 to 1. */
    double share = 0.0;
    Overflow overflow = Overflow::Wrap;
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
 * @param width the columns of the terminal that the lines must fit; 0 for no limit, and then every row is one
 *              line and whole. Below some 50 columns the lines may be wider than the terminal.
 * @throws std::bad_alloc, std::runtime_error.
 */
std::string RenderTable(const Table& table, std::size_t width, Headings headings = Headings::Shown);

}  // namespace Zendra::ZDDevices

#endif
