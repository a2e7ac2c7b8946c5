#include "tools/zddevices/output/table.h"

#include <libsmartcols/libsmartcols.h>

#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <new>
#include <sstream>
#include <stdexcept>

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

/** In the order of Overflow. */
constexpr int columnFlags[] = {SCOLS_FL_WRAP, SCOLS_FL_TRUNC, 0};

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

}  // namespace

std::string RenderTable(const Table& table, std::size_t width, Headings headings)
{
    const std::unique_ptr<libscols_table, decltype(&scols_unref_table)> layout(Check(scols_new_table()),
                                                                               scols_unref_table);
    // The cells have been made printable; a second encoding would escape the escapes.
    Check(scols_table_enable_noencoding(layout.get(), 1));
    Check(scols_table_enable_noheadings(layout.get(), headings == Headings::None ? 1 : 0));
    Check(scols_table_set_termforce(layout.get(), width > 0 ? SCOLS_TERMFORCE_ALWAYS : SCOLS_TERMFORCE_NEVER));
    if (width > 0) {
        Check(scols_table_set_termwidth(layout.get(), width));
    }
    for (const Column& column : table.columns) {
        const int flags = columnFlags[static_cast<std::size_t>(column.overflow)];
        Check(scols_table_new_column(layout.get(), column.heading, column.share, flags));
    }
    for (const std::vector<std::string>& row : table.rows) {
        libscols_line* line = Check(scols_table_new_line(layout.get(), nullptr));
        for (std::size_t i = 0; i < row.size(); ++i) {
            Check(scols_line_set_data(line, i, row[i].c_str()));
        }
    }
    char* lines = nullptr;
    const int result = scols_print_table_to_string(layout.get(), &lines);
    const std::unique_ptr<char, void (*)(void*)> owner(lines, std::free);
    Check(result);
    return WithoutTrailingBlanks(Check(lines));
}

}  // namespace Zendra::ZDDevices
