/**
 * @file
 * @brief Simulated hosts: reads a host file, makes its directories, answers the library's requests.
 *
 * The program that links this defines `ioctl`, `system` and `sleep` (in simhost.cpp), so that a shared library's
 * calls come here while a host is mounted; at other times they go to the system. README.md describes the files.
 * One host at a time in each thread: a thread has its own mount namespace and sees its own host only (RunHost(),
 * which counts the descriptors of the whole process, is for one thread). Nothing here knows GoogleTest.
 */
#ifndef ZENDRA_TESTS_SIMHOST_H
#define ZENDRA_TESTS_SIMHOST_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace SimHost {

using Bytes = std::vector<unsigned char>;

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

/** One line of a sequence of answers. */
struct Answer {
    unsigned times = 1;
    /** Given as often as asked; `times` is then 1. */
    bool anyTimes = false;
    /** 0, or why the ioctl fails. */
    int failure = 0;
    /** What an ioctl that does not fail returns. */
    int result = 0;
    Bytes data;
    Bytes sense;
    unsigned char senseLengthWritten = 0;
    unsigned info = 0;
    unsigned char status = 0;
    unsigned char maskedStatus = 0;
    unsigned short hostStatus = 0;
    unsigned short driverStatus = 0;
    /** Line of the host file, for complaints. */
    unsigned line = 0;
};

/** An answer that is the same however often it is asked for. */
struct PlainAnswer {
    int failure = 0;
    std::vector<std::int32_t> values;
    unsigned line = 0;
};

/** Everything that a device file answers. */
struct Node {
    std::optional<PlainAnswer> sgVersion;
    /** host, channel, id, lun */
    std::optional<PlainAnswer> scsiId;
    std::optional<PlainAnswer> idLun;
    std::optional<PlainAnswer> busNumber;
    std::vector<Answer> inquiry;
    std::vector<Answer> serial;
    std::vector<Answer> ataIdentify;
    std::vector<Answer> nvmeIdentify;
};

enum class EntryKind { Node, File, Directory, Dangling, Unreadable, Unopenable, Link };

/** One entry of /dev. */
struct DevEntry {
    EntryKind kind = EntryKind::Node;
    std::string name;
    /** Of a Link: the entry's name that it leads to. */
    std::string target;
    Node node;
};

/** One entry of /sys/block. */
struct BlockEntry {
    std::string name;
    std::optional<std::string> firmwareRev;
    std::optional<std::string> rev;
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

/** A whole host. */
struct Host {
    std::string name;
    /** What system() returns for the module loading. */
    int modprobeStatus = 0;
    std::vector<DevEntry> dev;
    bool devUnreadable = false;
    std::vector<BlockEntry> block;
    bool blockAbsent = false;
    std::optional<std::string> cdromInfo;
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
class MountedHost {
public:
    /** Whether the host's directories are made, or have been made by another process. */
    enum class Directories { Make, AreThere };

    /** `host` must outlive this. Throws MountError. */
    explicit MountedHost(const Host& host, Directories directories = Directories::Make);
    ~MountedHost();
    MountedHost(const MountedHost&) = delete;
    MountedHost& operator=(const MountedHost&) = delete;

    /** Starts every sequence of answers at its first. */
    void BeginCall();

    /** Adds a line to the text of what happened: a log line, a status, a record. */
    void Note(const std::string& line);

    /** Adds a complaint: something that must not happen. */
    void Complain(const std::string& what);

    /** Complains about each answer that no call has had. */
    void ComplainOfUnusedAnswers();

    /** All that happened up to now, in the form of a golden text. */
    const std::string& Text() const { return text; }

    const std::vector<std::string>& Complaints() const { return complaints; }

    /** What ioctl() does while this host is mounted: result or -1 with errno. */
    int Ioctl(int descriptor, unsigned request, void* argument);

    /** What system() does while this host is mounted. */
    int System(const char* command);

    /** What sleep() does while this host is mounted. */
    unsigned Sleep(unsigned seconds);

private:
    struct Position {
        std::size_t answer = 0;
        unsigned given = 0;
    };

    const DevEntry* FindNode(const std::string& name) const;
    int Fail(int error, const std::string& complaint);
    int GivePlain(const std::optional<PlainAnswer>& plain, const std::string& what);
    const Answer* NextAnswer(const std::vector<Answer>& answers, const std::string& what);
    int ScsiCommand(const DevEntry& entry, void* argument);
    int AtaCommand(const DevEntry& entry, void* argument);
    int NvmeCommand(const DevEntry& entry, void* argument);

    const Host& host;
    std::vector<std::string> mountPoints;
    std::string text;
    std::vector<std::string> complaints;
    std::map<const std::vector<Answer>*, Position> positions;
    /** The most that one call has had of an answer. */
    std::map<const Answer*, unsigned> mostGiven;
    std::map<const PlainAnswer*, unsigned> plainGiven;
    /** What the caller's buffers must hold before the next SCSI command: nothing but what we wrote. */
    Bytes expectedSense = Bytes(32);
    Bytes expectedData = Bytes(255);
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
