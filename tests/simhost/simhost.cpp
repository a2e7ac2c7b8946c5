#include "simhost.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <utility>

#include "common/logger/log.h"
#include "common/options/softwareIdentity.h"
#include "kernel/namespaces.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "module/osinfos/systemdevice/systemDevice.h"

namespace SimHost {

namespace {

const char hexDigits[] = "0123456789abcdef";

using Kernel::ataIdentifySize;
using Kernel::nvmeIdentifySize;
using Kernel::senseLimit;

int HexValue(char digit)
{
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    if (digit >= 'A' && digit <= 'F') {
        return digit - 'A' + 10;
    }
    return -1;
}

std::string HexText(const unsigned char* bytes, std::size_t size)
{
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += hexDigits[bytes[i] >> 4];
        text += hexDigits[bytes[i] & 0x0f];
    }
    return text;
}

std::string ErrnoText(const std::string& what)
{
    const int error = errno;
    return what + ": " + std::strerror(error);
}

// ---------------------------------------------------------------------------------------------------------------
// Reading

struct Word {
    /** Empty for a plain word. */
    std::string key;
    std::string value;
};

/** One line of a host file, taken apart; every key has to be taken. */
class Line {
public:
    Line(const std::string& fileName, unsigned lineNumber, const std::string& content)
        : file(fileName), number(lineNumber)
    {
        Split(content);
    }

    [[noreturn]] void Bad(const std::string& why) const
    {
        throw ParseError(file + ":" + std::to_string(number) + ": " + why);
    }

    bool IsEmpty() const { return words.empty(); }
    unsigned Number() const { return number; }

    bool HasPlain() const { return !words.empty() && words.front().key.empty(); }

    std::string TakePlain(const std::string& what)
    {
        if (!HasPlain()) {
            Bad("expected " + what);
        }
        std::string value = words.front().value;
        words.erase(words.begin());
        return value;
    }

    std::optional<std::string> Take(const std::string& key)
    {
        const auto found = std::find_if(words.begin(), words.end(), [&](const Word& word) { return word.key == key; });
        if (found == words.end()) {
            return std::nullopt;
        }
        std::string value = found->value;
        words.erase(found);
        return value;
    }

    /** The next key and its value. */
    Word TakePair()
    {
        if (words.empty() || words.front().key.empty()) {
            Bad("expected key=value");
        }
        Word pair = words.front();
        words.erase(words.begin());
        return pair;
    }

    void ExpectEnd() const
    {
        if (words.empty()) {
            return;
        }
        const Word& word = words.front();
        Bad(word.key.empty() ? "unexpected word '" + word.value + "'"
                             : "unknown, repeated or misplaced key '" + word.key + "'");
    }

    std::int64_t NumberFrom(const std::string& text, std::int64_t least, std::int64_t most) const
    {
        std::size_t at = 0;
        const bool negative = !text.empty() && text[0] == '-';
        at += negative ? 1 : 0;
        const bool hex = !negative && text.size() > 2 && text[0] == '0' && text[1] == 'x';
        at += hex ? 2 : 0;
        if (at == text.size()) {
            Bad("'" + text + "' is not a number");
        }
        const std::int64_t base = hex ? 16 : 10;
        std::int64_t value = 0;
        for (; at < text.size(); ++at) {
            const int digit = HexValue(text[at]);
            if (digit < 0 || digit >= base || value > (std::int64_t{1} << 40)) {
                Bad("'" + text + "' is not a number");
            }
            value = value * base + digit;
        }
        value = negative ? -value : value;
        if (value < least || value > most) {
            Bad("'" + text + "' is out of range");
        }
        return value;
    }

    Bytes HexFrom(const std::string& text) const
    {
        if (text.size() % 2 != 0) {
            Bad("an odd number of hex digits");
        }
        Bytes bytes;
        for (std::size_t i = 0; i < text.size(); i += 2) {
            const int high = HexValue(text[i]);
            const int low = HexValue(text[i + 1]);
            if (high < 0 || low < 0) {
                Bad("'" + text + "' is not hex");
            }
            bytes.push_back(static_cast<unsigned char>(high * 16 + low));
        }
        return bytes;
    }

    int ErrnoFrom(const std::string& text) const
    {
        static const std::map<std::string, int> names = {{"EACCES", EACCES},
                                                         {"EAGAIN", EAGAIN},
                                                         {"EBUSY", EBUSY},
                                                         {"EFAULT", EFAULT},
                                                         {"EINTR", EINTR},
                                                         {"EINVAL", EINVAL},
                                                         {"EIO", EIO},
                                                         {"ENODEV", ENODEV},
                                                         {"ENOENT", ENOENT},
                                                         {"ENOMEM", ENOMEM},
                                                         {"ENOSYS", ENOSYS},
                                                         {"ENOTTY", ENOTTY},
                                                         {"ENXIO", ENXIO},
                                                         {"EPERM", EPERM},
                                                         {"EOPNOTSUPP", EOPNOTSUPP},
                                                         {"ETIMEDOUT", ETIMEDOUT}};
        const auto found = names.find(text);
        if (found == names.end()) {
            Bad("unknown errno '" + text + "'");
        }
        return found->second;
    }

