#include "tools/zddevices/output/json.h"

#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/report.h"
#include "tools/zddevices/records/status.h"

namespace Zendra {
namespace ZDDevices {

namespace {

constexpr unsigned int indentation = 2;

/** The document about some two hundred disks: enough for most hosts, and no burden to the others. */
constexpr std::size_t usualSize = 64UL * 1024;

/** Eight bytes at once, as there are many texts; how they are ordered does not matter here. */
using Word = std::uint64_t;

constexpr Word EightTimes(char c)
{
    constexpr Word ones = 0x0101010101010101;
    return ones * static_cast<unsigned char>(c);
}

/** Whether one of the bytes is a quotation mark, a backslash, or outside of what ASCII prints. */
bool HasSpecial(Word bytes)
{
    constexpr Word ones = EightTimes('\1');
    constexpr Word highBits = EightTimes('\x80');
    // A high bit is set where a byte was too small and borrowed; a borrow out of a neighbour comes with one of its own.
    const Word quotation = bytes ^ EightTimes('"');
    const Word backslash = bytes ^ EightTimes('\\');
    const Word tooSmall =
        ((bytes - EightTimes(' ')) & ~bytes) | ((quotation - ones) & ~quotation) | ((backslash - ones) & ~backslash);
    // DEL becomes 0x80.
    const Word tooLarge = bytes | (bytes + ones);
    return ((tooSmall | tooLarge) & highBits) != 0;
}

/** Whether every byte stands for itself between quotation marks. */
bool IsPlain(std::string_view text)
{
    Word bytes = 0;
    for (; text.size() >= sizeof(bytes); text.remove_prefix(sizeof(bytes))) {
        std::memcpy(&bytes, text.data(), sizeof(bytes));
        if (HasSpecial(bytes)) {
            return false;
        }
    }
    bytes = EightTimes(' ');
    std::memcpy(&bytes, text.data(), text.size());
    return !HasSpecial(bytes);
}

}  // namespace

JsonWriter::JsonWriter() : buffer(nullptr, usualSize), writer(buffer)
{
    writer.SetIndent(' ', indentation);
}

void JsonWriter::Text(std::string_view text)
{
    if (IsPlain(text)) {
        writer.Plain(text.data(), text.size());
        return;
    }
    const std::string valid = ValidUtf8(text);
    writer.String(valid.data(), JsonSize(valid.size()));
}

void JsonWriter::RecordText(std::string_view text)
{
    if (text.empty()) {
        Null();
    } else {
        Text(text);
    }
}

void JsonWriter::AddressNumber(std::string_view field)
{
    std::uint16_t number = 0;
    const char* end = field.data() + field.size();
    const std::from_chars_result result = std::from_chars(field.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) {
        Null();
    } else {
        Number(static_cast<unsigned int>(number));
    }
}

std::string JsonWriter::Document()
{
    buffer.Put('\n');
    return std::string(buffer.GetString(), buffer.GetSize());
}

Occasion HereAndNow()
{
    char name[HOST_NAME_MAX + 1] = {};
    if (gethostname(name, sizeof(name) - 1) != 0) {
        throw std::runtime_error("the host's name cannot be read");
    }
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char text[sizeof("2024-02-29T12:00:00Z")] = {};
    if (gmtime_r(&now, &utc) == nullptr || std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &utc) == 0) {
        throw std::runtime_error("the time cannot be read");
    }
    return {name, text};
}

void BeginDocument(JsonWriter& json, const std::string& schema, const Occasion& occasion)
{
    json.BeginObject();
    json.Key("schema");
    json.Text(schema);
    json.Key("host");
    json.Text(occasion.host);
    json.Key("collected_at");
    json.Text(occasion.collectedAt);
}

std::string RenderJson(const Report& report, const Occasion& occasion)
{
    JsonWriter json;
    BeginDocument(json, report.schema, occasion);
    json.Key("status");
    json.BeginObject();
    json.Key("code");
    json.Number(report.status);
    json.Key("name");
    json.Text(StatusName(report.status));
    json.EndObject();
    json.Key("complete");
    json.Boolean(report.unanswered.empty());
    if (!report.unanswered.empty()) {
        json.Key("unanswered");
        json.BeginArray();
        for (const Unanswered& unanswered : report.unanswered) {
            json.Text(unanswered.className);
        }
        json.EndArray();
    }
    json.Key(report.recordsKey);
    report.records(json);
    json.EndObject();
    return json.Document();
}

}  // namespace ZDDevices
}  // namespace Zendra
