#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <thread>

#include "toolTests.h"
#include "tools/zddevices/scan/isolate.h"
#include "tools/zddevices/scan/progress.h"

namespace Zendra {
namespace ZDDevices {
namespace {

/** Opens a gate as soon as something is passed on. */
class GateKeeper : public Observer {
public:
    explicit GateKeeper(int gateEnd) : gate(gateEnd) {}
    void StillRunning(const std::vector<const Task*>& /*tasks*/) override {}
    void BeforeMessage() override { EXPECT_EQ(write(gate, "x", 1), 1); }

private:
    int gate;
};

TEST(Isolated, AMessageWithoutAnEndOfLineIsNotKeptUntilTheChildEnds)
{
    std::array<int, 2> gate{};
    ASSERT_EQ(pipe2(gate.data(), O_CLOEXEC), 0);
    GateKeeper keeper(gate[1]);
    const std::string text(3UL * 1024 * 1024, 'x');
    testing::internal::CaptureStderr();
    const auto waiting = [&] {
        std::size_t written = 0;
        while (written < text.size()) {
            const ssize_t count = write(STDERR_FILENO, text.data() + written, text.size() - written);
            if (count < 0) {
                return std::string("not written");
            }
            written += static_cast<std::size_t>(count);
        }
        char passed = '\0';
        return std::string(read(gate[0], &passed, 1) == 1 ? "passed on" : "not passed on");
    };
    const std::vector<Outcome> outcomes = RunIsolated({{"talkative", waiting}}, std::chrono::seconds(100), &keeper);
    EXPECT_TRUE(testing::internal::GetCapturedStderr() == text);
    EXPECT_EQ(outcomes.at(0).answer, "passed on");
    close(gate[0]);
    close(gate[1]);
}

TEST(Progress, ALineThatIsShownMakesRoomForAMessage)
{
    Progress line;
    std::this_thread::sleep_for(std::chrono::milliseconds(1100));
    testing::internal::CaptureStderr();
    line.Show({});
    line.BeforeMessage();
    line.BeforeMessage();
    const std::string written = testing::internal::GetCapturedStderr();
    const std::size_t erasing = written.find('\r', 1);
    ASSERT_NE(erasing, std::string::npos) << written;
    EXPECT_EQ(written.substr(0, erasing).find("\rzddevices: asking the devices ("), 0U) << written;
    EXPECT_EQ(written.substr(erasing), "\r" + std::string(erasing - 1, ' ') + "\r");
}

}  // namespace
}  // namespace ZDDevices
}  // namespace Zendra
