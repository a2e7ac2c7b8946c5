/**
 * @file
 * @brief The JSON documents that programs read; share/schema/ describes them.
 */
#ifndef ZENDRA_ZDDEVICES_JSON_H
#define ZENDRA_ZDDEVICES_JSON_H

#include <rapidjson/ostreamwrapper.h>
#include <rapidjson/prettywriter.h>

#include <string>
#include <string_view>

#include "tools/zddevices/records/report.h"

namespace Zendra {
namespace ZDDevices {

/**
 * @brief Writes one JSON document from its first character to its last.
 *
 * It is ASCII whatever the texts hold, has no control characters but line ends, and is indented by two blanks. Within
 * an object each value follows its key.
 */
class JsonWriter {
public:
    JsonWriter();

    void BeginObject() { writer.StartObject(); }
    void EndObject() { writer.EndObject(); }
    void BeginArray() { writer.StartArray(); }
    void EndArray() { writer.EndArray(); }

    void Key(const char* name) { writer.Key(name); }

    /** The text, with U+FFFD for each byte that is not UTF-8. */
    void Text(std::string_view text);
    /** As a record holds it: Text(), but null for an empty one. */
    void RecordText(std::string_view text);
    /** An address field as a number; null when it holds none. */
    void AddressNumber(std::string_view field);
    void Number(int number) { writer.Int(number); }
    void Number(unsigned int number) { writer.Uint(number); }
    /** @param number is finite. */
    void Number(double number) { writer.Double(number); }
    void Boolean(bool value) { writer.Bool(value); }
    void Null() { writer.Null(); }

    /** What was written, ended by a line end. To be called once, at the end. */
    std::string Document();

private:
    /** Takes the library's characters; unlike the library's own buffers it notices that memory has run out. */
    struct Characters {
        using char_type = char;
        void put(char c) { text.push_back(c); }
        void flush() {}
        std::string text;
    };
    using Stream = rapidjson::BasicOStreamWrapper<Characters>;

    Characters characters;
    Stream stream;
    rapidjson::PrettyWriter<Stream, rapidjson::UTF8<>, rapidjson::ASCII<>> writer;
};

/** Where and when a report was made. */
struct ReportOrigin {
    std::string host;
    /** RFC 3339, UTC, whole seconds: "2024-02-29T12:00:00Z". */
    std::string collectedAt;
};

/** This host's name and the present time. */
ReportOrigin HereAndNow();

/** What every document begins with: schema, host and time. The object stays open. */
void BeginDocument(JsonWriter& json, const char* schema, const ReportOrigin& origin);

/** The document, ended by a line end. It is ASCII whatever the records hold, so no terminal is at risk. */
template <typename Record>
std::string RenderJson(const Report<Record>& report, const ReportOrigin& origin);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
