// Counts the calls that a list operation costs, for each device and for itself: none may be added unnoticed.

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "budgetHosts.h"
#include "run.h"
#include "simhost.h"
#include "simhostTest.h"
#include "watch.h"

namespace {

using namespace Faults;

struct Cost {
    unsigned long perDevice = 0;
    unsigned long once = 0;
};

using Budget = std::map<std::string, Cost>;

/** Reads budget.txt: a line for a kind of devices, "kind: call=perDevice+once ...". */
std::map<std::string, Budget> ReadBudgets()
{
    std::ifstream file(FAULTS_BUDGET);
    std::map<std::string, Budget> budgets;
    for (std::string line; std::getline(file, line);) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t colon = line.find(':');
        Budget& budget = budgets[line.substr(0, colon)];
        std::istringstream words(line.substr(colon + 1));
        for (std::string word; words >> word;) {
            const std::size_t equals = word.find('=');
            const std::size_t plus = word.find('+');
            Cost& cost = budget[word.substr(0, equals)];
            cost.perDevice = std::stoul(word.substr(equals + 1));
            cost.once = plus == std::string::npos ? 0 : std::stoul(word.substr(plus + 1));
        }
    }
    return budgets;
}

/** Not what it takes from the heap. */
bool IsSystemCall(Call call)
{
    return call != Call::New && call != Call::Malloc;
}

Ran RunHost(const std::string& text, unsigned logLevel)
{
    const SimHost::Host host = SimHost::ParseHost(text, "host");
    SimHost::MountedHost mounted(host);
    return RunCall(mounted, host.calls.at(0), logLevel, std::nullopt);
}

class SystemCallBudget : public ::testing::TestWithParam<std::string> {};

TEST_P(SystemCallBudget, EachDeviceAndTheOperationCostWhatTheyMust)
{
    SIMHOST_NEEDS_NAMESPACE();
    const std::map<std::string, Budget> budgets = ReadBudgets();
    ASSERT_EQ(budgets.count(GetParam()), 1U);
    Budget budget = budgets.at(GetParam());
    for (const unsigned logLevel : {0U, 4U}) {
        for (const unsigned devices : {1U, 2U, 5U, 20U}) {
            const Ran ran = RunHost(HostText(GetParam(), devices), logLevel);
            EXPECT_TRUE(ran.complaints.empty()) << ran.complaints.front();
            EXPECT_EQ(ran.result.records.size(), GetParam() == "capabilities" ? 1U : devices);
            for (const Call call : AllCalls()) {
                if (IsSystemCall(call)) {
                    const Cost cost = budget[NameOf(call)];
                    EXPECT_EQ(ran.watch->CountOf(call), cost.perDevice * devices + cost.once)
                        << NameOf(call) << " with " << devices << " devices, log level " << logLevel;
                }
            }
        }
    }
}

TEST_P(SystemCallBudget, OtherEntriesOfSysBlockCostOneReadEach)
{
    SIMHOST_NEEDS_NAMESPACE();
    constexpr unsigned others = 50;
    const Ran few = RunHost(HostText(GetParam(), 8), 0);
    const Ran many = RunHost(HostText(GetParam(), 8, others), 0);
    for (const Call call : AllCalls()) {
        if (IsSystemCall(call)) {
            const unsigned long added = many.watch->CountOf(call) - few.watch->CountOf(call);
            EXPECT_LE(added, call == Call::ReadDir ? others : 0) << NameOf(call);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, SystemCallBudget, ::testing::ValuesIn(DeviceKinds()), [](const auto& test) {
    std::string name = test.param;
    for (char& c : name) {
        c = c == ' ' ? '_' : c;
    }
    return name;
});

TEST(SystemCallBudgetOfAll, IsThatOfTheFourClasses)
{
    SIMHOST_NEEDS_NAMESPACE();
    const SimHost::Host host = SimHost::ReadHost(std::string(FAULTS_HOSTS) + "/oneOfEach.host");
    SimHost::MountedHost mounted(host);
    const Ran all = RunCall(mounted, {SimHost::CallKind::All, 0, ""}, 0, std::nullopt);
    std::map<Call, unsigned long> sum;
    for (const std::int32_t type : {0, 1, 2, 3}) {
        const Ran one = RunCall(mounted, {SimHost::CallKind::Individual, type, ""}, 0, std::nullopt);
        for (const Call call : AllCalls()) {
            sum[call] += one.watch->CountOf(call);
        }
    }
    EXPECT_GE(sum[Call::Ioctl], 38U);
    for (const Call call : AllCalls()) {
        if (IsSystemCall(call)) {
            EXPECT_EQ(all.watch->CountOf(call), sum[call]) << NameOf(call);
        }
    }
}

}  // namespace
