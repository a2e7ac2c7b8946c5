// What the program writes of a host's records: messages in one line, tables, JSON and metrics.
//
// Input: byte 0: bits 0 and 1: the kind of record; bit 2: the locale's character set is UTF-8; bit 3: no headings;
// bit 4: root's messages. Byte 1: the columns of the terminal, 40 at least; 0 for no limit. Byte 2: the number of
// missing devices, up to 15. For each of these a byte that chooses the reason, one that is the error number, and three
// texts. Then the records' texts. Each text is ended by a NUL.

#include <rapidjson/document.h>

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "check.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/prometheus.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"

using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using namespace Zendra::ZDDevices;

namespace {

using Texts = std::vector<std::string>;

/** A character of a text; its code is -1 for a byte that is not UTF-8. */
struct Piece {
    std::string bytes;
    long code;
};

/** A reader by table 3-7 of the Unicode standard. */
std::vector<Piece> Pieces(const std::string& text)
{
    std::vector<Piece> pieces;
    for (std::size_t i = 0; i < text.size();) {
        const auto byte = [&](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
        const unsigned first = byte(i);
        const unsigned second = byte(i + 1);
        std::size_t size = first < 0x80   ? 1
                           : first < 0xC2 ? 0
                           : first < 0xE0 ? 2
                           : first < 0xF0 ? 3
                           : first < 0xF5 ? 4
                                          : 0;
        const unsigned lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
        const unsigned highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
        if (size > 1 && (second < lowest || second > highest)) {
            size = 0;
        }
        for (std::size_t at = i + 2; at < i + size; ++at) {
            size = (byte(at) & 0xC0U) == 0x80 ? size : 0;
        }
        long code = size == 0 ? -1 : static_cast<long>(size == 1 ? first : first & (0x7FU >> size));
        for (std::size_t at = 1; at < size; ++at) {
            code = code << 6 | static_cast<long>(byte(i + at) & 0x3FU);
        }
        size = std::max<std::size_t>(size, 1);
        pieces.push_back({text.substr(i, size), code});
        i += size;
    }
    return pieces;
}

/** Whether nobody sees the character, or sees its neighbours in another order. */
bool Deceives(long code)
{
    return code == 0xAD || code == 0x61C || code == 0x180E || (code >= 0x200B && code <= 0x200F) ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2060 && code <= 0x206F) || code == 0xFEFF ||
           (code >= 0xE0000 && code <= 0xE0FFF);
}

/** UTF-8 in which no character acts on a terminal or deceives a reader; ASCII where nothing else can be shown. */
void CheckLine(const std::string& line, bool isAscii)
{
    for (const Piece& piece : Pieces(line)) {
        Require(piece.code >= 0, "what is written is UTF-8");
        Require(piece.code >= ' ' && !(piece.code >= 0x7F && piece.code <= 0x9F), "there are no control characters");
        Require(!Deceives(piece.code), "all characters show, in their order");
        Require(!isAscii || piece.code < 0x7F, "a locale without UTF-8 shows ASCII");
    }
}

/** Lines without their ends. */
Texts Lines(const std::string& text)
{
    Texts lines;
    for (std::size_t first = 0; first < text.size();) {
        const std::size_t end = text.find('\n', first);
        Require(end != std::string::npos, "the last line is ended");
        lines.push_back(text.substr(first, end - first));
        first = end + 1;
    }
    return lines;
}

/** What was escaped, as it was. @param lineFeed whether a line feed is written as \n. */
std::string Unescaped(const std::string& text, bool lineFeed)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.compare(i, 2, "\\x") == 0) {
            out += static_cast<char>(std::stoi(text.substr(i + 2, 2), nullptr, 16));
            i += 3;
        } else if (lineFeed && text.compare(i, 2, "\\n") == 0) {
            out += '\n';
            ++i;
        } else {
            out += text[i];
        }
    }
    return out;
}

/** What a device sent, without what pads it. */
std::string Core(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(" \t\n\v\f\r");
    std::string core = first == std::string::npos ? "" : text.substr(first);
    while (!core.empty() && (static_cast<unsigned char>(core.back()) <= ' ' || core.back() == '\x7f')) {
        core.pop_back();
    }
    return core;
}

