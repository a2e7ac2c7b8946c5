#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
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

std::string ContentOf(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    EXPECT_TRUE(file && content << file.rdbuf()) << path << " is missing or empty";
    return content.str();
}

/** What the model says about a host file, in the form of a golden text. */
std::string ModelOf(const std::filesystem::path& host)
{
    const std::string command = SIMHOST_MODEL " '" + host.string() + "'";
    const std::unique_ptr<FILE, int (*)(FILE*)> model(popen(command.c_str(), "r"), pclose);
    std::string text;
    std::array<char, 4096> piece{};
    while (const std::size_t size = model ? fread(piece.data(), 1, piece.size(), model.get()) : 0) {
        text.append(piece.data(), size);
    }
    EXPECT_FALSE(text.empty()) << "no output of " << command;
    return text;
}

/** One host file: its `see` lines, and the golden text beside it or else the model. */
class HostTest : public ::testing::Test {
public:
    explicit HostTest(std::filesystem::path path) : hostPath(std::move(path)) {}

    void TestBody() override
    {
        SIMHOST_NEEDS_NAMESPACE();
        const SimHost::Host host = SimHost::ReadHost(hostPath);
        std::filesystem::path goldenPath = hostPath;
        goldenPath.replace_extension(".golden");
        const bool golden = std::filesystem::exists(goldenPath);
        const std::string whole = golden ? ContentOf(goldenPath) : ModelOf(hostPath);
        for (const unsigned level : {4U, 1U, 0U}) {
            const SimHost::Outcome outcome = SimHost::RunHost(host, level);
            for (const std::string& complaint : outcome.complaints) {
                ADD_FAILURE() << "at log level " << level << ": " << complaint;
            }
            const std::string seen = SimHost::ResultsIn(outcome.text);
            const std::string toSee = SimHost::SeenOn(host);
            EXPECT_TRUE(seen == toSee) << "at log level " << level
                                       << ", see lines (-) and library (+): " << FirstDifference(toSee, seen);
            const std::string expected = SimHost::LinesUpToLevel(whole, level);
            EXPECT_TRUE(outcome.text == expected)
                << "at log level " << level << ", " << (golden ? "golden text" : "model")
                << " (-) and library (+): " << FirstDifference(expected, outcome.text);
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
        std::filesystem::path host = entry.path();
        EXPECT_TRUE(std::filesystem::exists(host.replace_extension(".host"))) << entry.path() << " stands alone";
        hosts += entry.path() == host ? 1 : 0;
    }
    EXPECT_GE(hosts, 90U);
}

int main(int argc, char** argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    RegisterHosts();
    return RUN_ALL_TESTS();
}
