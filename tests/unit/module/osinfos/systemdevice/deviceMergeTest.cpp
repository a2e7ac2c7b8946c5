#include "module/osinfos/systemdevice/deviceMerge.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace Zendra {
namespace ZDSystemDevice {
namespace {

SystemDevice DeviceAt(const std::string& port, const std::string& target, const std::string& bus,
                      const std::string& lun, const std::string& serial)
{
    SystemDevice device;
    device.port = port;
    device.target = target;
    device.bus = bus;
    device.lun = lun;
    device.serial_number = serial;
    return device;
}

std::string Description(const SystemDevice& device)
{
    return device.port + "/" + device.target + "/" + device.bus + "/" + device.lun + " " + device.serial_number;
}

std::vector<std::string> Descriptions(const std::vector<SystemDevice>& devices)
{
    std::vector<std::string> texts;
    for (const SystemDevice& device : devices) {
        texts.push_back(Description(device));
    }
    return texts;
}

/** By an ordered map with whole texts as keys. */
std::vector<std::string> MergedByMap(const std::vector<SystemDevice>& devices)
{
    std::map<std::string, std::string> byKey;
    int withoutAddress = 0;
    for (SystemDevice device : devices) {
        std::string numbers[] = {device.port, device.target, device.bus, device.lun};
        if (device.port == "0" && device.target == "0" && device.bus == "0" && device.lun == "0") {
            ++withoutAddress;
            for (std::string& number : numbers) {
                number = std::to_string(withoutAddress);
            }
            device = DeviceAt("", "", "", "", device.serial_number);
        }
        const std::string key =
            "Port:" + numbers[0] + "|Target:" + numbers[1] + "|Bus:" + numbers[2] + "|Lun:" + numbers[3];
        byKey.emplace(key, Description(device));
    }
    std::vector<std::string> texts;
    for (const auto& [key, text] : byKey) {
        texts.push_back(text);
    }
    return texts;
}

TEST(MergeByAddress, AnyListIsOrderedAndThinnedAsByAMapOfWholeKeys)
{
    std::mt19937 random(20261121);
    const auto below = [&](unsigned int limit) { return static_cast<unsigned int>(random() % limit); };
    // Numbers of all lengths that share their first digits, and so few of them that addresses meet.
    const std::vector<std::string> numbers = {"0",   "1",   "2",    "3",     "9",     "10",    "11",    "12",
                                              "100", "101", "1000", "10000", "10001", "65534", "65535", "20"};
    std::size_t thinned = 0;
    for (int round = 0; round < 3000; ++round) {
        const unsigned int variety = 1 + below(static_cast<unsigned int>(numbers.size()));
        const auto number = [&] { return numbers[below(variety)]; };
        std::vector<SystemDevice> devices;
        for (unsigned int count = below(60); count > 0; --count) {
            devices.push_back(DeviceAt(number(), number(), number(), number(), std::to_string(devices.size())));
        }
        const std::vector<std::string> expected = MergedByMap(devices);
        thinned += devices.size() - expected.size();
        std::vector<SystemDevice> merged;
        MergeByAddress(devices, merged);
        ASSERT_EQ(expected, Descriptions(merged)) << "round " << round;
    }
    EXPECT_GT(thinned, 3000U);
}

TEST(MergeByAddress, OrderIsThatOfTheKeyText)
{
    const struct {
        const char* name;
        std::vector<SystemDevice> devices;
        std::vector<std::string> merged;
    } cases[] = {
        {"only four zeros are no address",
         {DeviceAt("0", "0", "0", "1", "lun"), DeviceAt("0", "1", "0", "0", "target"),
          DeviceAt("0", "0", "1", "0", "bus"), DeviceAt("1", "0", "0", "0", "port"),
          DeviceAt("0", "0", "0", "0", "none")},
         {"0/0/0/1 lun", "0/0/1/0 bus", "0/1/0/0 target", "1/0/0/0 port", "/// none"}},
        {"10 and 12 before 1 and 2",
         {DeviceAt("2", "0", "0", "0", "a"), DeviceAt("10", "9", "0", "0", "b"), DeviceAt("10", "12", "0", "0", "c"),
          DeviceAt("10", "1", "0", "0", "d")},
         {"10/12/0/0 c", "10/1/0/0 d", "10/9/0/0 b", "2/0/0/0 a"}},
        {"port, target, bus, LUN",
         {DeviceAt("5", "0", "1", "9", "a"), DeviceAt("5", "1", "0", "0", "b"), DeviceAt("5", "0", "0", "2", "c"),
          DeviceAt("4", "9", "9", "9", "d")},
         {"4/9/9/9 d", "5/0/0/2 c", "5/0/1/9 a", "5/1/0/0 b"}},
        {"those without address are counted",
         {DeviceAt("0", "0", "0", "0", "a"), DeviceAt("2", "0", "0", "0", "b"), DeviceAt("0", "0", "0", "0", "c"),
          DeviceAt("1", "0", "0", "0", "d"), DeviceAt("1", "2", "0", "0", "e")},
         {"1/0/0/0 d", "/// a", "1/2/0/0 e", "2/0/0/0 b", "/// c"}},
        {"the real address came first",
         {DeviceAt("1", "1", "1", "1", "real"), DeviceAt("0", "0", "0", "0", "none")},
         {"1/1/1/1 real"}},
        {"the one without address came first",
         {DeviceAt("0", "0", "0", "0", "none"), DeviceAt("1", "1", "1", "1", "real")},
         {"/// none"}},
        {"long keys that differ at their ends only",
         {DeviceAt("10000", "10000", "0", "65535", "a"), DeviceAt("10000", "10000", "0", "6553", "b"),
          DeviceAt("10000", "10000", "0", "65535", "c"), DeviceAt("10000", "1000", "0", "65535", "d"),
          DeviceAt("1000", "10000", "0", "65535", "e")},
         {"10000/10000/0/6553 b", "10000/10000/0/65535 a", "10000/1000/0/65535 d", "1000/10000/0/65535 e"}}};
    for (const auto& one : cases) {
        std::vector<SystemDevice> merged;
        MergeByAddress(one.devices, merged);
        EXPECT_EQ(one.merged, Descriptions(merged)) << one.name;
        EXPECT_EQ(one.merged, MergedByMap(one.devices)) << one.name;
    }
}

TEST(MergeByAddress, WhatTheListHeldStaysInFront)
{
    std::vector<SystemDevice> list = {DeviceAt("9", "0", "0", "0", "before")};
    MergeByAddress({DeviceAt("1", "0", "0", "0", "after")}, list);
    MergeByAddress({}, list);
    EXPECT_EQ(std::vector<std::string>({"9/0/0/0 before", "1/0/0/0 after"}), Descriptions(list));
}

}  // namespace
}  // namespace ZDSystemDevice
}  // namespace Zendra
