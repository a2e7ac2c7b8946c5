/**
 * @file
 * @brief Simulated hosts: reads a host file, makes its directories, answers the library's requests.
 *
 * The program that links this has `ioctl`, `system` and `sleep` taken (kernel/systemCalls.h), so that a shared
 * library's calls come here while a host is mounted; at other times they go to the system. README.md describes the
 * files. One host at a time in each thread: a thread has its own mount namespace and sees its own host only (RunHost(),
 * which counts the descriptors of the whole process, is for one thread). Nothing here knows GoogleTest.
 */
#ifndef ZENDRA_TESTS_SIMHOST_H
#define ZENDRA_TESTS_SIMHOST_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "kernel/devices.h"
#include "kernel/host.h"
#include "kernel/systemCalls.h"

namespace SimHost {

using Kernel::Answer;
using Kernel::BlockEntry;
using Kernel::Bytes;
using Kernel::DevEntry;
using Kernel::EntryKind;
using Kernel::Node;
using Kernel::PlainAnswer;

/** A host file that cannot be read as one; the text names the file and the line. */
class ParseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/** A host that cannot be made on this machine. */
class MountError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class CallKind { All, Individual, Optical, Firmware };

/** One call of the library. */
struct Call {
    CallKind kind = CallKind::All;
    /** Of Individual: the type. */
    std::int32_t type = 0;
    /** The status and the records that a person expects, in the form of a golden text. */
    std::string seen;
};

/** A whole host file. */
struct Host : Kernel::Host {
    std::string name;
    std::vector<Call> calls;
};

/** Reads a host from text. `name` stands in messages. Throws ParseError. */
Host ParseHost(const std::string& text, const std::string& name);

/** Reads a host file. Throws ParseError, also when the file cannot be read. */
Host ReadHost(const std::string& path);

/** The text in double quotes, as host files and golden texts write it. */
std::string Quote(const std::string& text);

/**
 * Takes this thread into a private mount namespace, once. Empty when that worked (or had been done), otherwise why
 * simulated hosts are not possible here.
 */
std::string EnterPrivateNamespace();

/** Makes a host's directories and answers its requests, until destroyed. EnterPrivateNamespace() comes first. */
class MountedHost : private Kernel::SystemCalls {
public:
    /** Whether the host's directories are made, or have been made by another process. */
    enum class Directories { Make, AreThere };

    /**
     * `host` must outlive this. Throws MountError. Takes the calls of this thread, but not where the directories are
     * there already: whoever has made this passes on which it likes.
     */
    explicit MountedHost(const Host& host, Directories directories = Directories::Make);
    ~MountedHost() override;
    MountedHost(const MountedHost&) = delete;
    MountedHost& operator=(const MountedHost&) = delete;

    /** Starts every sequence of answers at its first. */
    void BeginCall() { devices.BeginCall(); }

    /** Adds a line to the text of what happened: a log line, a status, a record. */
    void Note(const std::string& line);

    /** Adds a complaint: something that must not happen. */
    void Complain(const std::string& what);

    /** Complains about each answer that no call has had. */
    void ComplainOfUnusedAnswers() { devices.ComplainOfUnusedAnswers(host.dev); }

    /** All that happened up to now, in the form of a golden text. */
    const std::string& Text() const { return text; }

    const std::vector<std::string>& Complaints() const { return complaints; }

    /** What ioctl() does while this host is mounted: result or -1 with errno. */
    int Ioctl(int descriptor, unsigned request, void* argument) override;

    /** What system() does while this host is mounted. */
    int System(const char* command) override;

    /** What sleep() does while this host is mounted. */
    unsigned Sleep(unsigned seconds) override;

private:
    const Host& host;
    std::vector<std::string> mountPoints;
    std::string text;
    std::vector<std::string> complaints;
    Kernel::Devices devices;
};

/** What became of one host. */
struct Outcome {
    /** In the form of a golden text. */
    std::string text;
    /** What must not have happened; empty when all is well. */
    std::vector<std::string> complaints;
};

/** Mounts the host, makes its calls at this log level. Throws MountError. */
Outcome RunHost(const Host& host, unsigned logLevel);

/** A golden text without the log lines above a level. */
std::string LinesUpToLevel(const std::string& golden, unsigned logLevel);

/** The calls, statuses and records of a golden text. */
std::string ResultsIn(const std::string& golden);

/** What the `see` lines of a host expect, in the form of ResultsIn(). */
std::string SeenOn(const Host& host);

}  // namespace SimHost

#endif
