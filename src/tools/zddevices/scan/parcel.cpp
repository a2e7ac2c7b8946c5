#include "tools/zddevices/scan/parcel.h"

#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <charconv>
#include <system_error>

namespace Zendra {
namespace ZDDevices {

namespace {

constexpr std::size_t usualSize = 4096;

/** Follows the parser through a parcel, [number, [[text, ...], ...]], and ends it at the first thing that is none. */
class Reader : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, Reader> {
public:
    Reader(std::size_t widestRow, const TakeRow& takeRow) : mostTexts(widestRow), take(takeRow) {}

    std::uint32_t Number() const { return number; }

    bool StartArray()
    {
        switch (place) {
        case Place::Start:
            place = Place::Number;
            return true;
        case Place::Rows:
            place = Place::AmongRows;
            return true;
        case Place::AmongRows:
            place = Place::InRow;
            row.clear();
            return true;
        default:
            return false;
        }
    }

    bool EndArray(rapidjson::SizeType /*count*/)
    {
        switch (place) {
        case Place::InRow:
            place = Place::AmongRows;
            return take(row);
        case Place::AmongRows:
            place = Place::End;
            return true;
        case Place::End:
            return true;
        default:
            return false;
        }
    }

    bool RawNumber(const char* digits, rapidjson::SizeType size, bool /*copy*/)
    {
        if (place != Place::Number) {
            return false;
        }
        place = Place::Rows;
        const std::from_chars_result result = std::from_chars(digits, digits + size, number);
        return result.ec == std::errc() && result.ptr == digits + size;
    }

    bool String(const char* text, rapidjson::SizeType size, bool /*copy*/)
    {
        if (place != Place::InRow || row.size() == mostTexts) {
            return false;
        }
        row.emplace_back(text, size);
        return true;
    }

    /** Anything else. */
    static bool Default() { return false; }

private:
    enum class Place { Start, Number, Rows, AmongRows, InRow, End };

    std::size_t mostTexts;
    const TakeRow& take;
    Place place = Place::Start;
    std::uint32_t number = 0;
    std::vector<std::string> row;
};

}  // namespace

Parcel::Parcel(std::uint32_t number) : buffer(nullptr, usualSize), writer(buffer)
{
    writer.StartArray();
    writer.Uint(number);
    writer.StartArray();
}

void Parcel::BeginRow()
{
    EndRow();
    writer.StartArray();
    inRow = true;
}

void Parcel::Add(const std::string& text)
{
    writer.String(text.data(), JsonSize(text.size()));
}

std::string Parcel::Bytes()
{
    EndRow();
    writer.EndArray();
    writer.EndArray();
    return std::string(buffer.GetString(), buffer.GetSize());
}

void Parcel::EndRow()
{
    if (inRow) {
        writer.EndArray();
        inRow = false;
    }
}

std::optional<std::uint32_t> Unpack(const std::string& bytes, std::size_t widestRow, const TakeRow& takeRow)
{
    // Without recursion, however deeply the bytes are nested. Numbers as they are written: the parser would reckon
    // with exponents that leave the range of its integers.
    constexpr unsigned int flags = rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
    rapidjson::MemoryStream stream(bytes.data(), bytes.size());
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, JsonMemory> parser;
    Reader reader(widestRow, takeRow);
    // To the parser a NUL is the end.
    if (parser.Parse<flags>(stream, reader).IsError() || stream.Tell() != bytes.size()) {
        return std::nullopt;
    }
    return reader.Number();
}

}  // namespace ZDDevices
}  // namespace Zendra
