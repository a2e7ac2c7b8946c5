/**
 * @file
 * @brief What one run has found, ready for any output format.
 *
 * Each subcommand makes a Report of its records; the output formats know nothing of what the records are.
 */
#ifndef ZENDRA_ZDDEVICES_REPORT_H
#define ZENDRA_ZDDEVICES_REPORT_H

#include <nlohmann/json.hpp>
#include <string>

#include "tools/zddevices/table.h"

namespace Zendra {
namespace ZDDevices {

struct Report {
    /** Name and version of the JSON document's schema: "zddevices/1". */
    std::string schema;
    /** The JSON document's key for the records: "devices". */
    std::string recordsKey;
    /** What the library's facade answered. */
    unsigned int status = 0;
    /** The records for people. */
    Sheet sheet;
    /** What people are told when there is no record. */
    std::string nothingFound;
    /** What must be known to read the records rightly; for standard error, empty when there is nothing. */
    std::string remark;
    /** The records for programs: an array of objects. */
    nlohmann::ordered_json records = nlohmann::ordered_json::array();
};

}  // namespace ZDDevices
}  // namespace Zendra

#endif
