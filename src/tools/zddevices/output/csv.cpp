#include "tools/zddevices/output/csv.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/replace.hpp>

namespace Zendra::ZDDevices {

namespace {

/** What formulas begin with, in the wide forms of East Asian keyboards, too. */
constexpr const char* formulaSigns[] = {"=",           "+", "-", "@", "\xEF\xBC\x9D", "\xEF\xBC\x8B", "\xEF\xBC\x8D",
                                        "\xEF\xBC\xA0"};

std::string Cell(std::string text)
{
    if (std::any_of(std::begin(formulaSigns), std::end(formulaSigns),
                    [&text](const char* sign) { return boost::algorithm::starts_with(text, sign); })) {
        text.insert(0, "'");
    }
    if (text.find_first_of("\",\r\n") != std::string::npos) {
        boost::algorithm::replace_all(text, "\"", "\"\"");
        text = '"' + text + '"';
    }
    return text;
}

std::string Line(const std::vector<std::string>& texts)
{
    std::vector<std::string> cells(texts.size());
    std::transform(texts.begin(), texts.end(), cells.begin(), Cell);
    // A line of one empty cell would be an empty line, which programs pass over.
    return (cells == std::vector<std::string>{""} ? "\"\"" : boost::algorithm::join(cells, ",")) + "\r\n";
}

}  // namespace

std::string RenderCsv(const Table& table, Headings headings)
{
    std::vector<std::string> names;
    for (const Column& column : table.columns) {
        names.emplace_back(column.heading);
    }
    std::string text = headings == Headings::Shown ? Line(names) : std::string();
    for (const std::vector<std::string>& row : table.rows) {
        text += Line(row);
    }
    return text;
}

}  // namespace Zendra::ZDDevices
