/**
 * @file
 * @brief How a number and rows of texts pass from one process to another.
 *
 * The bytes are JSON, but their texts hold any bytes: it is nothing to show or to keep.
 */
#ifndef ZENDRA_ZDDEVICES_PARCEL_H
#define ZENDRA_ZDDEVICES_PARCEL_H

#include <rapidjson/writer.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "tools/zddevices/scan/parcelMemory.h"

namespace Zendra {
namespace ZDDevices {

/** Packs a number and rows of texts; every text keeps every byte. */
class Parcel {
public:
    explicit Parcel(std::uint32_t number);

    /** The texts that follow are a new row. */
    void BeginRow();
    void Add(const std::string& text);
    /** The bytes. To be called once, at the end. */
    std::string Bytes();

private:
    void EndRow();

    JsonBuffer buffer;
    rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, JsonMemory> writer;
    bool inRow = false;
};

/** Takes the texts of a row, whose strings it may keep; false when they are none that it knows. */
using TakeRow = std::function<bool(std::vector<std::string>& texts)>;

/**
 * @brief Unpacks what a Parcel packed.
 *
 * Takes no more memory than one row and the longest text, besides what `takeRow` keeps, however the bytes are made.
 * JSON can say the same in several ways: who must know that these bytes are a Parcel's packs again and compares.
 *
 * @param widestRow how many texts a row may have.
 * @return the number; none when the bytes are no parcel, or when `takeRow` gave false. It may have been given rows
 * then.
 */
std::optional<std::uint32_t> Unpack(const std::string& bytes, std::size_t widestRow, const TakeRow& takeRow);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
