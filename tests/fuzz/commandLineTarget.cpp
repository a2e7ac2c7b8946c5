// Command lines: the four functions that run a program, with a child that is played by the fake system.
//
// Input:
//   byte 0: the function: 0 one string, 1 path and parameters, 2 the two tries, 3 SpawnProcessIn; 4 is added for a log,
//           8 for tryflag 2 and 16 for tryflag 3 of SpawnProcessIn (which has 1 otherwise)
//   byte 1: how the child's output ends: 0 normally, 1 with silence, 2 with a failing select, 3 with a failing waitpid;
//           added: 4 exec fails, 8 fork fails (functions 2 and 3 only), 16 pipe fails
//   byte 2: the child's exit code; byte 3: the signal (low 7 bits) that ended it
//   byte 4: the timeout, signed; byte 5: what one read brings (more where that would be too many reads), 0: all
//   bytes 6-7: n, low byte first, and n bytes: what the child writes
// Then the command line. The functions other than the first get the words between single blanks: path, arg0 (where
// there is one), parameters; those that hold a '=' as environment besides.

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "common/osspecific/osspecific_lin.h"
#include "fakeSystem.h"
#include "logCapture.h"
#include "opticalModel.h"

using Zendra::Fuzz::Child;
using Zendra::Fuzz::Execution;
using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;

namespace {

using Words = std::vector<std::string>;

Words SplitAtBlanks(const std::string& line)
{
    Words words(1);
    for (const char c : line) {
        if (c == ' ') {
            words.emplace_back();
        } else {
            words.back() += c;
        }
    }
    return words;
}

std::string UpToNul(const std::string& text)
{
    return text.substr(0, text.find('\0'));
}

Words UpToNul(Words words)
{
    for (std::string& word : words) {
        word = UpToNul(word);
    }
    return words;
}

/** What must come of a call. */
struct Expectation {
    int result = -1;
    std::string output = "before:";
    std::vector<Execution> executions;
    std::vector<int> exits;
    std::string log;
};

/** What both ways of reading a child's output have in common: nothing more came; what now? */
enum class End { Reached, TimedOut, SelectFailed };

End EndOf(const Child& child, int timeout, bool endless)
{
    if (!child.forkFails && child.end == Child::End::SelectFails) {
        return End::SelectFailed;
    }
    return !child.forkFails && child.end == Child::End::Silence && !endless && timeout >= 0 ? End::TimedOut
                                                                                            : End::Reached;
}

class Model {
public:
    Model(const Child& theChild, int theTimeout) : child(theChild), timeout(theTimeout) {}

    Expectation expected;

    void Basic(const std::string& path, const Words& parameters)
    {
        Line(3, "SpawnProcess: process " + path + "\n");
        expected.result = -1;
        if (child.pipeFails) {
            return;
        }
        Words arguments = UpToNul(parameters);
        arguments.insert(arguments.begin(), UpToNul(path));
        expected.executions.push_back({UpToNul(path), arguments, std::nullopt});
        int status = child.status;
        Words chunks = Zendra::Fuzz::Chunks(child.output);
        if (child.execFailure != 0) {
            expected.exits.push_back(-1);
            status = 0xff00;
            chunks.clear();
        }
        if (timeout < -1) {
            Line(1, "SpawnProcess - select call failed! \n");
            return;
        }
        for (const std::string& chunk : chunks) {
            expected.output += chunk;
        }
        switch (EndOf(child, timeout, timeout == -1)) {
        case End::TimedOut:
            Line(1, "SpawnProcess - " + path + " TimeOut! \n");
            return;
        case End::SelectFailed:
            Line(1, "SpawnProcess - select call failed! \n");
            return;
        case End::Reached:
            break;
        }
        if (child.end == Child::End::WaitFails) {
            Line(1, "SpawnProcess - waitpid call failed! \n");
        } else if (status % 0x80 != 0) {
            Line(1, "SpawnProcess - Child process exited abnormally!\n");
        } else {
            expected.result = status == 0 ? 0 : -1;
        }
    }

