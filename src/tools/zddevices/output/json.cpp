#include "tools/zddevices/output/json.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdint>
#include <ctime>
#include <stdexcept>

#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

namespace {

/** Decimal digits as a number; null when there are none. */
void WriteNumber(JsonWriter& json, std::string_view digits)
{
    std::uint64_t number = 0;
    const char* end = digits.data() + digits.size();
    const std::from_chars_result result = std::from_chars(digits.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) {
        json.Null();
    } else {
        json.Uint64(number);
    }
}

/** Texts that each end with a line end, as an array. */
void WriteLines(JsonWriter& json, std::string_view lines)
{
    json.StartArray();
    while (!lines.empty()) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        WriteText(json, line);
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
    }
    json.EndArray();
}

}  // namespace

std::string ToJson(const std::function<void(JsonWriter&)>& write)
{
    JsonText characters;
    rapidjson::BasicOStreamWrapper<JsonText> stream(characters);
    JsonWriter json(stream);
    constexpr unsigned int indentation = 2;
    json.SetIndent(' ', indentation);
    write(json);
    // To JSON it is a character like any other, to a terminal it is none.
    std::string& text = characters.text;
    for (std::size_t del = text.find('\x7F'); del != std::string::npos; del = text.find('\x7F', del)) {
        text.replace(del, 1, "\\u007F");
    }
    return std::move(text) + '\n';
}

void WriteText(JsonWriter& json, std::string_view text)
{
    const std::string valid = ValidUtf8(text);
    json.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

void WriteText(JsonWriter& json, const char* key, std::string_view text)
{
    json.Key(key);
    WriteText(json, text);
}

void WriteRecordText(JsonWriter& json, const char* key, std::string_view text)
{
    json.Key(key);
    if (text.empty()) {
        json.Null();
    } else {
        WriteText(json, text);
    }
}

ReportOrigin HereAndNow()
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

std::string RenderDocument(const char* schema, const ReportOrigin& origin,
                           const std::function<void(JsonWriter&)>& write)
{
    return ToJson([&](JsonWriter& json) {
        json.StartObject();
        WriteText(json, "schema", schema);
        WriteText(json, "host", origin.host);
        WriteText(json, "collected_at", origin.collectedAt);
        if (!origin.type.empty()) {
            WriteText(json, "type", origin.type);
        }
        if (!origin.filters.empty()) {
            json.Key("filters");
            json.StartArray();
            for (const std::string& filter : origin.filters) {
                WriteText(json, filter);
            }
            json.EndArray();
        }
        write(json);
        json.EndObject();
    });
}

void WriteMissing(JsonWriter& json, const Missing& missing)
{
    json.StartObject();
    WriteRecordText(json, "device_file", missing.deviceFile);
    WriteText(json, "reason", WordOf(missing.reason));
    json.Key("errno");
    if (missing.error == 0) {
        json.Null();
    } else {
        json.Int(missing.error);
    }
    WriteText(json, "message", missing.message);
    json.EndObject();
}

template <typename Record>
void WriteRecord(JsonWriter& json, const Record& record)
{
    json.StartObject();
    for (const Field<Record>& field : MembersOf<Record>()) {
        if (field.key == nullptr) {
            continue;
        }
        if (field.content == Content::Number || field.content == Content::Lines) {
            json.Key(field.key);
            (field.content == Content::Number ? WriteNumber : WriteLines)(json, record.*field.member);
        } else {
            WriteRecordText(json, field.key, record.*field.member);
        }
    }
    json.EndObject();
}

template <typename Record>
std::string RenderJson(const Report<Record>& report, const ReportOrigin& origin)
{
    return RenderDocument(KindOf<Record>().schema, origin, [&report](JsonWriter& json) {
        json.Key("status");
        json.StartObject();
        json.Key("code");
        json.Uint(report.status);
        WriteText(json, "name", StatusName(report.status));
        json.EndObject();
        json.Key("complete");
        json.Bool(report.missing.empty());
        json.Key("unanswered");
        json.StartArray();
        for (const Missing& missing : report.missing) {
            WriteMissing(json, missing);
        }
        json.EndArray();
        json.Key(KindOf<Record>().recordsKey);
        json.StartArray();
        for (const Record& record : report.records) {
            WriteRecord(json, record);
        }
        json.EndArray();
    });
}

template void WriteRecord(JsonWriter&, const StorageDevice&);
template std::string RenderJson(const Report<StorageDevice>&, const ReportOrigin&);
template std::string RenderJson(const Report<ZDSystemDevice::SystemDevice>&, const ReportOrigin&);
template std::string RenderJson(const Report<ZDSystemDevice::OpticalProperty>&, const ReportOrigin&);
template std::string RenderJson(const Report<DiskFirmware>&, const ReportOrigin&);

}  // namespace Zendra::ZDDevices
