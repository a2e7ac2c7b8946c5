#include "tools/zddevices/json.h"

#include <unistd.h>

#include <charconv>
#include <climits>
#include <ctime>
#include <stdexcept>

#include "tools/zddevices/status.h"
#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

nlohmann::ordered_json JsonText(const std::string& text)
{
    if (text.empty()) {
        return nullptr;
    }
    return ValidUtf8(text);
}

nlohmann::ordered_json JsonNumber(const std::string& field)
{
    std::uint16_t number = 0;
    const char* end = field.data() + field.size();
    const std::from_chars_result result = std::from_chars(field.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) {
        return nullptr;
    }
    return number;
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

nlohmann::ordered_json BeginDocument(const std::string& schema, const Occasion& occasion)
{
    nlohmann::ordered_json document;
    document["schema"] = schema;
    document["host"] = ValidUtf8(occasion.host);
    document["collected_at"] = occasion.collectedAt;
    return document;
}

std::string WriteDocument(const nlohmann::ordered_json& document)
{
    constexpr int indentation = 2;
    constexpr bool asciiOnly = true;
    return document.dump(indentation, ' ', asciiOnly) + "\n";
}

std::string RenderJson(const Report& report, const Occasion& occasion)
{
    nlohmann::ordered_json document = BeginDocument(report.schema, occasion);
    document["status"] = {{"code", report.status}, {"name", StatusName(report.status)}};
    document["complete"] = report.unanswered.empty();
    if (!report.unanswered.empty()) {
        nlohmann::ordered_json& names = document["unanswered"] = nlohmann::ordered_json::array();
        for (const Unanswered& unanswered : report.unanswered) {
            names.push_back(unanswered.className);
        }
    }
    document[report.recordsKey] = report.records();
    return WriteDocument(document);
}

}  // namespace ZDDevices
}  // namespace Zendra
