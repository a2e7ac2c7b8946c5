#include "tools/zddevices/output/json.h"

#include <unistd.h>

#include <charconv>
#include <climits>
#include <cstdint>
#include <ctime>
#include <stdexcept>

#include "tools/zddevices/output/messages.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"

namespace Zendra {
namespace ZDDevices {

JsonWriter::JsonWriter() : stream(characters), writer(stream)
{
    constexpr unsigned int indentation = 2;
    writer.SetIndent(' ', indentation);
}

void JsonWriter::Text(std::string_view text)
{
    const std::string valid = ValidUtf8(text);
    writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
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
    // To JSON it is a character like any other, to a terminal it is none.
    std::string& text = characters.text;
    for (std::size_t del = text.find('\x7F'); del != std::string::npos; del = text.find('\x7F', del)) {
        text.replace(del, 1, "\\u007F");
    }
    return std::move(text) + '\n';
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

void BeginDocument(JsonWriter& json, const char* schema, const ReportOrigin& origin)
{
    json.BeginObject();
    json.Key("schema");
    json.Text(schema);
    json.Key("host");
    json.Text(origin.host);
    json.Key("collected_at");
    json.Text(origin.collectedAt);
}

template <typename Record>
std::string RenderJson(const Report<Record>& report, const ReportOrigin& origin)
{
    JsonWriter json;
    BeginDocument(json, KindOf<Record>().schema, origin);
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
    json.Key(KindOf<Record>().recordsKey);
    json.BeginArray();
    for (const Record& record : report.records) {
        json.BeginObject();
        for (const Field<Record>& field : MembersOf<Record>()) {
            if (field.key == nullptr) {
                continue;
            }
            json.Key(field.key);
            if (field.content == Content::Number) {
                json.AddressNumber(record.*field.member);
            } else {
                json.RecordText(record.*field.member);
            }
        }
        json.EndObject();
    }
    json.EndArray();
    json.EndObject();
    return json.Document();
}

template std::string RenderJson(const Report<ZDSystemDevice::SystemDevice>&, const ReportOrigin&);
template std::string RenderJson(const Report<ZDSystemDevice::OpticalProperty>&, const ReportOrigin&);
template std::string RenderJson(const Report<ZDOptions::SoftwareIdentity_>&, const ReportOrigin&);

}  // namespace ZDDevices
}  // namespace Zendra