    template <class Integer>
    Integer TakeNumber(const std::string& key, Integer otherwise, std::int64_t least = 0,
                       std::int64_t most = std::numeric_limits<Integer>::max())
    {
        const auto text = Take(key);
        return text ? static_cast<Integer>(NumberFrom(*text, least, most)) : otherwise;
    }

private:
    static bool IsBlank(char c) { return c == ' ' || c == '\t'; }

    void Split(const std::string& content)
    {
        std::size_t at = 0;
        while (true) {
            while (at < content.size() && IsBlank(content[at])) {
                ++at;
            }
            if (at == content.size() || (words.empty() && content[at] == '#')) {
                return;
            }
            Word word;
            if (content[at] != '"') {
                word.value = Bare(content, at);
                const std::size_t equals = word.value.find('=');
                if (equals != std::string::npos) {
                    word.key = word.value.substr(0, equals);
                    word.value.erase(0, equals + 1);
                    if (word.key.empty()) {
                        Bad("a key is missing before '='");
                    }
                }
            }
            if (at < content.size() && content[at] == '"') {
                if (!word.value.empty() || (at > 0 && word.key.empty() && !IsBlank(content[at - 1]))) {
                    Bad("a quote inside a word");
                }
                word.value = Quoted(content, at);
                if (at < content.size() && !IsBlank(content[at])) {
                    Bad("no blank behind a quoted text");
                }
            }
            words.push_back(word);
        }
    }

    std::string Bare(const std::string& content, std::size_t& at) const
    {
        std::string bare;
        for (; at < content.size() && !IsBlank(content[at]) && content[at] != '"'; ++at) {
            if (content[at] == '\\') {
                Bad("a backslash outside quotes");
            }
            bare += content[at];
        }
        return bare;
    }

    std::string Quoted(const std::string& content, std::size_t& at) const
    {
        std::string quoted;
        for (++at; at < content.size(); ++at) {
            if (content[at] == '"') {
                ++at;
                return quoted;
            }
            if (content[at] < ' ' || content[at] > '~') {
                Bad("a character outside printable ASCII in a text");
            }
            if (content[at] != '\\') {
                quoted += content[at];
                continue;
            }
            ++at;
            const char escape = at < content.size() ? content[at] : '\0';
            switch (escape) {
            case '"':
            case '\\':
                quoted += escape;
                break;
            case 'n':
                quoted += '\n';
                break;
            case 't':
                quoted += '\t';
                break;
            case 'r':
                quoted += '\r';
                break;
            case 'x':
                if (at + 2 < content.size() && HexValue(content[at + 1]) >= 0 && HexValue(content[at + 2]) >= 0) {
                    quoted += static_cast<char>(HexValue(content[at + 1]) * 16 + HexValue(content[at + 2]));
                    at += 2;
                    break;
                }
                [[fallthrough]];
            default:
                Bad("an unknown escape in a text");
            }
        }
        Bad("a text without its closing quote");
    }

    const std::string& file;
    unsigned number;
    std::vector<Word> words;
};

/** Puts a text into a field of fixed width. */
void PutField(const Line& line, Bytes& data, std::size_t offset, std::size_t width, const std::string& text,
              unsigned char pad)
{
    if (text.size() > width) {
        line.Bad("a text longer than its field of " + std::to_string(width));
    }
    for (std::size_t i = 0; i < width; ++i) {
        data[offset + i] = i < text.size() ? static_cast<unsigned char>(text[i]) : pad;
    }
}

/** ATA texts: the two characters of each word are swapped. */
void PutSwappedField(const Line& line, Bytes& data, std::size_t offset, std::size_t width, const std::string& text,
                     unsigned char pad)
{
    PutField(line, data, offset, width, text, pad);
    for (std::size_t i = offset; i < offset + width; i += 2) {
        std::swap(data[i], data[i + 1]);
    }
}

/** Reads one line of a sequence; `kind` says which. */
class AnswerReader {
public:
    AnswerReader(Line& theLine, const std::string& theKind) : line(theLine), kind(theKind) {}

    Answer Read()
    {
        answer.line = line.Number();
        ReadTimes();
        if (const auto failure = line.Take("errno")) {
            answer.failure = line.ErrnoFrom(*failure);
            line.ExpectEnd();
            return answer;
        }
        answer.result = line.TakeNumber<int>("result", 0);
        pad = line.TakeNumber<unsigned char>("pad", ' ');
        const auto raw = line.Take("data");
        if (kind == "inquiry") {
            ReadInquiry();
        } else if (kind == "serial") {
            ReadSerial();
        } else if (kind == "ata_identify") {
            ReadAta(raw.has_value());
        } else {
            ReadNvme(raw.has_value());
        }
        if (raw) {
            PutRaw(line.HexFrom(*raw));
        }
        while (const auto patch = line.Take("at")) {
            Patch(*patch);
        }
        if (kind == "inquiry" || kind == "serial") {
            ReadSense();
        }
        line.ExpectEnd();
        return answer;
    }

private:
    void ReadTimes()
    {
        const auto times = line.Take("times");
        if (times == "any") {
            answer.anyTimes = true;
        } else if (times) {
            answer.times = static_cast<unsigned>(line.NumberFrom(*times, 1, 1000));
        }
    }

