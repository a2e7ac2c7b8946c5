#include "tools/zddevices/scan/answer.h"

#include <cstdint>
#include <utility>

#include "tools/zddevices/scan/parcel.h"

namespace Zendra {
namespace ZDDevices {

namespace {

template <typename Record>
bool Fill(Record& record, std::vector<std::string>& texts)
{
    const std::vector<std::string*> fields = Texts(record);
    if (texts.size() != fields.size()) {
        return false;
    }
    for (std::size_t i = 0; i < fields.size(); ++i) {
        *fields[i] = std::move(texts[i]);
    }
    return true;
}

template <typename Record>
std::string Pack(Answer<Record>& answer)
{
    Parcel parcel(answer.status);
    for (Record& record : answer.records) {
        parcel.BeginRow();
        for (const std::string* text : Texts(record)) {
            parcel.Add(*text);
        }
    }
    return parcel.Bytes();
}

}  // namespace

template <typename Record>
std::string Encode(Answer<Record> answer)
{
    return Pack(answer);
}

template <typename Record>
std::optional<Answer<Record>> Decode(const std::string& bytes)
{
    Answer<Record> answer;
    Record any;
    const std::optional<std::uint32_t> status =
        Unpack(bytes, Texts(any).size(),
               [&answer](std::vector<std::string>& texts) { return Fill(answer.records.emplace_back(), texts); });
    if (!status) {
        return std::nullopt;
    }
    answer.status = *status;
    if (Pack(answer) != bytes) {
        return std::nullopt;
    }
    return answer;
}

template std::string Encode(DeviceAnswer);
template std::string Encode(OpticalAnswer);
template std::string Encode(FirmwareAnswer);
template std::optional<DeviceAnswer> Decode(const std::string&);
template std::optional<OpticalAnswer> Decode(const std::string&);
template std::optional<FirmwareAnswer> Decode(const std::string&);

}  // namespace ZDDevices
}  // namespace Zendra
