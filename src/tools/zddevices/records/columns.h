/**
 * @file
 * @brief Which columns a table can have, and which of them the user wants.
 */
#ifndef ZENDRA_ZDDEVICES_COLUMNS_H
#define ZENDRA_ZDDEVICES_COLUMNS_H

#include <algorithm>
#include <string>
#include <vector>

#include "tools/zddevices/output/table.h"
#include "tools/zddevices/output/text.h"

namespace Zendra {
namespace ZDDevices {

/** When a column is part of the table. */
enum class Shown { ByDefault, WhenAsked };

/** A column of a table of records: what it looks like and what its cells hold, fit to be printed. */
template <typename Record>
struct RecordColumn {
    Column column;
    Shown shown;
    std::string (*cell)(const Record& record);
};

/** The record that a pointer to one of its texts belongs to. */
template <typename Record>
Record RecordOf(std::string Record::*field);

/** A cell that holds one of the record's texts. */
template <auto field>
std::string TextCell(const decltype(RecordOf(field))& record)
{
    return CellText(record.*field);
}

template <typename Record>
std::vector<std::string> HeadingsOf(const std::vector<RecordColumn<Record>>& columns)
{
    std::vector<std::string> headings;
    headings.reserve(columns.size());
    for (const RecordColumn<Record>& column : columns) {
        headings.push_back(column.column.heading);
    }
    return headings;
}

/** The columns of these headings in their order; those shown by default for no heading. Others are passed over. */
template <typename Record>
std::vector<const RecordColumn<Record>*> ChooseColumns(const std::vector<RecordColumn<Record>>& columns,
                                                       const std::vector<std::string>& headings)
{
    std::vector<const RecordColumn<Record>*> chosen;
    if (headings.empty()) {
        for (const RecordColumn<Record>& column : columns) {
            if (column.shown == Shown::ByDefault) {
                chosen.push_back(&column);
            }
        }
        return chosen;
    }
    for (const std::string& heading : headings) {
        const auto found = std::find_if(columns.begin(), columns.end(), [&](const RecordColumn<Record>& column) {
            return column.column.heading == heading;
        });
        if (found != columns.end()) {
            chosen.push_back(&*found);
        }
    }
    return chosen;
}

/** What the user's list of columns means. */
struct ColumnChoice {
    /** The headings, as they are known. */
    std::vector<std::string> headings;
    /** Which of the names is none, and which there are; empty when all are good. */
    std::string problem;
};

/** Reads names separated by commas; capitals do not matter, nor do blanks around a name. */
ColumnChoice ParseColumns(const std::string& list, const std::vector<std::string>& known);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