    void ReadInquiry()
    {
        const auto type = line.Take("type");
        const auto vendor = line.Take("vendor");
        const auto product = line.Take("product");
        const auto revision = line.Take("revision");
        textGiven = type || vendor || product || revision;
        if (!textGiven) {
            return;
        }
        answer.data.assign(36, 0);
        answer.data[0] = type ? static_cast<unsigned char>(line.NumberFrom(*type, 0, 255)) : 0;
        answer.data[2] = 0x05;
        answer.data[3] = 0x02;
        answer.data[4] = 31;
        PutField(line, answer.data, 8, 8, vendor.value_or(""), pad);
        PutField(line, answer.data, 16, 16, product.value_or(""), pad);
        PutField(line, answer.data, 32, 4, revision.value_or(""), pad);
    }

    void ReadSerial()
    {
        const auto text = line.Take("text");
        const auto length = line.Take("length");
        const auto type = line.Take("type");
        textGiven = text || length || type;
        if (!textGiven) {
            return;
        }
        const std::string serial = text.value_or("");
        answer.data = {type ? static_cast<unsigned char>(line.NumberFrom(*type, 0, 255))
                            : static_cast<unsigned char>(0),
                       0x80, 0x00,
                       length ? static_cast<unsigned char>(line.NumberFrom(*length, 0, 255))
                              : static_cast<unsigned char>(serial.size() & 0xff)};
        answer.data.insert(answer.data.end(), serial.begin(), serial.end());
    }

    void ReadAta(bool raw)
    {
        answer.data.assign(ataIdentifySize, 0);
        ReadFields(raw, {{"model", 54, 40}, {"revision", 46, 8}, {"serial", 20, 20}}, PutSwappedField);
    }

    void ReadNvme(bool raw)
    {
        answer.data.assign(nvmeIdentifySize, 0);
        ReadFields(raw, {{"serial", 4, 20}, {"model", 24, 40}, {"revision", 64, 8}}, PutField);
    }

    struct Field {
        const char* key;
        std::size_t offset;
        std::size_t width;
    };

    void ReadFields(bool raw, const std::vector<Field>& fields, decltype(&PutField) put)
    {
        fixedSize = true;
        for (const Field& field : fields) {
            if (const auto text = line.Take(field.key)) {
                textGiven = true;
                put(line, answer.data, field.offset, field.width, *text, pad);
            }
        }
        if (raw && textGiven) {
            line.Bad("'data' beside texts");
        }
    }

    void PutRaw(const Bytes& raw)
    {
        if (textGiven) {
            line.Bad("'data' beside texts");
        }
        if (!fixedSize) {
            answer.data = raw;
            return;
        }
        if (raw.size() > answer.data.size()) {
            line.Bad("more data than the answer has room for");
        }
        std::copy(raw.begin(), raw.end(), answer.data.begin());
    }

    void Patch(const std::string& patch)
    {
        const std::size_t colon = patch.find(':');
        if (colon == std::string::npos) {
            line.Bad("'at' without a colon");
        }
        const auto offset = static_cast<std::size_t>(line.NumberFrom(patch.substr(0, colon), 0, nvmeIdentifySize));
        const Bytes bytes = line.HexFrom(patch.substr(colon + 1));
        if (offset > answer.data.size() || (fixedSize && offset + bytes.size() > answer.data.size())) {
            line.Bad("'at' lies outside the answer");
        }
        answer.data.resize(std::max(answer.data.size(), offset + bytes.size()));
        std::copy(bytes.begin(), bytes.end(), answer.data.begin() + static_cast<std::ptrdiff_t>(offset));
    }

    void ReadSense()
    {
        answer.sense = line.HexFrom(line.Take("sense").value_or(""));
        if (answer.sense.size() > senseLimit) {
            line.Bad("more sense bytes than the request has room for");
        }
        answer.senseLengthWritten =
            line.TakeNumber<unsigned char>("sb_len", static_cast<unsigned char>(answer.sense.size()), 0, senseLimit);
        answer.info = line.TakeNumber<unsigned>("info", 0);
        answer.status = line.TakeNumber<unsigned char>("status", 0);
        answer.maskedStatus = line.TakeNumber<unsigned char>("masked_status", 0);
        answer.hostStatus = line.TakeNumber<unsigned short>("host_status", 0);
        answer.driverStatus = line.TakeNumber<unsigned short>("driver_status", 0);
    }

    Line& line;
    const std::string& kind;
    Answer answer;
    unsigned char pad = ' ';
    bool textGiven = false;
    /** Whether the answer's size is the command's and not the device's affair. */
    bool fixedSize = false;
};

class HostReader {
public:
    HostReader(const std::string& hostText, const std::string& hostName) : stream(hostText) { host.name = hostName; }

