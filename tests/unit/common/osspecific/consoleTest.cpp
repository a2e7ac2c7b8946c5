#include "common/osspecific/osspecific_lin.h"

#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
#include <utmp.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <thread>

#include "support.h"

using namespace Zendra;
using namespace ZendraTest;

namespace {

/** Far beyond what any machine needs: it only ends a test that hangs. */
constexpr auto patience = std::chrono::seconds(60);

bool Eventually(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

bool SameAttributes(const termios& one, const termios& other)
{
    return one.c_iflag == other.c_iflag && one.c_oflag == other.c_oflag && one.c_cflag == other.c_cflag &&
           one.c_lflag == other.c_lflag && std::memcmp(one.c_cc, other.c_cc, sizeof one.c_cc) == 0 &&
           one.c_line == other.c_line && cfgetispeed(&one) == cfgetispeed(&other);
}

/** A process on a pseudo-terminal of its own that runs `body` and ends with its result. */
class OnTerminal {
public:
    explicit OnTerminal(const std::function<int()>& body)
    {
        int slave = -1;
        EXPECT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        // Before there is a process that could change them.
        EXPECT_EQ(tcgetattr(master, &initial), 0);
        static_cast<void>(std::fflush(nullptr));
        process = fork();
        if (process == 0) {
            close(master);
            EndForkedBody(login_tty(slave) == 0 ? body() : 199);
        }
        EXPECT_GT(process, 0);
        close(slave);
    }
    ~OnTerminal()
    {
        if (process > 0) {
            kill(process, SIGKILL);
            waitpid(process, nullptr, 0);
        }
        close(master);
    }
    OnTerminal(const OnTerminal&) = delete;
    OnTerminal& operator=(const OnTerminal&) = delete;

    void Type(const std::string& keys) { EXPECT_EQ(write(master, keys.data(), keys.size()), ssize_t(keys.size())); }

    termios Attributes() const
    {
        termios now{};
        EXPECT_EQ(tcgetattr(master, &now), 0);
        return now;
    }
    const termios& Initial() const { return initial; }

    /** What the process wrote, and what the terminal echoed, up to `end`. */
    std::string OutputUpTo(char end)
    {
        std::string output;
        char byte = '\0';
        while (output.find(end) == std::string::npos && read(master, &byte, 1) == 1) {
            output += byte;
        }
        return output;
    }

    int ExitCode()
    {
        int status = 0;
        EXPECT_EQ(waitpid(process, &status, 0), process);
        process = -1;
        EXPECT_TRUE(WIFEXITED(status));
        return WEXITSTATUS(status);
    }

private:
    pid_t process = -1;
    int master = -1;
    termios initial{};
};

/** In a terminal's process: 200 when the attributes differ from `before`, otherwise `result`. */
int UnlessChanged(const termios& before, int result)
{
    termios after{};
    return tcgetattr(0, &after) == 0 && SameAttributes(before, after) ? result : 200;
}

int ReadOneKey()
{
    termios before{};
    tcgetattr(0, &before);
    return UnlessChanged(before, OSSpecific::GetKeyboardChar());
}

/** Makes standard input something else; only in an isolated body. */
void ReplaceStandardInput(int descriptor)
{
    ASSERT_EQ(dup2(descriptor, STDIN_FILENO), STDIN_FILENO);
    close(descriptor);
}

}  // namespace

TEST(KeyboardChar, IsReadWithAllLocalModesClearedAndTheAttributesAreRestored)
{
    OnTerminal terminal(ReadOneKey);
    ASSERT_NE(terminal.Initial().c_lflag, 0U) << "a terminal that has nothing to clear tests nothing";
    ASSERT_TRUE(Eventually([&] { return terminal.Attributes().c_lflag == 0; }));
    termios expected = terminal.Initial();
    expected.c_lflag = 0;
    EXPECT_TRUE(SameAttributes(terminal.Attributes(), expected)) << "nothing but the local modes changes";
    terminal.Type("k");
    EXPECT_EQ(terminal.ExitCode(), 'k');
    EXPECT_TRUE(SameAttributes(terminal.Attributes(), terminal.Initial()));
}

TEST(KeyboardChar, IsNotEchoed)
{
    OnTerminal terminal([] {
        const int key = ReadOneKey();
        return write(STDOUT_FILENO, ".", 1) == 1 ? key : 201;
    });
    ASSERT_TRUE(Eventually([&] { return terminal.Attributes().c_lflag == 0; }));
    terminal.Type("k");
    EXPECT_EQ(terminal.OutputUpTo('.'), ".");
    EXPECT_EQ(terminal.ExitCode(), 'k');
}

TEST(KeyboardChar, MayBeASignalKeyAndALineEditingKey)
{
    for (const char key : {'\x03', '\x1c', '\x1a', '\x04', '\x7f'}) {
        OnTerminal terminal(ReadOneKey);
        ASSERT_TRUE(Eventually([&] { return terminal.Attributes().c_lflag == 0; }));
        terminal.Type(std::string(1, key));
        EXPECT_EQ(terminal.ExitCode(), key);
    }
}

TEST(KeyboardChar, OfAPipeAFileAndDevNullIsItsFirstByteOrTheEnd)
{
    const TemporaryDirectory directory;
    WriteFile(directory / "file", "\xFE...");
    RunIsolated([&] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ASSERT_EQ(write(ends[1], "xy", 2), 2);
        ReplaceStandardInput(ends[0]);
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), 'x');
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), 'y');
        close(ends[1]);
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), EOF);
    });
    RunIsolated([&] {
        ReplaceStandardInput(open((directory / "file").c_str(), O_RDONLY));
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), 0xFE) << "an unsigned value, so that it is not taken for the end";
    });
    RunIsolated([] {
        ReplaceStandardInput(open("/dev/null", O_RDONLY));
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), EOF);
    });
}

