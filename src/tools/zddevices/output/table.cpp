#include "tools/zddevices/output/table.h"

#include <libsmartcols/libsmartcols.h>

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>

#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

namespace {

/** libsmartcols answers 0 or a negative error number. */
void Check(int result)
{
    if (result == -ENOMEM) {
        throw std::bad_alloc();
    }
    if (result < 0) {
        throw std::runtime_error("the table could not be laid out");
    }
}

template <typename T>
T* Check(T* made)
{
    Check(made != nullptr ? 0 : -ENOMEM);
    return made;
}

/** The blanks that pad the last column of a wrapped row are of no use to anybody. */
std::string WithoutTrailingBlanks(const std::string& text)
{
    std::string out;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        boost::algorithm::trim_right_if(line, [](char c) { return c == ' '; });
        out += line + '\n';
    }
    return out;
}

/** The columns that each column of the table takes when nothing is broken. */
std::vector<std::size_t> NaturalWidths(const Table& table, Headings headings)
{
    std::vector<std::size_t> widths;
    for (std::size_t i = 0; i < table.columns.size(); ++i) {
        std::size_t width = headings == Headings::Shown ? TextWidth(table.columns[i].heading) : 0;
        for (const std::vector<std::string>& row : table.rows) {
            width = std::max(width, TextWidth(row[i]));
        }
        widths.push_back(width);
    }
    return widths;
}

/** The widths with which the table fits; none when it cannot. Those that lack the least become whole first. */
std::optional<std::vector<std::size_t>> FittingWidths(const Table& table, std::size_t width, Headings headings)
{
    const std::vector<std::size_t> natural = NaturalWidths(table, headings);
    std::vector<std::size_t> widths;
    std::vector<std::size_t> byMissing;
    std::size_t taken = natural.size() - 1;
    for (std::size_t i = 0; i < natural.size(); ++i) {
        const std::size_t heading = headings == Headings::Shown ? TextWidth(table.columns[i].heading) : 0;
        widths.push_back(std::min(natural[i], std::max(table.columns[i].least, heading)));
        taken += widths.back();
        byMissing.push_back(i);
    }
    if (taken > width) {
        return std::nullopt;
    }
    std::stable_sort(byMissing.begin(), byMissing.end(), [&](std::size_t left, std::size_t right) {
        return natural[left] - widths[left] < natural[right] - widths[right];
    });
    for (const std::size_t i : byMissing) {
        const std::size_t more = std::min(natural[i] - widths[i], width - taken);
        widths[i] += more;
        taken += more;
    }
    return widths;
}

/** Each row as lines of a heading and a text. */
std::string RenderRowByRow(const Table& table, std::size_t width, Headings headings)
{
    std::size_t indentation = 0;
    for (const Column& column : table.columns) {
        indentation = headings == Headings::Shown ? std::max(indentation, TextWidth(column.heading) + 2) : 0;
    }
    constexpr std::size_t narrowest = 8;
    const std::size_t widthOfTexts = std::max(width, indentation + narrowest) - indentation;
    std::string out;
    for (const std::vector<std::string>& row : table.rows) {
        out += out.empty() ? "" : "\n";
        for (std::size_t i = 0; i < row.size(); ++i) {
            std::string heading = headings == Headings::Shown ? table.columns[i].heading : "";
            for (const std::string& line : BrokenBetweenWords(row[i], widthOfTexts)) {
                heading.resize(indentation, ' ');
                out += heading + line + "\n";
                heading.clear();
            }
        }
    }
    return out;
}

}  // namespace

std::string RenderTable(const Table& table, std::size_t width, Headings headings)
{
    std::vector<std::size_t> widths(table.columns.size(), std::numeric_limits<std::size_t>::max());
    if (width > 0) {
        const std::optional<std::vector<std::size_t>> fitting = FittingWidths(table, width, headings);
        if (!fitting) {
            return RenderRowByRow(table, width, headings);
        }
        widths = *fitting;
    }
    const std::unique_ptr<libscols_table, decltype(&scols_unref_table)> layout(Check(scols_new_table()),
                                                                               scols_unref_table);
    // The cells have been made printable; a second encoding would escape the escapes.
    Check(scols_table_enable_noencoding(layout.get(), 1));
    Check(scols_table_enable_noheadings(layout.get(), headings == Headings::None ? 1 : 0));
    // What is to be broken is broken already: nothing is left for a terminal's width to decide.
    Check(scols_table_set_termforce(layout.get(), SCOLS_TERMFORCE_NEVER));
    for (const Column& column : table.columns) {
        // A column is as wide as its heading even where no headings are shown.
        const char* const heading = headings == Headings::Shown ? column.heading : "";
        libscols_column* const made = Check(scols_table_new_column(layout.get(), heading, 0, SCOLS_FL_WRAP));
        Check(scols_column_set_wrapfunc(made, scols_wrapnl_chunksize, scols_wrapnl_nextchunk, nullptr));
    }
    for (const std::vector<std::string>& row : table.rows) {
        libscols_line* line = Check(scols_table_new_line(layout.get(), nullptr));
        for (std::size_t i = 0; i < row.size(); ++i) {
            const std::string cell = boost::algorithm::join(BrokenBetweenWords(row[i], widths[i]), "\n");
            Check(scols_line_set_data(line, i, cell.c_str()));
        }
    }
    char* lines = nullptr;
    const int result = scols_print_table_to_string(layout.get(), &lines);
    const std::unique_ptr<char, void (*)(void*)> owner(lines, std::free);
    Check(result);
    return WithoutTrailingBlanks(Check(lines));
}

}  // namespace Zendra::ZDDevices
