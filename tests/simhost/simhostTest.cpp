#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "simhost.h"
#include "simhostTest.h"

namespace {

std::vector<std::string> LinesOf(const std::string& text)
{
    std::istringstream stream(text);
    std::vector<std::string> lines;
    std::string line;
    while (std::getline(stream, line)) {
        lines.push_back(line);
    }
    return lines;
}

/** The place where two texts part, with the lines around it. */
std::string FirstDifference(const std::string& expected, const std::string& actual)
{
    constexpr std::size_t before = 6;
    constexpr std::size_t after = 10;
    const std::vector<std::string> left = LinesOf(expected);
    const std::vector<std::string> right = LinesOf(actual);
    std::size_t same = 0;
    while (same < left.size() && same < right.size() && left[same] == right[same]) {
        ++same;
    }
    std::ostringstream report;
    report << "they part at line " << same + 1 << "\n";
    for (std::size_t i = same > before ? same - before : 0; i < same; ++i) {
        report << "    " << left[i] << "\n";
    }
    for (std::size_t i = same; i < std::min(left.size(), same + after); ++i) {
        report << "  - " << left[i] << "\n";
    }
    for (std::size_t i = same; i < std::min(right.size(), same + after); ++i) {
        report << "  + " << right[i] << "\n";
    }
    return report.str();
}

/** One host file and the golden text beside it. */
class HostTest : public ::testing::Test {
public:
    explicit HostTest(std::filesystem::path path) : hostPath(std::move(path)) {}

    void TestBody() override
    {
        SIMHOST_NEEDS_NAMESPACE();
        const SimHost::Host host = SimHost::ReadHost(hostPath);
        std::filesystem::path goldenPath = hostPath;
        goldenPath.replace_extension(".golden");
        std::ifstream file(goldenPath, std::ios::binary);
        std::ostringstream content;
        ASSERT_TRUE(file && content << file.rdbuf()) << goldenPath << " is missing or empty";
        for (const unsigned level : {4U, 1U, 0U}) {
            const SimHost::Outcome outcome = SimHost::RunHost(host, level);
            for (const std::string& complaint : outcome.complaints) {
                ADD_FAILURE() << "at log level " << level << ": " << complaint;
            }
            const std::string expected = SimHost::LinesUpToLevel(content.str(), level);
            EXPECT_TRUE(outcome.text == expected)
                << "at log level " << level
                << ", golden text (-) and library (+): " << FirstDifference(expected, outcome.text);
        }
    }

private:
    std::filesystem::path hostPath;
};

void RegisterHosts()
{
    std::vector<std::filesystem::path> hosts;
    for (const auto& entry : std::filesystem::directory_iterator(SIMHOST_DIRECTORY)) {
        if (entry.path().extension() == ".host") {
            hosts.push_back(entry.path());
        }
    }
    std::sort(hosts.begin(), hosts.end());
    for (const std::filesystem::path& host : hosts) {
        ::testing::RegisterTest("Host", host.stem().c_str(), nullptr, nullptr, __FILE__, __LINE__,
                                [host]() -> ::testing::Test* { return new HostTest(host); });
    }
}

}  // namespace

TEST(HostFiles, EveryGoldenTextHasItsHost)
{
    std::size_t hosts = 0;
    for (const auto& entry : std::filesystem::directory_iterator(SIMHOST_DIRECTORY)) {
        std::filesystem::path partner = entry.path();
        partner.replace_extension(entry.path().extension() == ".host" ? ".golden" : ".host");
        EXPECT_TRUE(std::filesystem::exists(partner)) << entry.path() << " stands alone";
        hosts += entry.path().extension() == ".host" ? 1 : 0;
    }
    EXPECT_GE(hosts, 25U);
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    RegisterHosts();
    return RUN_ALL_TESTS();
}