    Host Read()
    {
        std::string content;
        unsigned number = 0;
        while (std::getline(stream, content)) {
            Line line(host.name, ++number, content);
            if (!line.IsEmpty()) {
                ReadLine(line);
            }
        }
        Check();
        return std::move(host);
    }

private:
    void ReadLine(Line& line)
    {
        const std::string keyword = line.TakePlain("a keyword");
        if (keyword == "modprobe") {
            ReadModprobe(line);
        } else if (keyword == "call") {
            ReadCall(line);
        } else if (keyword == "see") {
            ReadSee(line);
        } else if (keyword == "dev") {
            ReadDev(line);
        } else if (keyword == "devdir") {
            ExpectPlain(line, "unreadable");
            host.devUnreadable = true;
        } else if (keyword == "block") {
            ReadBlock(line);
        } else if (keyword == "sysblock") {
            ExpectPlain(line, "absent");
            host.blockAbsent = true;
        } else if (keyword == "cdrom_info") {
            host.cdromInfo = host.cdromInfo.value_or("") + line.TakePlain("a text");
        } else {
            ReadNodeLine(line, keyword);
            return;
        }
        line.ExpectEnd();
        inNode = keyword == "dev" && host.dev.back().kind == EntryKind::Node;
    }

    static void ExpectPlain(Line& line, const std::string& word)
    {
        if (line.TakePlain("'" + word + "'") != word) {
            line.Bad("expected '" + word + "'");
        }
    }

    void ReadModprobe(Line& line)
    {
        if (modprobeGiven) {
            line.Bad("a second modprobe line");
        }
        modprobeGiven = true;
        if (line.HasPlain()) {
            ExpectPlain(line, "noshell");
            host.modprobeStatus = -1;
            return;
        }
        const auto exitStatus = line.Take("exit");
        if (!exitStatus) {
            line.Bad("expected exit=N or noshell");
        }
        host.modprobeStatus = static_cast<int>(line.NumberFrom(*exitStatus, 0, 255)) << 8;
    }

    void ReadCall(Line& line)
    {
        const std::string word = line.TakePlain("a call");
        Call call;
        if (word == "individual") {
            call.kind = CallKind::Individual;
            call.type = static_cast<std::int32_t>(line.NumberFrom(line.TakePlain("a type"),
                                                                  std::numeric_limits<std::int32_t>::min(),
                                                                  std::numeric_limits<std::int32_t>::max()));
        } else if (word == "optical") {
            call.kind = CallKind::Optical;
        } else if (word == "firmware") {
            call.kind = CallKind::Firmware;
        } else if (word != "all") {
            line.Bad("unknown call '" + word + "'");
        }
        host.calls.push_back(call);
    }

    void ReadSee(Line& line)
    {
        if (host.calls.empty()) {
            line.Bad("a result without a call");
        }
        std::string& seen = host.calls.back().seen;
        const std::string what = line.TakePlain("'status' or a kind of record");
        if ((what == "status") != seen.empty()) {
            line.Bad("the status of a call comes first, and once");
        }
        if (what == "status") {
            seen = "status " + line.TakePlain("a number") + "\n";
            return;
        }
        seen += what + "\n";
        while (!line.IsEmpty()) {
            const Word field = line.TakePair();
            seen += "  " + field.key + " " + Quote(field.value) + "\n";
        }
    }

    static void CheckName(const Line& line, const std::string& name)
    {
        if (name.empty() || name.size() > 255 || name == "." || name == ".." ||
            name.find_first_of(std::string("/\0", 2)) != std::string::npos) {
            line.Bad("not a name for a directory entry");
        }
    }

    void ReadDev(Line& line)
    {
        static const std::map<std::string, EntryKind> kinds = {{"node", EntryKind::Node},
                                                               {"file", EntryKind::File},
                                                               {"directory", EntryKind::Directory},
                                                               {"dangling", EntryKind::Dangling},
                                                               {"link", EntryKind::Link},
                                                               {"unreadable", EntryKind::Unreadable},
                                                               {"unopenable", EntryKind::Unopenable}};
        const auto kind = kinds.find(line.TakePlain("a kind of entry"));
        if (kind == kinds.end()) {
            line.Bad("unknown kind of entry");
        }
        DevEntry entry;
        entry.kind = kind->second;
        entry.name = line.TakePlain("a name");
        CheckName(line, entry.name);
        if (!devNames.insert(entry.name).second) {
            line.Bad("the name occurs twice");
        }
        if (entry.kind == EntryKind::Link) {
            const auto target = line.Take("target");
            if (!target) {
                line.Bad("expected target=");
            }
            entry.target = *target;
            CheckName(line, entry.target);
        }
        host.dev.push_back(entry);
    }

    void ReadBlock(Line& line)
    {
        BlockEntry entry;
        entry.name = line.TakePlain("a name");
        CheckName(line, entry.name);
        if (!blockNames.insert(entry.name).second) {
            line.Bad("the name occurs twice");
        }
        entry.firmwareRev = line.Take("firmware_rev");
        entry.rev = line.Take("rev");
        host.block.push_back(entry);
    }