    void In(const std::string& path, const std::string& arg0, const Words& parameters, const Words& environment,
            int tryflag)
    {
        Words arguments = UpToNul(parameters);
        arguments.insert(arguments.begin(), UpToNul(arg0));
        std::string opening = tryflag == 1 ? "tryflag == 1, " : tryflag == 2 ? "tryflag == 2, " : "";
        opening += "OSSpecific::SpawnProcess calling " + path + "\nwith parameters: ";
        for (const std::string& argument : arguments) {
            opening += argument + " ";
        }
        Line(4, opening + "\nwith environment vars: ");
        expected.result = child.pipeFails ? -1 : Run(path, arg0, arguments, environment, tryflag);
        Line(3, "SpawnProcess() " + arg0 + " Returned:" + expected.output);
    }

    void TwoTries(const std::string& path, const std::string& arg0, const Words& parameters, const Words& environment)
    {
        In(path, arg0, parameters, environment, 1);
        if (expected.result != 0 && !environment.empty()) {
            Line(4, "running first time failed using execvp(), try second time using execve()");
            expected.output.clear();
            In(path, arg0, parameters, environment, 2);
        }
    }

private:
    void Line(unsigned level, const std::string& text) { expected.log += std::to_string(level) + " " + text + "\n"; }

    int Run(const std::string& path, const std::string& arg0, const Words& arguments, const Words& environment,
            int tryflag)
    {
        int status = child.status;
        Words chunks = Zendra::Fuzz::Chunks(child.output);
        if (child.forkFails) {
            chunks.clear();
        } else {
            RunChild(path, arguments, environment, tryflag, status, chunks);
        }
        Line(4, "Enter else for pid == 0! ");
        for (const std::string& chunk : chunks) {
            Line(4, "*output_ptr == " + expected.output + ", appended buffer == " + chunk);
            expected.output += chunk;
        }
        switch (EndOf(child, timeout, timeout < 0)) {
        case End::TimedOut:
            Line(1, "SpawnProcess -" + arg0 + " TimeOut!");
            return -1;
        case End::SelectFailed:
            Line(1, "SpawnProcess - select call failed!");
            return -1;
        case End::Reached:
            break;
        }
        Line(4, "*output_ptr == " + expected.output + ", appended buffer == ");
        if (!child.forkFails && child.end == Child::End::WaitFails) {
            Line(1, "SpawnProcess - waitpid call failed!");
            return -1;
        }
        // Without a child the wait for process -1 answers -1, which is taken for that process.
        if (child.forkFails || status % 0x80 != 0) {
            Line(1, "SpawnProcess - Child process exited abnormally!");
            return -1;
        }
        Line(3, "SpawnProcess - Child process exited code = " + std::to_string(status / 0x100));
        return status / 0x100;
    }

    void RunChild(const std::string& path, const Words& arguments, const Words& environment, int tryflag, int& status,
                  Words& chunks)
    {
        Line(4, "Enter pid == 0! ");
        if (tryflag != 1 && tryflag != 2) {
            Line(4, "tryflag == unexpected: " + std::to_string(tryflag));
            expected.exits.push_back(0);
            status = 0;
            return;
        }
        const std::string function = tryflag == 1 ? "execvp" : "execve";
        Execution execution{UpToNul(path), arguments, std::nullopt};
        if (tryflag == 2) {
            execution.environment = UpToNul(environment);
            Line(4, "envc=" + std::to_string(environment.size() + 1));
            for (std::size_t i = 0; i < environment.size(); ++i) {
                Line(4, "envp[" + std::to_string(i) + "]=" + UpToNul(environment[i]));
            }
        }
        Line(4, function + " calling, exe_path == " + path);
        expected.executions.push_back(execution);
        if (child.execFailure != 0) {
            const std::string reason = std::strerror(child.execFailure);
            Line(4, function + " called, exe_path == " + path + ", returned value == -1");
            Line(4, "exec invocation failed, err msg == " + reason);
            expected.exits.push_back(-1);
            status = 0xff00;
            chunks = {"execve error!: " + reason + "\n"};
        }
    }

