/**
 * @file
 * @brief Records as texts, by which they pass from one process to another.
 */
#ifndef ZENDRA_ZDDEVICES_RECORDTEXTS_H
#define ZENDRA_ZDDEVICES_RECORDTEXTS_H

#include <string>
#include <utility>
#include <vector>

#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

using Strings = std::vector<std::string>;

/** Appends the texts of the record. */
template <typename Record>
void AppendTexts(Record record, Strings& texts)
{
    for (const Field<Record>& field : MembersOf<Record>()) {
        texts.push_back(std::move(record.*field.member));
    }
}

/** Takes the record whose texts begin at `text`, which is behind them then. */
template <typename Record>
Record TakeRecord(Strings::iterator& text)
{
    Record record;
    for (const Field<Record>& field : MembersOf<Record>()) {
        record.*field.member = std::move(*text++);
    }
    return record;
}

}  // namespace Zendra::ZDDevices

#endif
