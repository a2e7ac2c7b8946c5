/**
 * @file
 * @brief The JSON documents that programs read; share/schema/ describes them.
 */
#ifndef ZENDRA_ZDDEVICES_JSON_H
#define ZENDRA_ZDDEVICES_JSON_H

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/zddevices/records/report.h"

namespace Zendra::ZDDevices {

/** Takes the library's characters; unlike the library's own buffers it notices that memory has run out. */
struct JsonText {
    using char_type = char;
    void put(char c) { text.push_back(c); }
    void flush() {}
    std::string text;
};

using JsonWriter =
    rapidjson::PrettyWriter<rapidjson::BasicOStreamWrapper<JsonText>, rapidjson::UTF8<>, rapidjson::ASCII<>>;

/**
 * @brief The value that `write` writes, ended by a line end.
 *
 * It is ASCII whatever the texts hold, has no control characters but line ends, and is indented by two blanks.
 */
std::string ToJson(const std::function<void(JsonWriter&)>& write);

/** Writes the text, with U+FFFD for each byte that is not UTF-8. */
void WriteText(JsonWriter& json, std::string_view text);

/** Writes a key and its text. */
void WriteText(JsonWriter& json, const char* key, std::string_view text);

/** Writes a key and its text as a record holds it: null for an empty one. */
void WriteRecordText(JsonWriter& json, const char* key, std::string_view text);

/** Where and when a report was made, and what it leaves out. */
struct ReportOrigin {
    std::string host;
    /** RFC 3339, UTC, whole seconds: "2024-02-29T12:00:00Z". */
    std::string collectedAt;
    /** The one class of devices that was asked, as on the command line; empty for all. */
    std::string type = {};
    /** What each record matches: "SERIAL=ZC1*". */
    std::vector<std::string> filters = {};
};

/** This host's name and the present time. */
ReportOrigin HereAndNow();

/** A document: schema, host, time and what it leaves out, and then the keys and values that `write` writes. */
std::string RenderDocument(const char* schema, const ReportOrigin& origin,
                           const std::function<void(JsonWriter&)>& write);

/** Writes what an answer lacks as an object. */
void WriteMissing(JsonWriter& json, const Missing& missing);

/** Writes the record as an object. */
template <typename Record>
void WriteRecord(JsonWriter& json, const Record& record);

/** The document about the records. */
template <typename Record>
std::string RenderJson(const Report<Record>& report, const ReportOrigin& origin);

}  // namespace Zendra::ZDDevices

#endif
