/**
 * @file
 * @brief What the library is asked, and by whom: each question by a worker process.
 */
#ifndef ZENDRA_ZDDEVICES_QUESTIONS_H
#define ZENDRA_ZDDEVICES_QUESTIONS_H

#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/options.h"
#include "tools/zddevices/records/diskFirmware.h"
#include "tools/zddevices/records/storageDevice.h"
#include "tools/zddevices/scan/missing.h"
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
struct QuestionOutcome {
    Question question;
    /** What the library answered; absent when it did not, or not in time. */
    std::optional<unsigned int> status;
    /** Why it did not, for people; empty when it did. */
    std::string failure;
    /** From the first worker's start to the last one's answer, or to when it was given up. */
    Duration elapsed{};
};

/** What all questions together have brought to light. */
struct Inventory {
    std::vector<QuestionOutcome> questions;
    /**
     * What the library answered: to several questions DEVICE_RESULT_OK, which every merged list has, and DEV_FAILURE
     * when there is no answer at all.
     */
    unsigned int status = 0;
    /** One row for each device, of a single class one for each device file; like the others absent when nobody asked.
     */
    std::optional<std::vector<StorageDevice>> devices;
    std::optional<std::vector<ZDSystemDevice::SystemDevice>> facadeDevices;
    std::optional<std::vector<DiskFirmware>> firmware;
    std::optional<std::vector<ZDSystemDevice::OpticalProperty>> drives;
    /** What the answer lacks, by device file in natural order. */
    std::vector<Missing> missing;
    /** When the time is over; nobody waits for a reader of messages then. */
    std::optional<std::chrono::steady_clock::time_point> end;
};

/**
 * @brief What to ask for these options.
 *
 * For metrics, without a subcommand and a class, that is everything.
 */
std::vector<Question> QuestionsOf(const Options& options);

/**
 * @brief Has the questions asked by workers.
 *
 * All classes are asked at the same time. One whose devices take long is shared among more and more workers, up to
 * Options::jobs in all; a device that hangs thus holds up none but itself. With one job, and when the library logs,
 * class follows class. Returns shortly after the options' time limit.
 *
 * @param observer may be null.
 * @throws std::runtime_error without a time limit when a question failed: nobody has said that part of the answer will
 * do.
 */
Inventory TakeInventory(const Options& options, Observer* observer);

}  // namespace Zendra::ZDDevices

#endif
