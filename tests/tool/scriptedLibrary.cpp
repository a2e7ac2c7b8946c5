/**
 * @file
 * @brief A stand-in for the program's room that asks the library; it answers what a script says.
 *
 * Linked with the program's own main(), so that the whole program can be run with any records. The script is a
 * JSON file named by ZDDEVICES_SCRIPT: an object with a member for each question that is expected, "all" or the number
 * of a class, "optical" or "firmware", each {"status": n, "records": [[texts as hexadecimal digits], ...],
 * "throw": "...", "log": "...", "at": device file}, or what Misbehave() knows. A script with "all" and no number is
 * that of a host with generic devices alone, which answer so. A question that the script does not know ends the
 * process.
 */
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/logger/logLine.h"
#include "tools/zddevices/records/field.h"
#include "tools/zddevices/scan/library.h"

/** Makes the program's children immortal where ZDDEVICES_IMMORTAL is set, as those are whom a device holds. */
extern "C" int kill(pid_t process, int signal) noexcept
{
    if (std::getenv("ZDDEVICES_IMMORTAL") != nullptr) {
        return 0;
    }
    if (process >= -1 && process <= 1) {
        std::abort();
    }
    return static_cast<int>(syscall(SYS_kill, process, signal));
}

extern "C" int prctl(int option, ...) noexcept
{
    va_list arguments;
    va_start(arguments, option);
    const unsigned long argument = va_arg(arguments, unsigned long);
    va_end(arguments);
    if (option == PR_SET_PDEATHSIG && std::getenv("ZDDEVICES_IMMORTAL") != nullptr) {
        return 0;
    }
    return static_cast<int>(syscall(SYS_prctl, option, argument));
}

namespace Zendra::ZDDevices {

namespace {

std::string FromHex(const std::string& digits)
{
    constexpr int hexadecimal = 16;
    std::string bytes;
    for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
        bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, hexadecimal));
    }
    return bytes;
}

/** The library opens device files; none of them may get the number of a standard descriptor. */
void CheckThatStandardDescriptorsAreTaken()
{
    const int descriptor = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(descriptor);
    if (descriptor <= STDERR_FILENO) {
        std::abort();
    }
}

/** What a facade does that takes long, never answers, or dies. */
void Misbehave(const nlohmann::json& answer)
{
    if (answer.contains("pid")) {
        const std::string file = answer.at("pid");
        std::ofstream(file) << getpid() << std::endl;
    }
    if (answer.contains("say")) {
        const std::string text = answer.at("say");
        std::cerr << text << std::flush;
    }
    if (answer.contains("print")) {
        const std::string text = answer.at("print");
        std::cout << text << std::flush;
    }
    if (answer.contains("signal")) {
        static_cast<void>(std::raise(answer.at("signal")));
    }
    if (answer.contains("exit")) {
        _exit(answer.at("exit"));
    }
    while (answer.value("hang", false)) {
        pause();
    }
    if (answer.contains("wait_for")) {
        const std::string file = answer.at("wait_for");
        while (access(file.c_str(), F_OK) != 0) {
            constexpr useconds_t pause = 20000;
            usleep(pause);
        }
    }
}

nlohmann::json AnswerTo(const std::string& question)
{
    const char* path = std::getenv("ZDDEVICES_SCRIPT");
    std::ifstream file(path != nullptr ? path : "");
    const nlohmann::json script = nlohmann::json::parse(file, nullptr, false);
    if (script.is_object() && script.contains(question)) {
        return script.at(question);
    }
    const bool isClass = question.size() == 1;
    if (script.is_object() && script.contains("all") && isClass) {
        const nlohmann::json nothing = {{"status", ZDSystemDevice::DEVICE_RESULT_NONE}, {"records", {}}};
        return question == std::to_string(ZDSystemDevice::SYS_DEVICE_SCSI) ? script.at("all") : nothing;
    }
    std::cerr << "scripted library: unexpected question " << question << std::endl;
    std::abort();
}

/** @param before is told of the device file that the script has for the question; may be empty. */
template <typename Record>
Answer<Record> Ask(const std::string& question, const std::function<bool(const std::string& path)>& before = nullptr)
{
    CheckThatStandardDescriptorsAreTaken();
    const nlohmann::json answer = AnswerTo(question);
    if (before && answer.contains("at")) {
        before(answer.at("at"));
    }
    if (answer.contains("log")) {
        ZENDRA_LOG(4, FromHex(answer.at("log")));
    }
    Misbehave(answer);
    const std::string failure = answer.value("throw", "");
    if (failure == "bad_alloc") {
        throw std::bad_alloc();
    }
    if (failure == "number") {
        throw 42;
    }
    if (!failure.empty()) {
        throw std::runtime_error(failure);
    }
    Answer<Record> result{answer.at("status"), {}};
    for (const nlohmann::json& texts : answer.at("records")) {
        Record& record = result.records.emplace_back();
        auto text = texts.begin();
        for (const Field<Record>& field : MembersOf<Record>()) {
            if (text != texts.end()) {
                record.*field.member = FromHex(*text++);
            }
        }
    }
    return result;
}

}  // namespace

DeviceAnswer AskForDevices(std::optional<ZDSystemDevice::SysDeviceType> type)
{
    return Ask<ZDSystemDevice::SystemDevice>(type ? std::to_string(static_cast<int>(*type)) : "all");
}

OpticalAnswer AskForOptical()
{
    return Ask<ZDSystemDevice::OpticalProperty>("optical");
}

FirmwareAnswer AskForFirmware()
{
    const Answer<DiskFirmware> answer = Ask<DiskFirmware>("firmware");
    return {answer.status, {answer.records.begin(), answer.records.end()}};
}

/**
 * Each record is that of the device file that the script has under "files", or of one that no kernel knows:
 * "/dev/scripted-0-1" is the second of class 0.
 */
ClassAnswer AskFileByFile(ZDSystemDevice::SysDeviceType type, const std::function<bool(const std::string& path)>& take,
                          const std::function<void(FileAnswer answer)>& done)
{
    const std::string number = std::to_string(static_cast<int>(type));
    Answer<ZDSystemDevice::SystemDevice> answer = Ask<ZDSystemDevice::SystemDevice>(number, take);
    const nlohmann::json files = AnswerTo(number).value("files", nlohmann::json::array());
    std::size_t count = 0;
    for (ZDSystemDevice::SystemDevice& record : answer.records) {
        const std::string path = count < files.size() ? files[count].get<std::string>()
                                                      : "/dev/scripted-" + number + "-" + std::to_string(count);
        ++count;
        if (take(path)) {
            done({path, 0, 0, std::move(record)});
        }
    }
    return {answer.status, true};
}

/** No device file answers. */
DeviceFileAsker AskerOf(ZDSystemDevice::SysDeviceType /*type*/)
{
    return [](const std::string& /*path*/, const Watch& /*watch*/) { return DeviceFileAnswer(); };
}

bool LoadSgDriver()
{
    return true;
}

}  // namespace Zendra::ZDDevices
