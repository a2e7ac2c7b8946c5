/**
 * @file
 * @brief What the library's facade answers to one call, and how that passes from one process to another.
 */
#ifndef ZENDRA_ZDDEVICES_ANSWER_H
#define ZENDRA_ZDDEVICES_ANSWER_H

#include <optional>
#include <string>
#include <vector>

#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/records/field.h"

namespace Zendra {
namespace ZDDevices {

/** Status and records of one call. */
template <typename Record>
struct Answer {
    unsigned int status = ZDSystemDevice::DEVICE_RESULT_OK;
    std::vector<Record> records;
};

using DeviceAnswer = Answer<ZDSystemDevice::SystemDevice>;
using OpticalAnswer = Answer<ZDSystemDevice::OpticalProperty>;
using FirmwareAnswer = Answer<ZDOptions::SoftwareIdentity_>;

/** The texts of a record, in the order in which the record declares them. */
template <typename Record>
std::vector<std::string*> Texts(Record& record)
{
    std::vector<std::string*> texts;
    for (const Field<Record>& field : MembersOf<Record>()) {
        texts.push_back(&(record.*field.member));
    }
    return texts;
}

/** The answer as bytes; every text keeps every byte. */
template <typename Record>
std::string Encode(Answer<Record> answer);

/** The answer that Encode() made these bytes of; none for any other bytes. */
template <typename Record>
std::optional<Answer<Record>> Decode(const std::string& bytes);

}  // namespace ZDDevices
}  // namespace Zendra

#endif