/** Columns of a terminal. */
std::size_t Width(const std::string& line)
{
    std::wstring wide(line.size() + 1, L'\0');
    const std::size_t count = std::mbstowcs(wide.data(), line.c_str(), wide.size());
    const int width = count == std::string::npos ? -1 : wcswidth(wide.c_str(), count);
    Require(width >= 0, "the terminal knows the width of each line");
    return static_cast<std::size_t>(width);
}

/** How a text is to be written. */
struct Style {
    bool isUtf8;
    Headings headings;
    bool isRoot;
    std::size_t width;
};

Texts TakeTexts(Zendra::Fuzz::Input& input, std::size_t count)
{
    Texts texts(count);
    for (std::string& text : texts) {
        for (char c = static_cast<char>(input.Byte()); c != '\0'; c = static_cast<char>(input.Byte())) {
            text += c;
        }
    }
    return texts;
}

void CheckMessages(const std::vector<Missing>& missing, const Style& style)
{
    for (const Missing& one : missing) {
        for (const std::string& text : {one.deviceFile, one.message}) {
            RequireEqual(Unescaped(Printable(text), false), text, "what is escaped can be read back");
            std::string line = PrintableLine(text);
            RequireEqual(Unescaped(line, true), text, "a line of the log can be read back");
            line.erase(std::remove(line.begin(), line.end(), '\t'), line.end());
            CheckLine(line, !style.isUtf8);
        }
    }
    std::string all;
    for (const std::string& line : DescribeMissing(missing, style.isRoot)) {
        CheckLine(line, !style.isUtf8);
        all += "- " + line + '\n';
    }
    const std::string folded = FoldedLines(all, style.width);
    for (const std::string& line : Lines(folded)) {
        CheckLine(line, !style.isUtf8);
        RequireEqual(style.width != 0 && Width(line) > style.width ? line : "", "", "a message fits the terminal");
    }
}

/** All characters but blanks, in the order of their bytes. */
std::string Sorted(std::string text)
{
    text.erase(std::remove_if(text.begin(), text.end(), [](char c) { return c == ' ' || c == '\n'; }), text.end());
    std::sort(text.begin(), text.end());
    return text;
}

template <typename Record>
void CheckTable(const std::vector<Record>& records, const Style& style)
{
    const Texts columns = HeadingsOf<Record>();
    const Table table = TableOf(records, columns);
    const Texts lines = Lines(RenderTable(table, 0, style.headings));
    const std::size_t headings = style.headings == Headings::Shown ? 1 : 0;
    RequireEqual(static_cast<std::int64_t>(lines.size()), static_cast<std::int64_t>(records.size() + headings),
                 "each row is a line");
    std::string cells;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::string& line = lines[i + headings];
        CheckLine(line, !style.isUtf8);
        std::size_t at = 0;
        for (std::size_t j = 0; j < columns.size(); ++j) {
            const Field<Record>& field = *FieldsOf<Record>({columns[j]}).at(0);
            std::string text = field.compose != nullptr ? field.compose(records[i]) : records[i].*field.member;
            if (field.content == Content::Lines) {
                std::replace(text.begin(), text.end(), '\n', ' ');
            }
            const std::string& cell = table.rows[i][j];
            RequireEqual(cell == "-" && Core(text).empty() ? "" : Unescaped(cell, false), Core(text),
                         "a cell is what the device sent");
            at = line.find_first_not_of(' ', at);
            Require(at != std::string::npos && line.compare(at, cell.size(), cell) == 0,
                    "the cells follow one another");
            at += cell.size();
            Require(at == line.size() || line[at] == ' ', "a blank ends a cell");
            cells += cell;
        }
        RequireEqual(static_cast<std::int64_t>(at), static_cast<std::int64_t>(line.size()),
                     "a line ends with its cells");
    }
    if (style.width == 0) {
        return;
    }
    const std::string folded = RenderTable(table, style.width, style.headings);
    for (const std::string& line : Lines(folded)) {
        CheckLine(line, !style.isUtf8);
        RequireEqual(Width(line) > style.width ? line : "", "", "a table fits the terminal");
    }
    if (style.headings == Headings::None) {
        RequireEqual(Sorted(folded), Sorted(cells), "a narrow table has all that its cells have");
    }
}