    const Child& child;
    const int timeout;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Zendra::Fuzz::Input input(data, size);
    const unsigned flags = input.Byte();
    const unsigned function = flags % 4;
    const bool logs = (flags & 4) != 0;
    const int tryflag = (flags & 16) != 0 ? 3 : (flags & 8) != 0 ? 2 : 1;
    const unsigned fate = input.Byte();
    Zendra::Fuzz::Host host;
    host.children.emplace_back();
    Child& child = host.children.back();
    child.end = static_cast<Child::End>(fate % 4);
    child.execFailure = (fate & 4) != 0 ? ENOENT : 0;
    // The first two functions leave memory behind then, as they have to, and the fuzzer would look for leaks no more.
    child.forkFails = (fate & 8) != 0 && function >= 2;
    child.pipeFails = (fate & 16) != 0;
    const int exitCode = input.Byte();
    const int signal = input.Byte() % 0x80;
    child.status = signal != 0 ? signal : exitCode << 8;
    const int timeout = static_cast<std::int8_t>(input.Byte());
    const std::size_t pieceSize = input.Byte();
    child.output = Zendra::Fuzz::Pieces(input.TakeText(input.Number16()), pieceSize);
    const std::string commandLine = input.RestText();

    const Words words = SplitAtBlanks(commandLine);
    const std::string& path = words[0];
    const std::size_t afterArg0 = function >= 2 ? 2 : 1;
    const std::string arg0 = words.size() > 1 ? words[1] : "";
    const Words parameters(words.begin() + static_cast<std::ptrdiff_t>(std::min(afterArg0, words.size())), words.end());
    Words environment;
    std::copy_if(words.begin(), words.end(), std::back_inserter(environment),
                 [](const std::string& word) { return word.find('=') != std::string::npos; });

    Model model(child, timeout);
    switch (function) {
    case 0:
    case 1:
        model.Basic(path, parameters);
        break;
    case 2:
        model.TwoTries(path, arg0, parameters, environment);
        break;
    default:
        model.In(path, arg0, parameters, environment, tryflag);
        break;
    }
    const Expectation& expected = model.expected;

    std::string output = "before:";
    int result = 0;
    Zendra::Fuzz::FakeSystem system(host);
    const Zendra::Fuzz::LogCapture log(logs ? 4 : 0);
    switch (function) {
    case 0:
        result = Zendra::OSSpecific::SpawnProcess(commandLine, &output, timeout);
        break;
    case 1:
        result = Zendra::OSSpecific::SpawnProcess(path, parameters, &output, timeout);
        break;
    case 2:
        result = Zendra::OSSpecific::SpawnProcess(path, arg0, parameters, environment, timeout, &output);
        break;
    default:
        result = Zendra::OSSpecific::SpawnProcessIn(path, arg0, parameters, environment, timeout, tryflag, &output);
        break;
    }
    RequireEqual(static_cast<std::int64_t>(system.executions.size()),
                 static_cast<std::int64_t>(expected.executions.size()), "programs that are run");
    for (std::size_t i = 0; i < expected.executions.size(); ++i) {
        RequireEqual(system.executions[i].path, expected.executions[i].path, "the program that is run");
        Require(system.executions[i].arguments == expected.executions[i].arguments, "its arguments");
        Require(system.executions[i].environment == expected.executions[i].environment, "its environment");
    }
    Require(system.exits == expected.exits, "exit codes of children that became no program");
    RequireEqual(output, expected.output, "the output");
    RequireEqual(result, expected.result, "the result");
    RequireEqual(Zendra::Fuzz::LogCapture::Lines(), logs ? expected.log : "", "the log");
    return 0;
}
