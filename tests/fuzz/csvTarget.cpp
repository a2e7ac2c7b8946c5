// Tables for spreadsheets: RenderCsv() of texts as devices may send them.
//
// Input: byte 0: the number of columns, 1 to 4. Then the cells, each ended by a NUL.

#include <string>
#include <vector>

#include "check.h"
#include "tools/zddevices/output/csv.h"
#include "tools/zddevices/output/text.h"

using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using namespace Zendra::ZDDevices;

namespace {

using Row = std::vector<std::string>;

/** A reader by the grammar of RFC 4180, which knows nothing of how the file is written. */
std::vector<Row> Read(const std::string& file)
{
    std::vector<Row> rows;
    Row row(1);
    bool quoted = false;
    for (std::size_t i = 0; i < file.size(); ++i) {
        const char c = file[i];
        if (quoted) {
            const bool twice = c == '"' && i + 1 < file.size() && file[i + 1] == '"';
            quoted = c != '"' || twice;
            i += twice ? 1 : 0;
            row.back().append(quoted ? 1 : 0, c);
        } else if (c == '"') {
            Require(row.back().empty() && (i == 0 || file[i - 1] != '"'), "quotes begin a cell");
            quoted = true;
        } else if (c == ',') {
            row.emplace_back();
        } else if (c == '\r') {
            ++i;
            Require(i < file.size() && file[i] == '\n', "a line ends in CR and LF");
            rows.push_back(row);
            row = Row(1);
        } else {
            Require(static_cast<unsigned char>(c) >= ' ' && c != '\x7f', "there are no control characters");
            row.back() += c;
        }
    }
    Require(!quoted && row == Row(1), "the last line is ended");
    return rows;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::Input input(data, size);
    const std::size_t width = input.Byte() % 4 + 1;
    Table table;
    table.columns.resize(width);
    while (!input.IsEmpty()) {
        Row& row = table.rows.emplace_back();
        while (row.size() < width) {
            std::string text;
            for (char c = static_cast<char>(input.Byte()); c != '\0'; c = static_cast<char>(input.Byte())) {
                text += c;
            }
            row.push_back(LabelText(text));
        }
    }
    const std::vector<Row> rows = Read(RenderCsv(table, Headings::None));
    RequireEqual(static_cast<std::int64_t>(rows.size()), static_cast<std::int64_t>(table.rows.size()), "rows");
    for (std::size_t i = 0; i < rows.size(); ++i) {
        RequireEqual(static_cast<std::int64_t>(rows[i].size()), static_cast<std::int64_t>(width), "cells");
        for (std::size_t j = 0; j < width; ++j) {
            const std::string& cell = rows[i][j];
            const std::string& text = table.rows[i][j];
            const bool isFormula = !text.empty() && std::string("=+-@").find(text[0]) != std::string::npos;
            if (isFormula || cell != text) {
                RequireEqual(cell, "'" + text, "a formula has an apostrophe before it, and any other text is itself");
            }
            Require(cell.empty() || std::string("=+-@\t\r").find(cell[0]) == std::string::npos, "no cell is a formula");
        }
    }
    return 0;
}