/** The text with U+FFFD for each byte that is not UTF-8. */
std::string Utf8Of(const std::string& text)
{
    std::string out;
    for (const Piece& piece : Pieces(text)) {
        out += piece.code < 0 ? "\xEF\xBF\xBD" : piece.bytes;
    }
    return out;
}

std::string TextOfValue(const rapidjson::Value& value)
{
    return value.IsNull() ? std::string() : std::string(value.GetString(), value.GetStringLength());
}

template <typename Record>
void CheckMember(const rapidjson::Value& value, const std::string& text, Content content)
{
    if (content == Content::Number) {
        const bool isNumber = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
        const std::string digits = text.substr(std::min(text.find_first_not_of('0'), text.size()));
        const std::string number = digits.empty() ? "0" : digits;
        const bool fits = number.size() < 20 || (number.size() == 20 && number <= "18446744073709551615");
        Require(value.IsUint64() == (isNumber && fits) && value.IsUint64() != value.IsNull(), "digits are a number");
        RequireEqual(value.IsNull() ? number : std::to_string(value.GetUint64()), number, "a number is the number");
    } else if (content == Content::Lines) {
        std::string lines;
        for (const rapidjson::Value& one : value.GetArray()) {
            lines += TextOfValue(one) + '\n';
        }
        const bool ends = text.empty() || text.back() == '\n';
        RequireEqual(lines, Utf8Of(text) + (ends ? "" : "\n"), "the lines are the text's");
    } else {
        Require(value.IsNull() == text.empty(), "null is an empty text");
        RequireEqual(TextOfValue(value), Utf8Of(text), "a text is the device's");
    }
}

template <typename Record>
void CheckJson(const Report<Record>& report)
{
    const ReportOrigin origin = {"host", "2024-02-29T12:00:00Z"};
    const std::string json = RenderJson(report, origin);
    for (const std::string& line : Lines(json)) {
        CheckLine(line, true);
    }
    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag | rapidjson::kParseFullPrecisionFlag>(json.data(),
                                                                                               json.size());
    Require(!document.HasParseError(), "JSON can be parsed");
    const auto unanswered = document["unanswered"].GetArray();
    Require(unanswered.Size() == report.missing.size() && document["complete"].GetBool() == report.missing.empty(),
            "all that is missing is there");
    for (rapidjson::SizeType i = 0; i < unanswered.Size(); ++i) {
        CheckMember<Record>(unanswered[i]["device_file"], report.missing[i].deviceFile, Content::Text);
        RequireEqual(TextOfValue(unanswered[i]["message"]), Utf8Of(report.missing[i].message), "a message is itself");
        RequireEqual(TextOfValue(unanswered[i]["reason"]), WordOf(report.missing[i].reason), "a reason has its word");
        RequireEqual(unanswered[i]["errno"].IsNull() ? 0 : unanswered[i]["errno"].GetInt(), report.missing[i].error,
                     "an error number is itself");
    }
    const auto records = document[KindOf<Record>().recordsKey].GetArray();
    RequireEqual(static_cast<std::int64_t>(records.Size()), static_cast<std::int64_t>(report.records.size()),
                 "records");
    for (rapidjson::SizeType i = 0; i < records.Size(); ++i) {
        for (const Field<Record>& field : KindOf<Record>().fields) {
            if (field.key != nullptr && field.member != nullptr) {
                CheckMember<Record>(records[i][field.key], report.records[i].*field.member, field.content);
            }
        }
    }
}

/** A sample of the text exposition format: its name, its labels without their escapes, and its value. */
struct Sample {
    std::string name;
    std::map<std::string, std::string> labels;
    std::string value;
};

std::string TakeName(const std::string& line, std::size_t& at)
{
    const std::size_t first = at;
    while (at < line.size() && (line[at] == '_' || (line[at] >= 'a' && line[at] <= 'z'))) {
        ++at;
    }
    Require(at > first, "a name has letters");
    return line.substr(first, at - first);
}

