#include "tools/zddevices/output/csv.h"

#include "toolTests.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {
namespace {

std::string LineOf(const std::vector<std::string>& cells)
{
    return RenderCsv({std::vector<Column>(cells.size()), {cells}}, Headings::None);
}

TEST(Csv, IsCellsBetweenCommasAndLinesThatEndInCrLf)
{
    const Table table = {{{"DEVICE"}, {"SERIAL"}}, {{"sda", "A 1"}, {"sdb", ""}}};
    EXPECT_EQ(RenderCsv(table, Headings::Shown), "DEVICE,SERIAL\r\nsda,A 1\r\nsdb,\r\n");
    EXPECT_EQ(RenderCsv(table, Headings::None), "sda,A 1\r\nsdb,\r\n");
    EXPECT_EQ(RenderCsv({{{"DEVICE"}}, {}}, Headings::Shown), "DEVICE\r\n");
}

TEST(Csv, QuotesWhatWouldEndACell)
{
    EXPECT_EQ(LineOf({"a,b", "say \"no\"", "a\nb", "\r"}), "\"a,b\",\"say \"\"no\"\"\",\"a\nb\",\"\r\"\r\n");
    EXPECT_EQ(LineOf({""}), "\"\"\r\n");
}

TEST(Csv, FormulasAreTexts)
{
    EXPECT_EQ(LineOf({"=1+1", "+1", "-1", "@SUM(A1)"}), "'=1+1,'+1,'-1,'@SUM(A1)\r\n");
    EXPECT_EQ(LineOf({"=HYPERLINK(\"http://x\",\"y\")"}), "\"'=HYPERLINK(\"\"http://x\"\",\"\"y\"\")\"\r\n");
    EXPECT_EQ(LineOf({"\xEF\xBC\x9D"
                      "1"}),
              "'\xEF\xBC\x9D"
              "1\r\n");
    EXPECT_EQ(LineOf({"A=1", "HX-900", "a@b"}), "A=1,HX-900,a@b\r\n");
}

/** The cells of a line, read by RFC 4180's grammar; none when it is not of that grammar. */
std::vector<std::string> CellsOf(const std::string& line)
{
    std::vector<std::string> cells(1);
    std::size_t i = 0;
    while (line.compare(i, std::string::npos, "\r\n") != 0) {
        if (line.at(i) == '"') {
            for (++i; line.at(i) != '"' || line.at(i + 1) == '"'; ++i) {
                cells.back() += line[i];
                i += line[i] == '"' ? 1 : 0;
            }
            ++i;
        } else {
            for (; line.at(i) != ',' && line.at(i) != '\r'; ++i) {
                if (line[i] == '"') {
                    return {};
                }
                cells.back() += line[i];
            }
        }
        if (line.at(i) == ',') {
            cells.emplace_back();
            ++i;
        } else if (line.compare(i, std::string::npos, "\r\n") != 0) {
            return {};
        }
    }
    return cells;
}

TEST(Csv, HostileTextsStayInTheirCells)
{
    HostileTexts texts(7);
    for (int i = 0; i < 3000; ++i) {
        const std::vector<std::string> cells = {LabelText(texts.Next()), LabelText("=" + texts.Next()),
                                                LabelText(texts.Next() + ",\"")};
        const std::string line = LineOf(cells);
        EXPECT_EQ(line.find_first_of("\x1b\x7f\n"), line.size() - 1);
        std::vector<std::string> read = CellsOf(line);
        ASSERT_EQ(read.size(), 3U) << line;
        EXPECT_EQ(read[1], "'" + cells[1]);
        for (const std::size_t one : {0U, 2U}) {
            const bool protects = !read[one].empty() && read[one][0] == '\'' && read[one] != cells[one];
            EXPECT_EQ(protects ? read[one].substr(1) : read[one], cells[one]);
        }
    }
}

}  // namespace
}  // namespace Zendra::ZDDevices