    void ReadNodeLine(Line& line, const std::string& keyword)
    {
        static const std::map<std::string, std::optional<PlainAnswer> Node::*> plain = {
            {"sg_version", &Node::sgVersion}, {"idlun", &Node::idLun}, {"bus_number", &Node::busNumber}};
        static const std::map<std::string, std::vector<Answer> Node::*> sequences = {
            {"inquiry", &Node::inquiry},
            {"serial", &Node::serial},
            {"ata_identify", &Node::ataIdentify},
            {"nvme_identify", &Node::nvmeIdentify}};
        const auto plainEntry = plain.find(keyword);
        const auto sequence = sequences.find(keyword);
        if (plainEntry == plain.end() && sequence == sequences.end() && keyword != "scsi_id") {
            line.Bad("unknown keyword '" + keyword + "'");
        }
        if (!inNode) {
            line.Bad("an answer outside a node");
        }
        Node& node = host.dev.back().node;
        if (sequence != sequences.end()) {
            std::vector<Answer>& answers = node.*sequence->second;
            if (!answers.empty() && answers.back().anyTimes) {
                line.Bad("an answer behind one with times=any");
            }
            answers.push_back(AnswerReader(line, keyword).Read());
            return;
        }
        std::optional<PlainAnswer>& answer = keyword == "scsi_id" ? node.scsiId : node.*plainEntry->second;
        if (answer) {
            line.Bad("a second answer for " + keyword);
        }
        answer = ReadPlain(line, keyword);
    }

    static PlainAnswer ReadPlain(Line& line, const std::string& keyword)
    {
        constexpr std::int64_t least = std::numeric_limits<std::int32_t>::min();
        PlainAnswer answer;
        answer.line = line.Number();
        if (const auto failure = line.Take("errno")) {
            answer.failure = line.ErrnoFrom(*failure);
        } else if (keyword == "scsi_id") {
            for (const char* key : {"host", "channel", "id", "lun"}) {
                answer.values.push_back(line.TakeNumber<std::int32_t>(key, 0, least));
            }
        } else if (keyword == "idlun") {
            const auto number = static_cast<std::uint32_t>(
                line.NumberFrom(line.TakePlain("a number"), 0, std::numeric_limits<std::uint32_t>::max()));
            answer.values.push_back(static_cast<std::int32_t>(number));
        } else {
            answer.values.push_back(static_cast<std::int32_t>(
                line.NumberFrom(line.TakePlain("a number"), least, std::numeric_limits<std::int32_t>::max())));
        }
        line.ExpectEnd();
        return answer;
    }

    void Check() const
    {
        const auto bad = [this](const std::string& why) { throw ParseError(host.name + ": " + why); };
        if (!modprobeGiven) {
            bad("no modprobe line");
        }
        if (host.calls.empty()) {
            bad("no call");
        }
        if (host.blockAbsent && !host.block.empty()) {
            bad("block lines without /sys/block");
        }
        for (const DevEntry& entry : host.dev) {
            if (entry.kind == EntryKind::Link && devNames.count(entry.target) == 0) {
                bad("a link to '" + entry.target + "', which does not exist");
            }
        }
    }

