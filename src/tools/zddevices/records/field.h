/**
 * @file
 * @brief What a kind of record consists of, field by field.
 *
 * Each kind has one table of fields, in deviceRecord.cpp, storageDevice.cpp, firmwareRecord.cpp and opticalRecord.cpp.
 * The table for people, JSON, metrics and what one process tells another are all made from it: a new column is a new
 * row there.
 */
#ifndef ZENDRA_ZDDEVICES_FIELD_H
#define ZENDRA_ZDDEVICES_FIELD_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/diskFirmware.h"
#include "tools/zddevices/records/storageDevice.h"

namespace Zendra::ZDDevices {

/** When the table has a column for a field. */
enum class InTable { ByDefault, WhenAsked };

/** What a field's text says. */
enum class Content {
    Text,
    /** Decimal digits; JSON has a number in their place. */
    Number,
    /** Any number of texts, each ended by a line end; JSON has an array of them. */
    Lines,
    /** "Yes" or "No" to what the heading names; the metrics have a sample for it. */
    Capability
};

/** One field: a text that the record holds, or one that is composed of others. */
template <typename Record>
struct Field {
    /** In the table. The metrics' label is the heading in small letters. */
    Column column;
    /** In JSON; null for a field that JSON leaves out. */
    const char* key;
    /** The text; null for a composed one. */
    std::string Record::*member;
    /** Composes the text, or what people see of the member in its place. */
    std::string (*compose)(const Record& record) = nullptr;
    InTable inTable = InTable::ByDefault;
    Content content = Content::Text;
};

/** What there is to know about one kind of record. */
template <typename Record>
struct RecordKind {
    /** Name and version of the JSON document's schema: "zddevices/1". */
    const char* schema;
    /** The JSON document's key for the records: "devices". */
    const char* recordsKey;
    /** In the order of the table's columns. */
    std::vector<Field<Record>> fields;
    /** The heading of the column that the records are sorted by; empty where they stay as they were found. */
    std::string usualOrder = {};
};

/** @name The kinds of records
 * @{
 */
template <typename Record>
const RecordKind<Record>& KindOf();
template <>
const RecordKind<ZDSystemDevice::SystemDevice>& KindOf<ZDSystemDevice::SystemDevice>();
template <>
const RecordKind<StorageDevice>& KindOf<StorageDevice>();
template <>
const RecordKind<ZDSystemDevice::OpticalProperty>& KindOf<ZDSystemDevice::OpticalProperty>();
template <>
const RecordKind<DiskFirmware>& KindOf<DiskFirmware>();
/** @} */

/** Whether the fields name every text of the record, and none twice. */
template <typename Record, std::size_t count>
constexpr bool NameEachTextOnce(const Field<Record> (&fields)[count])
{
    std::size_t members = 0;
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t j = 0; j < i && fields[i].member != nullptr; ++j) {
            if (fields[i].member == fields[j].member) {
                return false;
            }
        }
        members += fields[i].member != nullptr ? 1 : 0;
    }
    // What is left of the record has no room for another text.
    return sizeof(Record) - members * sizeof(std::string) < sizeof(std::string);
}

/** The fields that are texts of the record, in the order in which the record declares them. */
template <typename Record>
const std::vector<Field<Record>>& MembersOf()
{
    static const std::vector<Field<Record>> members = [] {
        std::vector<Field<Record>> found;
        const std::vector<Field<Record>>& fields = KindOf<Record>().fields;
        std::copy_if(fields.begin(), fields.end(), std::back_inserter(found),
                     [](const Field<Record>& field) { return field.member != nullptr; });
        const Record record;
        std::sort(found.begin(), found.end(), [&record](const Field<Record>& left, const Field<Record>& right) {
            return std::less<>()(&(record.*left.member), &(record.*right.member));
        });
        return found;
    }();
    return members;
}

/** The field's text, as the device gave it or as it is composed. */
template <typename Record>
std::string TextOf(const Record& record, const Field<Record>& field)
{
    return field.member != nullptr ? record.*field.member : field.compose(record);
}

/** The field as people see it: fit to be printed, without the white space that pads a text, "-" for an empty one. */
template <typename Record>
std::string CellOf(const Record& record, const Field<Record>& field)
{
    std::string text = field.compose != nullptr ? field.compose(record) : record.*field.member;
    if (field.content == Content::Lines) {
        std::replace(text.begin(), text.end(), '\n', ' ');
    }
    return CellText(text);
}

/** The field as a spreadsheet gets it: numbers without units, the same text in every locale, and "" for an empty one.
 */
template <typename Record>
std::string ValueOf(const Record& record, const Field<Record>& field)
{
    std::string text = TextOf(record, field);
    if (field.content == Content::Lines) {
        std::replace(text.begin(), text.end(), '\n', ' ');
    }
    return LabelText(text);
}

/** The fields of these headings, in their order; those of the table by default for no heading. */
template <typename Record>
std::vector<const Field<Record>*> FieldsOf(const std::vector<std::string>& headings)
{
    std::vector<const Field<Record>*> chosen;
    const std::vector<Field<Record>>& fields = KindOf<Record>().fields;
    for (const std::string& heading : headings) {
        for (const Field<Record>& field : fields) {
            if (field.column.heading == heading) {
                chosen.push_back(&field);
            }
        }
    }
    for (const Field<Record>& field : fields) {
        if (headings.empty() && field.inTable == InTable::ByDefault) {
            chosen.push_back(&field);
        }
    }
    return chosen;
}

/** The records with the columns of these headings, those by default for no heading. */
template <typename Record>
Table TableOf(const std::vector<Record>& records, const std::vector<std::string>& headings,
              std::string (*cellOf)(const Record& record, const Field<Record>& field) = CellOf<Record>)
{
    const std::vector<const Field<Record>*> fields = FieldsOf<Record>(headings);
    Table table;
    for (const Field<Record>* field : fields) {
        table.columns.push_back(field->column);
    }
    for (const Record& record : records) {
        std::vector<std::string>& row = table.rows.emplace_back();
        for (const Field<Record>* field : fields) {
            row.push_back(cellOf(record, *field));
        }
    }
    return table;
}

/** The headings of all columns that the table of these records can have. */
template <typename Record>
std::vector<std::string> HeadingsOf()
{
    std::vector<std::string> headings;
    for (const Field<Record>& field : KindOf<Record>().fields) {
        headings.emplace_back(field.column.heading);
    }
    return headings;
}

}  // namespace Zendra::ZDDevices

#endif
