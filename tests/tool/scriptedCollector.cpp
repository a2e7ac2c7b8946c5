/**
 * @file
 * @brief A stand-in for the library's facade that answers what a script says.
 *
 * Linked with the program's own main(), so that the whole program can be run with any records. The script is a
 * JSON file named by ZDDEVICES_SCRIPT: an object with a member for each call that is expected, "all" or the number of
 * a class, "optical" or "firmware", each {"status": n, "records": [[texts as hexadecimal digits], ...],
 * "throw": "...", "log": "..."}, or what Misbehave() knows.
 * A call that the script does not know ends the program.
 */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "common/logger/logLine.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "tools/zddevices/answer.h"

namespace Zendra {
namespace ZDSystemDevice {

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

/** What a facade does that never answers, or not properly. */
void Misbehave(const nlohmann::json& answer)
{
    if (answer.contains("open")) {
        const std::string path = answer.at("open");
        if (open(path.c_str(), O_RDONLY | O_CLOEXEC) < 0) {
            std::abort();
        }
    }
    if (answer.contains("say")) {
        std::cerr << std::string(answer.at("say")) << std::flush;
    }
    if (answer.contains("print")) {
        std::cout << std::string(answer.at("print")) << std::flush;
    }
    if (answer.contains("start")) {
        const std::string command = answer.at("start");
        static_cast<void>(std::system(command.c_str()));
    }
    if (answer.contains("signal")) {
        std::raise(answer.at("signal"));
    }
    if (answer.contains("garbage")) {
        const std::string bytes = FromHex(answer.at("garbage"));
        constexpr int descriptors = 64;
        for (int descriptor = STDERR_FILENO + 1; descriptor < descriptors; ++descriptor) {
            struct stat file {};
            if (fstat(descriptor, &file) == 0 && S_ISFIFO(file.st_mode)) {
                for (std::size_t i = answer.value("times", std::size_t{1}); i > 0; --i) {
                    static_cast<void>(write(descriptor, bytes.data(), bytes.size()));
                }
            }
        }
    }
    if (answer.contains("exit")) {
        _exit(answer.at("exit"));
    }
    while (answer.value("hang", false)) {
        pause();
    }
}

template <typename Record>
unsigned int Answer(std::vector<Record>& records, const std::string& call)
{
    CheckThatStandardDescriptorsAreTaken();
    const char* path = std::getenv("ZDDEVICES_SCRIPT");
    std::ifstream file(path != nullptr ? path : "");
    const nlohmann::json script = nlohmann::json::parse(file, nullptr, false);
    if (!script.is_object() || !script.contains(call)) {
        std::cerr << "scripted collector: unexpected call " << call << std::endl;
        std::abort();
    }
    const nlohmann::json& answer = script.at(call);
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
    for (const nlohmann::json& texts : answer.at("records")) {
        Record record;
        std::size_t i = 0;
        for (std::string* field : ZDDevices::Texts(record)) {
            *field = FromHex(texts.at(i++));
        }
        records.push_back(record);
    }
    return answer.at("status");
}

}  // namespace

DeviceCollector::DeviceCollector() = default;
DeviceCollector::~DeviceCollector() = default;

unsigned int DeviceCollector::GetIndividualDevice(std::vector<SystemDevice>& devices, SysDeviceType type)
{
    return Answer(devices, std::to_string(static_cast<int>(type)));
}

unsigned int DeviceCollector::GetAllDevice(std::vector<SystemDevice>& devices)
{
    return Answer(devices, "all");
}

unsigned int DeviceCollector::GetOpticalProperties(std::vector<OpticalProperty>& properties)
{
    return Answer(properties, "optical");
}

unsigned int DeviceCollector::GetDiskDriverSoftwareIdentities(std::vector<ZDOptions::SoftwareIdentity_>& identities)
{
    return Answer(identities, "firmware");
}

}  // namespace ZDSystemDevice
}  // namespace Zendra