    std::istringstream stream;
    Host host;
    bool modprobeGiven = false;
    bool inNode = false;
    std::set<std::string> devNames;
    std::set<std::string> blockNames;
};

// ---------------------------------------------------------------------------------------------------------------
// Directories

/** The entries of a directory in the order in which it yields them, without "." and "..". */
std::vector<std::string> EntriesOf(const std::string& directory)
{
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), closedir);
    if (!stream) {
        throw MountError(ErrnoText("cannot read " + directory));
    }
    std::vector<std::string> names;
    while (const dirent* entry = readdir(stream.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    return names;
}

void Make(int result, const std::string& path)
{
    if (result < 0) {
        throw MountError(ErrnoText("cannot make " + path));
    }
}

void MakeFile(const std::string& path, const std::string& content, mode_t mode)
{
    const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
    Make(descriptor, path);
    const ssize_t written = write(descriptor, content.data(), content.size());
    close(descriptor);
    if (written != static_cast<ssize_t>(content.size())) {
        throw MountError("cannot write " + path);
    }
    Make(chmod(path.c_str(), mode), path);
}

/**
 * Whether a directory of this file system yields its newest entry first. Kernels differ; a tmpfs of one kernel does
 * one of the two.
 */
bool NewestFirst(const std::string& directory)
{
    const std::string scratch = directory + "/scratch";
    Make(mkdir(scratch.c_str(), 0700), scratch);
    const std::vector<std::string> made = {"m", "z", "a", "q", "b"};
    for (const std::string& name : made) {
        MakeFile(scratch + "/" + name, "", 0600);
    }
    const std::vector<std::string> read = EntriesOf(scratch);
    for (const std::string& name : made) {
        Make(unlink((scratch + "/" + name).c_str()), scratch);
    }
    Make(rmdir(scratch.c_str()), scratch);
    if (read == made) {
        return false;
    }
    if (std::equal(made.rbegin(), made.rend(), read.begin(), read.end())) {
        return true;
    }
    throw MountError("tmpfs yields its entries in no order that can be had by making them in order");
}

/** Calls `make` for every entry so that the directory yields them in the order of `entries`; checks that it does. */
template <class Entry, class Maker>
void MakeInOrder(const std::string& directory, const std::vector<Entry>& entries, Maker make)
{
    std::vector<const Entry*> order;
    std::vector<std::string> names;
    for (const Entry& entry : entries) {
        order.push_back(&entry);
        names.push_back(entry.name);
    }
    if (NewestFirst(directory)) {
        std::reverse(order.begin(), order.end());
    }
    for (const Entry* entry : order) {
        make(directory + "/" + entry->name, *entry);
    }
    if (EntriesOf(directory) != names) {
        throw MountError(directory + " does not yield its entries in the order asked for");
    }
}

void MakeDevEntry(const std::string& path, const DevEntry& entry)
{
    switch (entry.kind) {
    case EntryKind::Node:
    case EntryKind::File:
        MakeFile(path, "", 0660);
        break;
    case EntryKind::Directory:
        Make(mkdir(path.c_str(), 0755), path);
        break;
    case EntryKind::Dangling:
        Make(symlink("no such entry/at all", path.c_str()), path);
        break;
    case EntryKind::Unreadable:
        MakeFile(path, "", 0000);
        break;
    case EntryKind::Unopenable:
        Make(mknod(path.c_str(), S_IFSOCK | 0660, 0), path);
        break;
    case EntryKind::Link:
        Make(symlink(entry.target.c_str(), path.c_str()), path);
        break;
    }
}

void MakeBlockEntry(const std::string& path, const BlockEntry& entry)
{
    Make(mkdir(path.c_str(), 0755), path);
    Make(mkdir((path + "/device").c_str(), 0755), path);
    if (entry.firmwareRev) {
        MakeFile(path + "/device/firmware_rev", *entry.firmwareRev, 0444);
    }
    if (entry.rev) {
        MakeFile(path + "/device/rev", *entry.rev, 0444);
    }
}

/** Takes away, for its lifetime, what lets root pass file permissions: mode 000 then means what it says. */
class OrdinaryPermissions {
public:
    OrdinaryPermissions()
    {
        if (syscall(SYS_capget, &header, saved) != 0) {
            throw MountError(ErrnoText("cannot read capabilities"));
        }
        __user_cap_data_struct reduced[2] = {saved[0], saved[1]};
        reduced[0].effective &= ~((1U << CAP_DAC_OVERRIDE) | (1U << CAP_DAC_READ_SEARCH));
        if (syscall(SYS_capset, &header, reduced) != 0) {
            throw MountError(ErrnoText("cannot drop capabilities"));
        }
    }
    ~OrdinaryPermissions()
    {
        if (syscall(SYS_capset, &header, saved) != 0) {
            std::abort();
        }
    }
    OrdinaryPermissions(const OrdinaryPermissions&) = delete;
    OrdinaryPermissions& operator=(const OrdinaryPermissions&) = delete;

private:
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct saved[2]{};
};

std::size_t OpenDescriptors()
{
    return EntriesOf("/proc/self/fd").size();
}

// ---------------------------------------------------------------------------------------------------------------

/** The host whose turn it is: each thread has one of its own, in a mount namespace of its own. */
thread_local MountedHost* current = nullptr;

}  // namespace

Host ParseHost(const std::string& text, const std::string& name)
{
    return HostReader(text, name).Read();
}

Host ReadHost(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    if (!file || !(content << file.rdbuf())) {
        throw ParseError(path + ": cannot be read, or is empty");
    }
    return ParseHost(content.str(), path);
}

std::string Quote(const std::string& text)
{
    std::string quoted = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        switch (c) {
        case '"':
        case '\\':
            quoted += '\\';
            quoted += c;
            break;
        case '\n':
            quoted += "\\n";
            break;
        case '\t':
            quoted += "\\t";
            break;
        case '\r':
            quoted += "\\r";
            break;
        default:
            if (byte >= 0x20 && byte <= 0x7e) {
                quoted += c;
            } else {
                quoted += "\\x" + HexText(&byte, 1);
            }
        }
    }
    return quoted + '"';
}

std::string EnterPrivateNamespace()
{
    static thread_local bool entered = false;
    if (entered) {
        return "";
    }
    const std::string reason = Kernel::EnterNamespaces(CLONE_NEWNS);
    entered = reason.empty();
    return entered ? "" : "a simulated host " + reason;
}

// ---------------------------------------------------------------------------------------------------------------
// The fake

