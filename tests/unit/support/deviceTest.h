/**
 * @file
 * @brief What the tests of the device library share: a clean slate before and a check of the slate after.
 */
#ifndef ZENDRA_TESTS_SUPPORT_DEVICETEST_H
#define ZENDRA_TESTS_SUPPORT_DEVICETEST_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "module/osinfos/systemdevice/systemDevice.h"
#include "support/systemCalls.h"
#include "support/trace.h"

namespace ZendraTest {

/** Records the log; every directory stream and descriptor that the test opened must be closed at its end. */
class DeviceTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    /** Answers the loading of the sg module, and no other shell command, with `result`. */
    static void AnswerModprobe(int result);

    /** Provides what /dev/ lists, in this order. */
    static void ListDev(const std::vector<std::string>& names);

    /** Provides what /sys/block/ lists, in this order. */
    static void ListSysBlock(const std::vector<std::string>& names);

private:
    int descriptorsBefore = 0;
};

/** A record in one comparable and printable line, the nine fields in order. */
std::string Text(const Zendra::ZDSystemDevice::SystemDevice& device);
Lines Texts(const std::vector<Zendra::ZDSystemDevice::SystemDevice>& devices);

/** The expected form of the same. */
std::string Record(const std::string& vendor, const std::string& product, const std::string& deviceType,
                   const std::string& serial, const std::string& firmware, const std::string& port,
                   const std::string& target, const std::string& bus, const std::string& lun);

/** The command of every proxy's constructor. */
extern const char* const modprobeCommand;

}  // namespace ZendraTest

#endif
