/**
 * @file
 * @brief A diagnosis in words and as a JSON document.
 */
#ifndef ZENDRA_ZDDEVICES_DOCTORREPORT_H
#define ZENDRA_ZDDEVICES_DOCTORREPORT_H

#include <string>

#include "tools/zddevices/doctor/doctor.h"
#include "tools/zddevices/output/json.h"

namespace Zendra::ZDDevices {

/**
 * @brief For people; fit for a terminal.
 * @param width the columns of the terminal, at which advice goes on in the next line; 0 for no limit.
 */
std::string RenderDiagnosis(const Diagnosis& diagnosis, std::size_t width = 0);

/** For programs; ASCII, ended by a line end. */
std::string RenderDiagnosisJson(const Diagnosis& diagnosis, const ReportOrigin& origin);

}  // namespace Zendra::ZDDevices

#endif