MountedHost::MountedHost(const Host& theHost, Directories directories)
    : host(theHost), devices([this](const std::string& what) { Complain(what); })
{
    if (current != nullptr) {
        throw MountError("one host at a time");
    }
    if (directories == Directories::AreThere) {
        current = this;
        return;
    }
    const auto mountAt = [this](const std::string& point) {
        if (mount("simhost", point.c_str(), "tmpfs", 0, "mode=755") != 0) {
            throw MountError(ErrnoText("cannot mount a tmpfs over " + point));
        }
        mountPoints.push_back(point);
    };
    try {
        mountAt("/dev");
        mountAt("/sys");
        mountAt("/proc/sys/dev");
        MakeInOrder("/dev", host.dev, MakeDevEntry);
        if (host.devUnreadable) {
            Make(chmod("/dev", 0311), "/dev");
        }
        if (!host.blockAbsent) {
            Make(mkdir("/sys/block", 0755), "/sys/block");
            MakeInOrder("/sys/block", host.block, MakeBlockEntry);
        }
        if (host.cdromInfo) {
            Make(mkdir("/proc/sys/dev/cdrom", 0755), "/proc/sys/dev/cdrom");
            MakeFile("/proc/sys/dev/cdrom/info", *host.cdromInfo, 0444);
        }
    } catch (...) {
        for (auto point = mountPoints.rbegin(); point != mountPoints.rend(); ++point) {
            umount2(point->c_str(), MNT_DETACH);
        }
        throw;
    }
    current = this;
    Kernel::AnswerThread(this);
}

MountedHost::~MountedHost()
{
    current = nullptr;
    Kernel::AnswerThread(nullptr);
    for (auto point = mountPoints.rbegin(); point != mountPoints.rend(); ++point) {
        if (umount2(point->c_str(), MNT_DETACH) != 0) {
            // Whatever ran next would see this host's devices.
            std::abort();
        }
    }
}

void MountedHost::Note(const std::string& line)
{
    text += line + "\n";
}

void MountedHost::Complain(const std::string& what)
{
    // Names and texts of a host may hold any byte; a test report should not.
    const std::string quoted = Quote(what);
    complaints.push_back(quoted.substr(1, quoted.size() - 2));
}

int MountedHost::Ioctl(int descriptor, unsigned request, void* argument)
{
    const auto fail = [this](int error, const std::string& complaint) {
        Complain(complaint);
        errno = error;
        return -1;
    };
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    char target[4096];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    if (length < 0) {
        return fail(EBADF, "ioctl on a descriptor that is not open");
    }
    const std::string path(target, static_cast<std::size_t>(length));
    if (path.compare(0, 5, "/dev/") != 0) {
        return fail(ENOTTY, "ioctl on " + path);
    }
    const auto entry = std::find_if(host.dev.begin(), host.dev.end(),
                                    [&](const DevEntry& known) { return path.compare(5, path.npos, known.name) == 0; });
    if (entry == host.dev.end()) {
        return fail(ENOTTY, "ioctl on an unknown device file, " + path);
    }
    const int flags = fcntl(descriptor, F_GETFL);
    if ((flags & O_ACCMODE) != O_RDONLY || (flags & O_NONBLOCK) == 0) {
        Complain(path + " was not opened read-only and non-blocking");
    }
    return devices.Ioctl(*entry, request, argument);
}

int MountedHost::System(const char* command)
{
    const std::string line = command != nullptr ? command : "(null)";
    Note("system " + Quote(line));
    if (line != "modprobe sg >/dev/null 2>&1") {
        Complain("unexpected command: " + line);
        return -1;
    }
    return host.modprobeStatus;
}

unsigned MountedHost::Sleep(unsigned seconds)
{
    Note("sleep " + std::to_string(seconds));
    return 0;
}

// ---------------------------------------------------------------------------------------------------------------
// Running

