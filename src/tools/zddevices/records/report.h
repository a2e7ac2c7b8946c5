/**
 * @file
 * @brief What one run has found, ready for any output format.
 *
 * Each subcommand makes a Report of its records; the output formats know nothing of what the records are, and have
 * only composed what they show.
 */
#ifndef ZENDRA_ZDDEVICES_REPORT_H
#define ZENDRA_ZDDEVICES_REPORT_H

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/table.h"
#include "tools/zddevices/records/columns.h"

namespace Zendra {
namespace ZDDevices {

/** A class of devices about which there is no answer. */
struct Unanswered {
    /** As on the command line: "disk". */
    std::string className;
    /** Why, for people. */
    std::string failure;
    /** The device file that it waits for; empty when that is not known. */
    std::string device;
};

struct Report {
    /** Name and version of the JSON document's schema: "zddevices/1". */
    std::string schema;
    /** The JSON document's key for the records: "devices". */
    std::string recordsKey;
    /** What the library's facade answered; DEV_FAILURE when no class was answered at all. */
    unsigned int status = 0;
    /** The classes whose devices are missing, which the library was not to be waited for any longer. */
    std::vector<Unanswered> unanswered;
    /** Composes the records for people: the columns of these headings, in this order; by default for no heading. */
    std::function<Sheet(const std::vector<std::string>& headings)> sheet;
    /** What people are told when there is no record. */
    std::string nothingFound;
    /** What must be known to read the records rightly; for standard error, empty when there is nothing. */
    std::string remark;
    /** Writes the records for programs: an array of objects. */
    std::function<void(JsonWriter& json)> records;
};

/**
 * @brief Has `report` compose its table from `records` by `columns`, and write their array by the function for one
 * record.
 * @param columns must live as long as the report.
 * @param writeObject writes keys and values into the object, which is open.
 */
template <typename Record, typename WriteObject>
void ComposeFrom(std::vector<Record> records, const std::vector<RecordColumn<Record>>& columns, WriteObject writeObject,
                 Report& report)
{
    const auto kept = std::make_shared<const std::vector<Record>>(std::move(records));
    report.sheet = [kept, &columns](const std::vector<std::string>& headings) {
        const std::vector<const RecordColumn<Record>*> chosen = ChooseColumns(columns, headings);
        Sheet sheet;
        for (const RecordColumn<Record>* column : chosen) {
            sheet.columns.push_back(column->column);
        }
        for (const Record& record : *kept) {
            std::vector<std::string> row;
            row.reserve(chosen.size());
            for (const RecordColumn<Record>* column : chosen) {
                row.push_back(column->cell(record));
            }
            sheet.rows.push_back(std::move(row));
        }
        return sheet;
    };
    report.records = [kept, writeObject](JsonWriter& json) {
        json.BeginArray();
        for (const Record& record : *kept) {
            json.BeginObject();
            writeObject(record, json);
            json.EndObject();
        }
        json.EndArray();
    };
}

}  // namespace ZDDevices
}  // namespace Zendra

#endif