/** A reader by the format's own description. */
Sample ReadSample(const std::string& line)
{
    Sample sample;
    std::size_t at = 0;
    sample.name = TakeName(line, at);
    const bool hasLabels = line[at] == '{';
    for (char before = '{'; hasLabels && line[at] == before; before = ',') {
        ++at;
        const std::string name = TakeName(line, at);
        Require(line.compare(at, 2, "=\"") == 0, "a label has a value");
        std::string value;
        for (at += 2; at < line.size() && line[at] != '"'; ++at) {
            if (line[at] == '\\') {
                ++at;
                Require(at < line.size() && (line[at] == '\\' || line[at] == '"' || line[at] == 'n'),
                        "an escape is known");
                value += line[at] == 'n' ? '\n' : line[at];
            } else {
                value += line[at];
            }
        }
        Require(at < line.size(), "quotes are closed");
        ++at;
        Require(sample.labels.emplace(name, value).second, "no label stands twice");
    }
    Require(!hasLabels || line[at++] == '}', "labels stand in braces");
    Require(at < line.size() && line[at] == ' ', "a blank ends the labels");
    sample.value = line.substr(at + 1);
    Require(!sample.value.empty() && sample.value.find_first_not_of("0123456789.") == std::string::npos,
            "a value is a number");
    return sample;
}

/** The samples of each family; each stands behind its own heading, and none twice. */
std::map<std::string, std::vector<Sample>> ReadMetrics(const std::string& text)
{
    std::map<std::string, std::vector<Sample>> families;
    std::set<std::pair<std::string, std::map<std::string, std::string>>> series;
    std::string family;
    std::string announced;
    for (const std::string& line : Lines(text)) {
        CheckLine(line, false);
        if (line.compare(0, 7, "# HELP ") == 0) {
            announced = line.substr(7, line.find(' ', 7) - 7);
            Require(families.emplace(announced, std::vector<Sample>()).second, "a family stands together");
        } else if (line.compare(0, 7, "# TYPE ") == 0) {
            RequireEqual(line, "# TYPE " + announced + " gauge", "a type follows its help");
            family = announced;
        } else {
            const Sample sample = ReadSample(line);
            RequireEqual(sample.name, family, "a sample is of its family");
            Require(series.emplace(sample.name, sample.labels).second, "no series stands twice");
            families[family].push_back(sample);
        }
    }
    return families;
}

template <typename Record>
void CheckLabels(const std::vector<Sample>& samples, const std::vector<Record>& records, const Texts& headings)
{
    RequireEqual(static_cast<std::int64_t>(samples.size()), static_cast<std::int64_t>(records.size()), "samples");
    for (std::size_t i = 0; i < records.size(); ++i) {
        for (const Field<Record>* field : FieldsOf<Record>(headings)) {
            std::string name = field->column.heading;
            std::transform(name.begin(), name.end(), name.begin(),
                           [](char c) { return c == '-' ? '_' : static_cast<char>(c - 'A' + 'a'); });
            const auto found = samples[i].labels.find(name);
            Require(found != samples[i].labels.end(), "each column is a label");
            RequireEqual(Unescaped(found->second, false), Core(TextOf(records[i], *field)),
                         "a label is the device's text");
        }
    }
}

void CheckMissing(std::map<std::string, std::vector<Sample>>& families, const std::vector<Missing>& missing)
{
    std::set<std::pair<std::string, std::string>> files;
    std::int64_t denied = 0;
    for (const Missing& one : missing) {
        denied += one.reason == Reason::Denied ? 1 : 0;
        if (!one.deviceFile.empty()) {
            files.emplace(Core(one.deviceFile), WordOf(one.reason));
        }
    }
    std::set<std::pair<std::string, std::string>> seen;
    for (Sample& sample : families["zendra_device_missing"]) {
        seen.emplace(Unescaped(sample.labels["device_file"], false), sample.labels["reason"]);
    }
    Require(seen == files, "each missing file is a sample");
    RequireEqual(families["zendra_device_files_denied"].at(0).value, std::to_string(denied),
                 "denied files are counted");
}