TEST(KeyboardChar, OfAClosedDescriptorIsTheEnd)
{
    RunIsolated([] {
        close(STDIN_FILENO);
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), EOF);
    });
}

TEST(KeyWaiting, IsFalseUntilAKeyIsTypedAndTrueThenWithoutALineEnd)
{
    OnTerminal terminal([] {
        termios before{};
        tcgetattr(0, &before);
        if (OSSpecific::IsKeyWaiting()) {
            return 201;
        }
        if (write(STDOUT_FILENO, ".", 1) != 1 || !Eventually(OSSpecific::IsKeyWaiting)) {
            return 202;
        }
        // Asking takes nothing away.
        return UnlessChanged(before, OSSpecific::IsKeyWaiting() ? OSSpecific::GetKeyboardChar() : 203);
    });
    EXPECT_EQ(terminal.OutputUpTo('.'), ".");
    terminal.Type("k");
    EXPECT_EQ(terminal.ExitCode(), 'k');
    EXPECT_TRUE(SameAttributes(terminal.Attributes(), terminal.Initial()));
}

TEST(KeyWaiting, OfAPipeFollowsWhatIsInItAndItsEnd)
{
    RunIsolated([] {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        ReplaceStandardInput(ends[0]);
        EXPECT_FALSE(OSSpecific::IsKeyWaiting());
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        EXPECT_TRUE(OSSpecific::IsKeyWaiting());
        EXPECT_EQ(OSSpecific::GetKeyboardChar(), 'x');
        EXPECT_FALSE(OSSpecific::IsKeyWaiting());
        close(ends[1]);
        EXPECT_TRUE(OSSpecific::IsKeyWaiting());
    });
}

TEST(KeyWaiting, IsTrueWhenSelectFails)
{
    RunIsolated([] {
        close(STDIN_FILENO);
        EXPECT_TRUE(OSSpecific::IsKeyWaiting());
    });
}

TEST(Console, LogsNothing)
{
    RunIsolated([] {
        ReplaceStandardInput(open("/dev/null", O_RDONLY));
        ExpectLog(
            [] {
                OSSpecific::IsKeyWaiting();
                OSSpecific::GetKeyboardChar();
            },
            {});
    });
}
