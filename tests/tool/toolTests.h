/**
 * @file
 * @brief What the tests of the program's parts share.
 */
#ifndef ZENDRA_TESTS_TOOLTESTS_H
#define ZENDRA_TESTS_TOOLTESTS_H

#include <gtest/gtest.h>

#include <clocale>
#include <random>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "tools/zddevices/records/diskFirmware.h"

namespace Zendra::ZDDevices {

/** Sets the locale that decides which characters are printable; back to UTF-8 at the end. */
class CharacterSet {
public:
    explicit CharacterSet(const char* locale)
    {
        if (std::setlocale(LC_CTYPE, locale) == nullptr) {
            ADD_FAILURE() << "no locale " << locale;
        }
    }
    ~CharacterSet() { std::setlocale(LC_CTYPE, "C.UTF-8"); }
    CharacterSet(const CharacterSet&) = delete;
    CharacterSet& operator=(const CharacterSet&) = delete;
};

/** Reproducible texts as a hostile device might send them. */
class HostileTexts {
public:
    explicit HostileTexts(unsigned seed) : generator(seed) {}

    std::string Next()
    {
        static const std::vector<std::string> pieces = {"A",
                                                        "disk ",
                                                        " ",
                                                        "\\",
                                                        "\\x",
                                                        "\x1b[2J",
                                                        "\x9b[31m",
                                                        "\x7f",
                                                        "\r\n",
                                                        "\t",
                                                        "\x01",
                                                        "\xc2\x9b",
                                                        "\xe2\x80\xae",
                                                        "\xe2\x80\x8b",
                                                        "\xef\xbb\xbf",
                                                        "\xcc\x81",
                                                        "\xc3\xa9",
                                                        "\xe6\x97\xa5",
                                                        "\xf0\x9f\x92\xbe",
                                                        "\xed\xa0\x80",
                                                        "\xc0\x80",
                                                        "\xf4\x90\x80\x80",
                                                        "\xe2\x80",
                                                        "\xff",
                                                        "\xf3\xa0\x81\x81",
                                                        "\"",
                                                        "\xe2\x80\xa8",
                                                        "\xc2\xad"};
        std::uniform_int_distribution<std::size_t> count(0, 12);
        std::uniform_int_distribution<std::size_t> choice(0, pieces.size() - 1);
        std::uniform_int_distribution<int> byte(0, 255);
        std::bernoulli_distribution fromPieces(0.6);
        std::string text;
        for (std::size_t i = count(generator); i > 0; --i) {
            text +=
                fromPieces(generator) ? pieces[choice(generator)] : std::string(1, static_cast<char>(byte(generator)));
        }
        return text;
    }

private:
    std::mt19937 generator;
};

inline ZDSystemDevice::SystemDevice HostileDevice(HostileTexts& texts)
{
    ZDSystemDevice::SystemDevice device;
    device.vendor = texts.Next();
    device.product = texts.Next();
    device.device_type = texts.Next();
    device.serial_number = texts.Next();
    device.firmware_revision = texts.Next();
    device.port = "10";
    device.target = "2";
    device.bus = "0";
    device.lun = "65535";
    return device;
}

inline ZDSystemDevice::OpticalProperty HostileDrive(HostileTexts& texts)
{
    ZDSystemDevice::OpticalProperty drive;
    drive.drive_name_ = texts.Next();
    drive.vendor_ = texts.Next();
    drive.product_ = texts.Next();
    drive.dvd_read_ = "Yes";
    return drive;
}

inline DiskFirmware HostileIdentity(HostileTexts& texts)
{
    DiskFirmware identity;
    identity.SoftwareID = texts.Next();
    identity.Name = texts.Next();
    identity.VersionString = texts.Next();
    identity.SerialNumber = texts.Next();
    return identity;
}

}  // namespace Zendra::ZDDevices

#endif
