#include "faultless.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <optional>
#include <stdexcept>
#include <utility>

namespace Faults {

namespace {

constexpr unsigned sgIo = 0x2285;

using SimHost::Answer;
using SimHost::Host;
using SimHost::Node;
using SimHost::PlainAnswer;

/** One answer of a node; exactly one of the two is there. */
struct Question {
    std::optional<PlainAnswer> Node::*plain = nullptr;
    std::vector<Answer> Node::*sequence = nullptr;

    bool operator==(const Question& other) const { return plain == other.plain && sequence == other.sequence; }
};

const std::vector<std::pair<unsigned, Question>>& Questions()
{
    static const std::vector<std::pair<unsigned, Question>> questions = {
        {0x2282, {&Node::sgVersion, nullptr}},   {0x2276, {&Node::scsiId, nullptr}},
        {0x5382, {&Node::idLun, nullptr}},       {0x5386, {&Node::busNumber, nullptr}},
        {0x031f, {nullptr, &Node::ataIdentify}}, {0xc0484e41, {nullptr, &Node::nvmeIdentify}},
        {sgIo, {nullptr, &Node::inquiry}},       {sgIo, {nullptr, &Node::serial}}};
    return questions;
}

/** What the requests of one device file have asked for up to now. */
class Asked {
public:
    Question Next(unsigned request)
    {
        // Both questions of SG_IO come once: first INQUIRY, then the serial number page.
        const bool second = request == sgIo && CountOf({nullptr, &Node::inquiry}) > 0;
        const auto found = std::find_if(Questions().begin(), Questions().end(),
                                        [&](const auto& known) { return known.first == request; });
        if (found == Questions().end()) {
            throw std::logic_error("a request that is no question");
        }
        const Question question = second ? Question{nullptr, &Node::serial} : found->second;
        done.push_back(question);
        return question;
    }