namespace {

using Zendra::ZDOptions::SoftwareIdentity_;
using Zendra::ZDSystemDevice::DeviceCollector;
using Zendra::ZDSystemDevice::OpticalProperty;
using Zendra::ZDSystemDevice::SystemDevice;

void NoteLogLine(unsigned level, const char* file, int line, const std::string& message)
{
    if (current == nullptr) {
        return;
    }
    current->Note("log " + std::to_string(level) + " " + Quote(message));
    if (file == nullptr || std::strncmp(file, "src/", 4) != 0 || line <= 0) {
        current->Complain(std::string("a log line from ") + (file != nullptr ? file : "(null)") + ":" +
                          std::to_string(line));
    }
}

void NoteField(MountedHost& mounted, const char* name, const std::string& value)
{
    mounted.Note(std::string("  ") + name + " " + Quote(value));
}

void NoteRecord(MountedHost& mounted, const SystemDevice& device)
{
    mounted.Note("device");
    NoteField(mounted, "vendor", device.vendor);
    NoteField(mounted, "product", device.product);
    NoteField(mounted, "device_type", device.device_type);
    NoteField(mounted, "serial_number", device.serial_number);
    NoteField(mounted, "firmware_revision", device.firmware_revision);
    NoteField(mounted, "port", device.port);
    NoteField(mounted, "target", device.target);
    NoteField(mounted, "bus", device.bus);
    NoteField(mounted, "lun", device.lun);
}

void NoteRecord(MountedHost& mounted, const OpticalProperty& drive)
{
    mounted.Note("optical");
    NoteField(mounted, "drive_name_", drive.drive_name_);
    NoteField(mounted, "vendor_", drive.vendor_);
    NoteField(mounted, "product_", drive.product_);
    NoteField(mounted, "dvd_ram_write_", drive.dvd_ram_write_);
    NoteField(mounted, "cd_rw_write_", drive.cd_rw_write_);
    NoteField(mounted, "cd_r_write_", drive.cd_r_write_);
    NoteField(mounted, "dvd_read_", drive.dvd_read_);
    NoteField(mounted, "dvd_r_write_", drive.dvd_r_write_);
    NoteField(mounted, "mrw_r_", drive.mrw_r_);
    NoteField(mounted, "mrw_w_", drive.mrw_w_);
    NoteField(mounted, "ram_w_", drive.ram_w_);
}

void NoteRecord(MountedHost& mounted, const SoftwareIdentity_& identity)
{
    mounted.Note("identity");
    NoteField(mounted, "Name", identity.Name);
    NoteField(mounted, "SoftwareID", identity.SoftwareID);
    NoteField(mounted, "VersionString", identity.VersionString);
    NoteField(mounted, "SerialNumber", identity.SerialNumber);
    NoteField(mounted, "Classifications", identity.Classifications);
    NoteField(mounted, "IsPLDMUpdateSupported", identity.IsPLDMUpdateSupported);
    NoteField(mounted, "Category", std::to_string(identity.Category));
}

template <class Record>
void NoteOutcome(MountedHost& mounted, unsigned status, const std::vector<Record>& records)
{
    mounted.Note("status " + std::to_string(status));
    for (const Record& record : records) {
        NoteRecord(mounted, record);
    }
}

void RunCall(MountedHost& mounted, const Call& call)
{
    DeviceCollector collector;
    switch (call.kind) {
    case CallKind::All: {
        std::vector<SystemDevice> devices;
        const unsigned status = collector.GetAllDevice(devices);
        NoteOutcome(mounted, status, devices);
        break;
    }
    case CallKind::Individual: {
        std::vector<SystemDevice> devices;
        const unsigned status =
            collector.GetIndividualDevice(devices, static_cast<Zendra::ZDSystemDevice::SysDeviceType>(call.type));
        NoteOutcome(mounted, status, devices);
        break;
    }
    case CallKind::Optical: {
        std::vector<OpticalProperty> drives;
        const unsigned status = collector.GetOpticalProperties(drives);
        NoteOutcome(mounted, status, drives);
        break;
    }
    case CallKind::Firmware: {
        std::vector<SoftwareIdentity_> identities;
        const unsigned status = collector.GetDiskDriverSoftwareIdentities(identities);
        NoteOutcome(mounted, status, identities);
        break;
    }
    }
}

std::string CallText(const Call& call)
{
    switch (call.kind) {
    case CallKind::All:
        return "call all";
    case CallKind::Individual:
        return "call individual " + std::to_string(call.type);
    case CallKind::Optical:
        return "call optical";
    case CallKind::Firmware:
        return "call firmware";
    }
    return "";
}

/** Log lines go to the mounted host, up to a level. */
class LogCapture {
public:
    explicit LogCapture(unsigned level) : levelBefore(Zendra::Log::GetMinLogLevel())
    {
        Zendra::Log::SetSink(NoteLogLine);
        Zendra::Log::SetMinLogLevel(level);
    }
    ~LogCapture()
    {
        Zendra::Log::SetMinLogLevel(levelBefore);
        Zendra::Log::SetSink(nullptr);
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

private:
    unsigned levelBefore;
};

}  // namespace

Outcome RunHost(const Host& host, unsigned logLevel)
{
    // What cat writes about a missing file becomes part of the text.
    setenv("LC_ALL", "C", 1);
    MountedHost mounted(host);
    for (const Call& call : host.calls) {
        mounted.Note(CallText(call));
        mounted.BeginCall();
        const std::size_t openBefore = OpenDescriptors();
        try {
            const OrdinaryPermissions permissions;
            const LogCapture capture(logLevel);
            RunCall(mounted, call);
        } catch (const MountError&) {
            throw;
        } catch (const std::exception& error) {
            mounted.Complain(std::string("an exception left the library: ") + error.what());
        }
        const std::size_t openAfter = OpenDescriptors();
        if (openAfter != openBefore) {
            mounted.Complain(CallText(call) + ": " + std::to_string(openBefore) + " open descriptors before, " +
                             std::to_string(openAfter) + " after");
        }
    }
    mounted.ComplainOfUnusedAnswers();
    return {mounted.Text(), mounted.Complaints()};
}

std::string LinesUpToLevel(const std::string& golden, unsigned logLevel)
{
    std::istringstream lines(golden);
    std::string line;
    std::string kept;
    while (std::getline(lines, line)) {
        if (line.compare(0, 4, "log ") != 0 || std::stoul(line.substr(4)) <= logLevel) {
            kept += line + "\n";
        }
    }
    return kept;
}

std::string ResultsIn(const std::string& golden)
{
    std::istringstream lines(golden);
    std::string line;
    std::string kept;
    while (std::getline(lines, line)) {
        if (line.compare(0, 4, "log ") != 0 && line.compare(0, 7, "system ") != 0 &&
            line.compare(0, 6, "sleep ") != 0) {
            kept += line + "\n";
        }
    }
    return kept;
}

std::string SeenOn(const Host& host)
{
    std::string seen;
    for (const Call& call : host.calls) {
        seen += CallText(call) + "\n" + call.seen;
    }
    return seen;
}

}  // namespace SimHost
