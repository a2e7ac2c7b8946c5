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
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "tools/zddevices/table.h"

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
    /** Composes the records for people. */
    std::function<Sheet()> sheet;
    /** What people are told when there is no record. */
    std::string nothingFound;
    /** What must be known to read the records rightly; for standard error, empty when there is nothing. */
    std::string remark;
    /** Composes the records for programs: an array of objects. */
    std::function<nlohmann::ordered_json()> records;
};

/** Has `report` compose its table and its objects from `records`, each by the function for one record. */
template <typename Record, typename MakeRow, typename MakeObject>
void ComposeFrom(std::vector<Record> records, std::vector<Column> columns, MakeRow makeRow, MakeObject makeObject,
                 Report& report)
{
    const auto kept = std::make_shared<const std::vector<Record>>(std::move(records));
    report.sheet = [kept, makeRow, columns = std::move(columns)] {
        Sheet sheet{columns, {}};
        for (const Record& record : *kept) {
            sheet.rows.push_back(makeRow(record));
        }
        return sheet;
    };
    report.records = [kept, makeObject] {
        nlohmann::ordered_json objects = nlohmann::ordered_json::array();
        objects.get_ref<nlohmann::ordered_json::array_t&>().reserve(kept->size());
        for (const Record& record : *kept) {
            objects.push_back(makeObject(record));
        }
        return objects;
    };
}

}  // namespace ZDDevices
}  // namespace Zendra

#endif
