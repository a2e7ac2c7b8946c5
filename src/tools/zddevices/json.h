/**
 * @file
 * @brief The JSON document that programs read; share/schema/ describes it.
 */
#ifndef ZENDRA_ZDDEVICES_JSON_H
#define ZENDRA_ZDDEVICES_JSON_H

#include <nlohmann/json.hpp>
#include <string>

#include "tools/zddevices/report.h"

namespace Zendra {
namespace ZDDevices {

/** The text as the record holds it, with U+FFFD for each byte that is not UTF-8; null for an empty text. */
nlohmann::ordered_json JsonText(const std::string& text);

/** An address field as a number; null when it holds none. */
nlohmann::ordered_json JsonNumber(const std::string& field);

/** Where and when a report was made. */
struct Occasion {
    std::string host;
    /** RFC 3339, UTC, whole seconds: "2024-02-29T12:00:00Z". */
    std::string collectedAt;
};

/** This host's name and the present time. */
Occasion HereAndNow();

/** What every document begins with: schema, host and time. */
nlohmann::ordered_json BeginDocument(const std::string& schema, const Occasion& occasion);

/** The document as ASCII text, ended by a line end. */
std::string WriteDocument(const nlohmann::ordered_json& document);

/** The document, ended by a line end. It is ASCII whatever the records hold, so no terminal is at risk. */
std::string RenderJson(const Report& report, const Occasion& occasion);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