std::string Metrics(const Inventory& inventory)
{
    return RenderPrometheus(inventory, std::chrono::system_clock::time_point(std::chrono::seconds(1700000000)));
}

void CheckMetrics(Inventory inventory, const std::vector<StorageDevice>& devices)
{
    inventory.devices = devices;
    auto families = ReadMetrics(Metrics(inventory));
    CheckLabels(families["zendra_device_info"], devices,
                {"DEVICE", "ADDRESS", "TYPE", "VENDOR", "PRODUCT", "SERIAL", "FIRMWARE", "WWN"});
    CheckMissing(families, inventory.missing);
}

void CheckMetrics(Inventory inventory, const std::vector<DiskFirmware>& identities)
{
    inventory.firmware = identities;
    auto families = ReadMetrics(Metrics(inventory));
    CheckLabels(families["zendra_disk_firmware_info"], identities, {"SOFTWARE-ID", "VERSION", "SERIAL"});
}

void CheckMetrics(Inventory inventory, const std::vector<Zendra::ZDSystemDevice::OpticalProperty>& drives)
{
    inventory.drives = drives;
    auto families = ReadMetrics(Metrics(inventory));
    CheckLabels(families["zendra_optical_drive_info"], drives, {"DRIVE", "VENDOR", "PRODUCT"});
    for (const Sample& sample : families["zendra_optical_capability"]) {
        Require(sample.value == "0" || sample.value == "1", "a drive can or cannot");
    }
}

/** The facade's records have no metrics. */
void CheckMetrics(const Inventory& /*inventory*/, const std::vector<Zendra::ZDSystemDevice::SystemDevice>& /*devices*/)
{
}

template <typename Record>
void Check(Zendra::Fuzz::Input& input, const Inventory& inventory, const Style& style)
{
    constexpr std::size_t mostRecords = 8;
    Report<Record> report;
    report.missing = inventory.missing;
    while (!input.IsEmpty() && report.records.size() < mostRecords) {
        Record& record = report.records.emplace_back();
        const std::vector<Field<Record>>& members = MembersOf<Record>();
        const Texts texts = TakeTexts(input, members.size());
        for (std::size_t i = 0; i < members.size(); ++i) {
            record.*members[i].member = texts[i];
        }
    }
    if (!report.records.empty()) {
        CheckTable(report.records, style);
    }
    CheckJson(report);
    CheckMetrics(inventory, report.records);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::Input input(data, size);
    const unsigned choice = input.Byte();
    const std::size_t width = input.Byte();
    constexpr std::size_t narrowest = 40;
    const Style style = {(choice & 4U) != 0, (choice & 8U) != 0 ? Headings::None : Headings::Shown, (choice & 16U) != 0,
                         width == 0 ? 0 : std::max(width, narrowest)};
    std::setlocale(LC_CTYPE, style.isUtf8 ? "C.UTF-8" : "C");
    Inventory inventory;
    std::set<std::string> files;
    for (std::size_t left = input.Byte() % 16U; left > 0; --left) {
        constexpr unsigned reasons = static_cast<unsigned>(Reason::NoDriver) + 1;
        const auto reason = static_cast<Reason>(input.Byte() % reasons);
        const int error = input.Byte();
        const Texts texts = TakeTexts(input, 3);
        // No device file is missing twice, and paths have no padding.
        if (!files.insert(Core(texts[0])).second && !texts[0].empty()) {
            continue;
        }
        inventory.missing.push_back({texts[0], reason, error, texts[1], texts[2]});
    }
    CheckMessages(inventory.missing, style);
    switch (choice & 3U) {
    case 0:
        Check<StorageDevice>(input, inventory, style);
        break;
    case 1:
        Check<Zendra::ZDSystemDevice::SystemDevice>(input, inventory, style);
        break;
    case 2:
        Check<DiskFirmware>(input, inventory, style);
        break;
    default:
        Check<Zendra::ZDSystemDevice::OpticalProperty>(input, inventory, style);
    }
    return 0;
}