    unsigned CountOf(const Question& question) const
    {
        return static_cast<unsigned>(std::count(done.begin(), done.end(), question));
    }

private:
    std::vector<Question> done;
};

/** The node gives as many answers as that, then fails, once or for good. */
void FailAfter(Node& node, const Question& question, unsigned answered, bool forGood)
{
    if (question.plain != nullptr) {
        if (answered == 0) {
            node.*question.plain = PlainAnswer{EIO, {}, 0};
        } else if (!forGood) {
            // The version is asked once more for the serial number page, which is then not asked for.
            FailAfter(node, {nullptr, &Node::serial}, 0, true);
        }
        return;
    }
    std::vector<Answer>& answers = node.*question.sequence;
    const std::vector<Answer> whole = answers;
    answers.clear();
    if (answered > 0) {
        answers = whole;
        answers.back().anyTimes = false;
        answers.back().times = answered;
    }
    Answer failure;
    failure.failure = EIO;
    failure.anyTimes = forGood;
    answers.push_back(failure);
    if (!forGood) {
        answers.insert(answers.end(), whole.begin(), whole.end());
    }
}

bool BeginsWith(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

unsigned ClassOf(const std::string& name)
{
    if (BeginsWith(name, "st") || BeginsWith(name, "nst")) {
        return 0;
    }
    return BeginsWith(name, "sg") ? 1 : BeginsWith(name, "sr") ? 3 : 2;
}

}  // namespace

FaultlessRuns::FaultlessRuns(const Host& theHost, unsigned theLogLevel)
    : host(theHost), call(theHost.calls.at(0)), logLevel(theLogLevel)
{
    // What libraries allocate once must not be counted.
    Run(host);
    clean = Run(host);
    Host empty = host;
    empty.dev.clear();
    nothingListed = Run(empty).result;
    Host otherBlocks = host;
    otherBlocks.block = {{"of no device", std::nullopt, std::nullopt}};
    Run(otherBlocks);
    otherBlocks.block.clear();
    otherBlocks.blockAbsent = true;
    Run(otherBlocks);
}

Ran FaultlessRuns::Run(const Host& changed)
{
    SimHost::MountedHost mounted(changed);
    Ran ran = RunCall(mounted, call, logLevel, std::nullopt);
    lines.insert(ran.lines.begin(), ran.lines.end());
    return ran;
}

Allowed FaultlessRuns::Only(const Host& changed)
{
    return {{Run(changed).result}, false};
}

std::size_t FaultlessRuns::IndexOf(Call kind, unsigned long number) const
{
    const std::vector<Event>& trace = clean.watch->Trace();
    for (std::size_t i = 0; i < trace.size(); ++i) {
        if (trace[i].call == kind && --number == 0) {
            return i;
        }
    }
    return trace.size();
}

/** The request with this place in the record of calls is not answered, or nothing is from there on. */
Host FaultlessRuns::WithoutAnswers(std::size_t index, bool fromThenOn) const
{
    Host changed = host;
    std::map<std::string, Asked> asked;
    const std::vector<Event>& trace = clean.watch->Trace();
    for (std::size_t i = 0; i < index; ++i) {
        if (trace[i].call == Call::Ioctl) {
            asked[trace[i].text].Next(trace[i].request);
        }
    }
    for (SimHost::DevEntry& entry : changed.dev) {
        const std::string path = "/dev/" + entry.name;
        if (fromThenOn) {
            for (const auto& known : Questions()) {
                FailAfter(entry.node, known.second, asked[path].CountOf(known.second), true);
            }
        } else if (index < trace.size() && path == trace[index].text) {
            const Asked before = asked[path];
            const Question question = asked[path].Next(trace[index].request);
            FailAfter(entry.node, question, before.CountOf(question), false);
        }
    }
    return changed;
}

/** Revision files that were not opened before this place are not there. */
Host FaultlessRuns::WithoutFiles(std::size_t index) const
{
    Host changed = host;
    const std::vector<Event>& trace = clean.watch->Trace();
    const auto before = trace.begin() + static_cast<std::ptrdiff_t>(index);
    const auto keep = [&](const std::string& path, std::optional<std::string>& content) {
        if (std::none_of(trace.begin(), before, [&](const Event& event) { return event.text == path; })) {
            content.reset();
        }
    };
    for (SimHost::BlockEntry& entry : changed.block) {
        keep("/sys/block/" + entry.name + "/device/firmware_rev", entry.firmwareRev);
        keep("/sys/block/" + entry.name + "/device/rev", entry.rev);
    }
    return changed;
}

Allowed FaultlessRuns::AfterOpen(std::size_t index, bool fromThenOn)
{
    const std::vector<Event>& trace = clean.watch->Trace();
    // What the device file was opened for.
    std::size_t request = index;
    while (request < trace.size() && trace[request].call != Call::Ioctl) {
        ++request;
    }
    if (fromThenOn) {
        Host changed = WithoutAnswers(request, true);
        changed.block = WithoutFiles(index).block;
        return Only(changed);
    }
    if (BeginsWith(trace[index].text, "/dev/")) {
        return Only(WithoutAnswers(request, false));
    }
    Host changed = host;
    for (SimHost::BlockEntry& entry : changed.block) {
        const std::string directory = "/sys/block/" + entry.name + "/device/";
        if (trace[index].text == directory + "firmware_rev") {
            entry.firmwareRev.reset();
        } else if (trace[index].text == directory + "rev") {
            entry.rev.reset();
        }
    }
    return Only(changed);
}

Allowed FaultlessRuns::AfterRead(std::size_t index)
{
    const std::vector<Event>& trace = clean.watch->Trace();
    Allowed allowed{{clean.result}, false};
    std::size_t opened = index;
    while (opened > 0 && (trace[opened].call != Call::Open || trace[opened].descriptor != trace[index].descriptor)) {
        --opened;
    }
    // The end of a file says nothing, and a child's output is read again.
    if (trace[index].text.empty() || !BeginsWith(trace[opened].text, "/sys/block/")) {
        return allowed;
    }
    // A file that cannot be read is not made up for by the other one.
    Host changed = host;
    for (SimHost::BlockEntry& entry : changed.block) {
        if (BeginsWith(trace[opened].text, "/sys/block/" + entry.name + "/")) {
            entry.firmwareRev.reset();
            entry.rev.reset();
        }
    }
    allowed.results.push_back(Run(changed).result);
    return allowed;
}

/** A directory that cannot be opened, or whose listing ends early. */
Allowed FaultlessRuns::AfterListing(std::size_t index, bool fromThenOn)
{
    const std::vector<Event>& trace = clean.watch->Trace();
    std::size_t opened = index;
    while (trace[opened].call != Call::OpenDir) {
        --opened;
    }
    // "." and ".." come first.
    const std::size_t listed = index - opened > 2 ? index - opened - 3 : 0;
    const bool isDev = trace[opened].text == "/dev/";
    Allowed allowed{{}, fromThenOn};
    if (isDev && fromThenOn && opened == IndexOf(Call::OpenDir, 1) && listed == 0) {
        return {{nothingListed}, false};
    }
    if (!isDev || fromThenOn) {
        allowed.results.push_back(clean.result);
        Host without = host;
        for (std::size_t i = 0; i < host.block.size(); ++i) {
            Host changed = host;
            for (SimHost::BlockEntry* entry : {&changed.block[i], &without.block[i]}) {
                entry->firmwareRev.reset();
                entry->rev.reset();
            }
            allowed.results.push_back(Run(changed).result);
        }
        allowed.results.push_back(Run(without).result);
    }
    if (fromThenOn) {
        allowed.results.push_back(nothingListed);
    }
    if (isDev || fromThenOn) {
        for (const char* prefix : {"st", "nst", "sg", "hd", "sd", "nvme", "sr"}) {
            Host changed = host;
            changed.dev.clear();
            for (std::size_t i = 0; i < host.dev.size(); ++i) {
                if (i < listed || !BeginsWith(host.dev[i].name, prefix)) {
                    changed.dev.push_back(host.dev[i]);
                }
            }
            allowed.results.push_back(Run(changed).result);
            for (SimHost::BlockEntry& entry : changed.block) {
                entry.firmwareRev.reset();
                entry.rev.reset();
            }
            allowed.results.push_back(Run(changed).result);
        }
    }
    return allowed;
}

/** Of the child's output there is only what was read before. */
Allowed FaultlessRuns::AfterLostOutput(std::size_t index)
{
    const std::vector<Event>& trace = clean.watch->Trace();
    std::string output;
    int pipe = -1;
    for (std::size_t i = 0; i < index; ++i) {
        if (trace[i].call == Call::Pipe) {
            pipe = trace[i].descriptor;
        } else if (trace[i].call == Call::Read && trace[i].descriptor == pipe) {
            output += trace[i].text;
        }
    }
    Host changed = host;
    changed.cdromInfo = output;
    return Only(changed);
}

Allowed FaultlessRuns::After(const Fault& fault)
{
    const Allowed unchanged{{clean.result}, false};
    // Only the streams of directories take memory from malloc.
    const std::size_t index = IndexOf(fault.call == Call::Malloc ? Call::OpenDir : fault.call, fault.number);
    if (index == clean.watch->Trace().size()) {
        return unchanged;
    }
    switch (fault.call) {
    case Call::Open:
        return AfterOpen(index, fault.fromThenOn);
    case Call::Ioctl:
        return Only(WithoutAnswers(index, fault.fromThenOn));
    case Call::Read:
        return AfterRead(index);
    case Call::OpenDir:
    case Call::ReadDir:
    case Call::Malloc:
        return AfterListing(index, fault.fromThenOn);
    case Call::System: {
        Host changed = host;
        changed.modprobeStatus = -1;
        Allowed allowed = Only(changed);
        allowed.results.push_back(clean.result);
        return allowed;
    }
    case Call::Pipe:
    case Call::Fork:
    case Call::Select:
        return AfterLostOutput(index);
    case Call::Close:
    case Call::CloseDir:
    case Call::FileStream:
    case Call::WaitPid:
    case Call::New:
        break;
    }
    return unchanged;
}

Allowed FaultlessRuns::Without(const MissingObjects& missing)
{
    if (call.kind != SimHost::CallKind::All && !missing.proxies.empty()) {
        return {{Result()}, false};
    }
    Host changed = host;
    for (SimHost::DevEntry& entry : changed.dev) {
        const unsigned number = call.kind == SimHost::CallKind::All ? ClassOf(entry.name) : 0;
        if (missing.proxies.count(number) + missing.operators.count(number) > 0) {
            for (const auto& known : Questions()) {
                FailAfter(entry.node, known.second, 0, true);
            }
        }
    }
    return Only(changed);
}

}  // namespace Faults
