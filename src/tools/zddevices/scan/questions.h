/**
 * @file
 * @brief What the library is asked, and by whom: each question by a worker process.
 */
#ifndef ZENDRA_ZDDEVICES_QUESTIONS_H
#define ZENDRA_ZDDEVICES_QUESTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/options.h"
#include "tools/zddevices/scan/worker.h"

namespace Zendra::ZDDevices {

/** What a class of devices can be asked for. */
enum class Subject { Devices, Firmware, Capabilities };

/** "devices", "firmware" or "capabilities". */
const char* WordOf(Subject subject);

struct Question {
    /** Absent: all classes, merged by the facade. */
    std::optional<ZDSystemDevice::SysDeviceType> deviceClass;
    Subject subject = Subject::Devices;
};

/** What became of a question; the answer's records are in the Inventory. */
struct QuestionOutcome : Outcome {
    Question question;
    /** What the library answered; absent when it did not, or not in time. */
    std::optional<unsigned int> status;
};

/** What all questions together have brought to light. */
struct Inventory {
    std::vector<QuestionOutcome> questions;
    /**
     * What the library answered: to several questions DEVICE_RESULT_OK, which every merged list has, and DEV_FAILURE
     * when there is no answer at all.
     */
    unsigned int status = 0;
    /** Each device once, when all classes were asked; like the others absent when nobody asked. */
    std::optional<std::vector<ZDSystemDevice::SystemDevice>> devices;
    std::optional<std::vector<ZDOptions::SoftwareIdentity_>> firmware;
    std::optional<std::vector<ZDSystemDevice::OpticalProperty>> drives;
};

/**
 * @brief What to ask for these options.
 *
 * For metrics, without a subcommand and a class, that is everything; the disks are then asked twice, since each answer
 * is the library's own.
 */
std::vector<Question> QuestionsOf(const Options& options);

/**
 * @brief Has each question asked by a worker: all at the same time, or, when the library logs, one after the other.
 *
 * Returns shortly after the options' time limit. When the library logs, its facade is asked, whose log it is; no device
 * file is then known.
 *
 * @param observer may be null.
 * @throws std::runtime_error without a time limit when a question failed: nobody has said that part of the answer will
 * do.
 */
Inventory TakeInventory(const Options& options, Observer* observer);

}  // namespace Zendra::ZDDevices

#endif
