/**
 * @file
 * @brief The JSON document that programs read; share/schema/ describes it.
 */
#ifndef ZENDRA_ZDDEVICES_JSON_H
#define ZENDRA_ZDDEVICES_JSON_H

#include <rapidjson/prettywriter.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <string_view>

#include "tools/zddevices/output/jsonLibrary.h"

namespace Zendra {
namespace ZDDevices {

struct Report;

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

    /** @param name of printable ASCII characters, without quotation mark and backslash. */
    void Key(std::string_view name) { writer.Plain(name.data(), name.size()); }

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
    /** ASCII that a terminal does not act on: DEL is one of its control characters, but none to JSON. */
    struct PrintableAscii : rapidjson::ASCII<> {
        template <typename Stream>
        static void EncodeUnsafe(Stream& stream, unsigned int code)
        {
            constexpr unsigned int del = 0x7F;
            if (code != del) {
                rapidjson::ASCII<>::EncodeUnsafe(stream, code);
                return;
            }
            for (const char c : std::string_view("\\u007F")) {
                PutUnsafe(stream, c);
            }
        }
    };

    using PrettyWriter = rapidjson::PrettyWriter<JsonBuffer, rapidjson::UTF8<>, PrintableAscii, JsonMemory>;

    class Writer : public PrettyWriter {
    public:
        using PrettyWriter::PrettyWriter;

        /** A text of which every byte stands for itself. Nearly all are, and there are thousands. */
        void Plain(const char* text, std::size_t size)
        {
            constexpr char quotationMark = '"';
            PrettyPrefix(rapidjson::kStringType);
            char* const room = os_->Push(size + 2);
            room[0] = quotationMark;
            std::memcpy(room + 1, text, size);
            room[size + 1] = quotationMark;
        }
    };

    JsonBuffer buffer;
    Writer writer;
};

/** Where and when a report was made. */
struct Occasion {
    std::string host;
    /** RFC 3339, UTC, whole seconds: "2024-02-29T12:00:00Z". */
    std::string collectedAt;
};

/** This host's name and the present time. */
Occasion HereAndNow();

/** What every document begins with: schema, host and time. The object stays open. */
void BeginDocument(JsonWriter& json, const std::string& schema, const Occasion& occasion);

/** The document, ended by a line end. It is ASCII whatever the records hold, so no terminal is at risk. */
std::string RenderJson(const Report& report, const Occasion& occasion);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
