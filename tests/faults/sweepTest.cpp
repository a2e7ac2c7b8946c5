// Fails every call that the library makes, one at a time and then from one on, and asks what became of it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "faultless.h"
#include "run.h"
#include "simhost.h"
#include "simhostTest.h"
#include "watch.h"

namespace {

using namespace Faults;

constexpr std::size_t mostReports = 10;

/** How a call of a kind fails on a machine that is in trouble. For Select, 0 is the time that runs out. */
const std::vector<int>& ErrorsOf(Call call)
{
    static const std::map<Call, std::vector<int>> errors = {{Call::Open, {EMFILE, ENOMEM, ENODEV}},
                                                            {Call::Close, {EINTR, EIO}},
                                                            {Call::Ioctl, {EIO, ENODEV, ENOMEM, EINTR}},
                                                            {Call::OpenDir, {EMFILE, ENOMEM}},
                                                            {Call::ReadDir, {EIO, ENOMEM}},
                                                            {Call::CloseDir, {EINTR, EIO}},
                                                            {Call::FileStream, {EMFILE, ENOMEM}},
                                                            {Call::Read, {EIO, EINTR, ENODEV}},
                                                            {Call::Pipe, {EMFILE, ENFILE}},
                                                            {Call::Fork, {EAGAIN, ENOMEM}},
                                                            {Call::Select, {EINTR, ENOMEM, 0}},
                                                            {Call::WaitPid, {EINTR, ECHILD}},
                                                            {Call::System, {ENOMEM}},
                                                            {Call::New, {ENOMEM}},
                                                            {Call::Malloc, {ENOMEM}}};
    return errors.at(call);
}

/**
 * Not so for reads: an interrupted read is made again, and one that fails does not end the capture of a child's
 * output, so that a read that never works again keeps the caller for ever.
 */
bool CanFailForGood(Call call)
{
    return call != Call::Read;
}

std::string Describe(const Fault& fault, unsigned level)
{
    return std::string(NameOf(fault.call)) + " " + std::to_string(fault.number) +
           (fault.fromThenOn ? " and all that follow" : "") + " fail(s) with " +
           (fault.error != 0 ? strerrorname_np(fault.error) : "a time-out") + ", log level " + std::to_string(level);
}

std::string Text(const std::vector<Fields>& records)
{
    std::ostringstream text;
    for (const Fields& record : records) {
        text << "   ";
        for (const std::string& field : record) {
            text << ' ' << SimHost::Quote(field);
        }
        text << '\n';
    }
    return text.str();
}

/** Whether the one list is the beginning of the other. */
bool IsBeginning(const std::vector<Fields>& some, const std::vector<Fields>& all)
{
    return some.size() <= all.size() && std::equal(some.begin(), some.end(), all.begin());
}

/** Whether each record is one of theirs, none comes twice, and nothing was found only where there is no record. */
bool IsMadeOf(const Result& result, const std::vector<Result>& others)
{
    std::set<Fields> known;
    for (const Result& other : others) {
        known.insert(other.records.begin(), other.records.end());
    }
    const std::set<Fields> records(result.records.begin(), result.records.end());
    return records.size() == result.records.size() &&
           std::includes(known.begin(), known.end(), records.begin(), records.end()) &&
           std::any_of(others.begin(), others.end(),
                       [&](const Result& other) { return other.status == result.status; }) &&
           (result.status == 0 || records.empty());
}

/** Whether each line is one of those of a run without faults, or the beginning of one, in their order. */
bool AreLostOrCut(const std::vector<std::string>& lines, const std::vector<std::string>& clean)
{
    auto next = clean.begin();
    for (const std::string& line : lines) {
        next = std::find_if(next, clean.end(),
                            [&](const std::string& whole) { return whole.compare(0, line.size(), line) == 0; });
        if (next == clean.end()) {
            return false;
        }
        ++next;
    }
    return true;
}

/**
 * Whether the line is one of those, or says what no simulated host can make happen: a device file that opens at one
 * time does not at another, and there is no child to write into the pipe.
 */
bool IsAmong(const std::set<std::string>& known, const std::optional<Fault>& fault, const std::string& line)
{
    const std::string notOpened = "ret = 3";
    const std::size_t end = line.size() - std::min(line.size(), notOpened.size());
    static const std::map<Call, std::set<std::string>> ofChildren = {
        {Call::Fork, {"Fork failed \n"}},
        {Call::Select, {"SpawnProcess - select call failed! \n", "SpawnProcess - cat TimeOut! \n"}},
        {Call::WaitPid, {"SpawnProcess - waitpid call failed! \n"}}};
    const auto child = fault ? ofChildren.find(fault->call) : ofChildren.end();
    return known.count(line) != 0 || (child != ofChildren.end() && child->second.count(line) != 0) ||
           line.compare(0, 24, "DataOperator::ExecIoCtl(") == 0 ||
           (line.compare(end, std::string::npos, notOpened) == 0 && known.count(line.substr(0, end) + "ret = 5") != 0);
}

/** The sweep over one host at one log level. */
class Sweep {
public:
    Sweep(const SimHost::Host& theHost, unsigned level)
        : host(theHost), logLevel(level), call(theHost.calls.at(0)), faultless(theHost, level), clean(faultless.Clean())
    {
    }

    void CheckClean()
    {
        const std::string wrong = FindWrong(clean, std::nullopt, {{clean.result}, false});
        ASSERT_TRUE(wrong.empty()) << "without a fault: " << wrong;
        ASSERT_FALSE(clean.result.records.empty());
    }

    /**
     * Fails every call of the kind, with each error or with the errors in turn. Returns how many there are to fail.
     */
    unsigned long SweepKind(Call kind, bool eachError)
    {
        unsigned long reached = 0;
        const std::map<std::pair<unsigned long, bool>, Allowed> allowed = AllowedAfter(kind);
        SimHost::MountedHost mounted(host);
        for (std::size_t turn = 0; turn < (eachError ? ErrorsOf(kind).size() : 1); ++turn) {
            for (const bool fromThenOn : {false, true}) {
                if (fromThenOn && !CanFailForGood(kind)) {
                    continue;
                }
                for (Fault fault{kind, 1, 0, fromThenOn}; reports < mostReports; ++fault.number) {
                    fault.error = ErrorsOf(kind).at((turn + (eachError ? 0 : fault.number)) % ErrorsOf(kind).size());
                    const Ran ran = RunCall(mounted, call, logLevel, fault);
                    if (ran.watch->Injected() == 0) {
                        break;
                    }
                    ++injected[kind];
                    reached = std::max(reached, fault.number);
                    const std::string wrong = FindWrong(ran, fault, allowed.at({fault.number, fromThenOn}));
                    if (!wrong.empty()) {
                        ++reports;
                        ADD_FAILURE() << Describe(fault, logLevel) << ": " << wrong;
                    }
                }
            }
        }
        return reached;
    }

    const std::map<Call, unsigned long>& Injected() const { return injected; }

private:
    /** By the number of the first call that fails, and whether all that follow it do. */
    std::map<std::pair<unsigned long, bool>, Allowed> AllowedAfter(Call kind)
    {
        std::map<std::pair<unsigned long, bool>, Allowed> allowed;
        std::map<std::pair<std::set<unsigned>, std::set<unsigned>>, Allowed> known;
        for (const bool fromThenOn : {false, true}) {
            for (Fault fault{kind, 1, 0, fromThenOn}; fault.number <= clean.watch->CountOf(kind); ++fault.number) {
                Allowed& entry = allowed[{fault.number, fromThenOn}];
                if (kind != Call::New) {
                    entry = faultless.After(fault);
                    continue;
                }
                const MissingObjects missing = MissingFor(fault).value_or(MissingObjects());
                const auto found = known.find({missing.proxies, missing.operators});
                entry = found != known.end() ? found->second : faultless.Without(missing);
                known[{missing.proxies, missing.operators}] = entry;
            }
        }
        return allowed;
    }

    /** The proxies and operators that a failing allocation takes away; nullopt for any other allocation. */
    std::optional<MissingObjects> MissingFor(const Fault& fault) const
    {
        MissingObjects missing;
        if (fault.call != Call::New) {
            return std::nullopt;
        }
        const std::vector<unsigned long>& proxies = clean.watch->NewsBeforeSystem();
        for (unsigned i = 0; i < proxies.size(); ++i) {
            // The last allocation before the module is loaded is the proxy's, the first one after it the operator's.
            const unsigned long proxy = proxies[i];
            if (fault.number == proxy || (fault.fromThenOn && fault.number < proxy)) {
                missing.proxies.insert(i);
            } else if (fault.number == proxy + 1) {
                missing.operators.insert(i);
            }
        }
        if (missing.proxies.empty() && missing.operators.empty()) {
            return std::nullopt;
        }
        return missing;
    }

    /**
     * Whether the blocks left are the ones that have to be left: the proxy at work when the call threw, and its
     * operator.
     */
    bool AreProxyAndOperator(const Ran& ran, const Fault& fault) const
    {
        for (const unsigned long proxy : clean.watch->NewsBeforeSystem()) {
            std::vector<unsigned long> required = {proxy, proxy + 1};
            if (fault.fromThenOn && fault.number <= proxy + 1) {
                required.pop_back();
            }
            std::vector<unsigned long> left;
            for (const Block& block : ran.leftBlocks) {
                left.push_back(block.number);
            }
            // What the last of several allocations was for is not known.
            const bool atWork = fault.number > proxy + 1 && fault.number <= clean.watch->NewsBeforeDelete(proxy);
            if (atWork && !fault.fromThenOn) {
                return left == required;
            }
            if (left == required && fault.fromThenOn) {
                return true;
            }
        }
        return ran.leftBlocks.empty();
    }

    std::string FindWrong(const Ran& ran, const std::optional<Fault>& fault, const Allowed& allowed) const
    {
        std::ostringstream wrong;
        const auto is = [&](Call kind) { return fault && fault->call == kind; };
        for (const std::string& complaint : ran.complaints) {
            wrong << complaint << "\n";
        }
        if (ran.threw && !is(Call::New)) {
            wrong << "std::bad_alloc without need\n";
        }
        FindWrongResult(ran, fault, allowed, wrong);
        FindWrongMemory(ran, fault, wrong);
        FindWrongLines(ran, fault, wrong);

        // A child that could not be started leaves the pipe that was made for it; required.
        const bool bothEnds = ran.leftDescriptors.size() == 2 &&
                              ran.leftDescriptors.begin()->second == ran.leftDescriptors.rbegin()->second &&
                              ran.leftDescriptors.begin()->second.compare(0, 5, "pipe:") == 0;
        if (is(Call::Fork) ? !bothEnds : !ran.leftDescriptors.empty()) {
            wrong << ran.leftDescriptors.size() << " descriptors left open:";
            for (const auto& [descriptor, target] : ran.leftDescriptors) {
                wrong << " " << descriptor << " " << target;
            }
            wrong << "\n";
        }
        // A child whose output cannot be waited for is not waited for either.
        if (ran.leftChildren > 0 && !is(Call::Select) && !is(Call::WaitPid) && !ran.threw) {
            wrong << ran.leftChildren << " children left\n";
        }
        return wrong.str();
    }

    void FindWrongResult(const Ran& ran, const std::optional<Fault>& fault, const Allowed& allowed,
                         std::ostringstream& wrong) const
    {
        if (ran.threw) {
            if (fault && !fault->fromThenOn && MissingFor(*fault)) {
                wrong << "a proxy or an operator that cannot be made must not throw\n";
            }
            if (!IsBeginning(ran.result.records, clean.result.records)) {
                wrong << "not whole records:\n" << Text(ran.result.records);
            }
            return;
        }
        const std::vector<Result>& results = allowed.results;
        if (allowed.anyOfTheRecords ? !IsMadeOf(ran.result, results)
                                    : std::find(results.begin(), results.end(), ran.result) == results.end()) {
            wrong << "status " << ran.result.status << ", records:\n" << Text(ran.result.records);
            for (const Result& result : results) {
                wrong << "  may be: status " << result.status << ", records:\n" << Text(result.records);
            }
        }
    }

    void FindWrongMemory(const Ran& ran, const std::optional<Fault>& fault, std::ostringstream& wrong) const
    {
        bool right = ran.leftBlocks.empty();
        if (fault && fault->call == Call::Fork) {
            // Required: the copies of the arguments stay.
            std::multiset<std::size_t> sizes;
            for (const Block& block : ran.leftBlocks) {
                sizes.insert(block.size);
            }
            right = sizes == std::multiset<std::size_t>{sizeof("cat"), sizeof("/proc/sys/dev/cdrom/info")};
        } else if (ran.threw) {
            // Required: a proxy whose operation throws is not deleted.
            right = AreProxyAndOperator(ran, *fault);
        }
        if (!right) {
            wrong << ran.leftBlocks.size() << " blocks left:";
            for (const Block& block : ran.leftBlocks) {
                wrong << " allocation " << block.number << " of " << block.size << " bytes";
            }
            wrong << "\n";
        }
    }

    void FindWrongLines(const Ran& ran, const std::optional<Fault>& fault, std::ostringstream& wrong) const
    {
        if (logLevel == 0) {
            wrong << (ran.lines.empty() ? "" : "log lines at level 0\n");
            return;
        }
        if (!fault || fault->call != Call::New) {
            for (const std::string& line : ran.lines) {
                if (!IsAmong(faultless.Lines(), fault, line)) {
                    wrong << "a log line that no run without a fault writes: " << SimHost::Quote(line) << "\n";
                }
            }
            return;
        }
        const auto missing = MissingFor(*fault);
        if (!missing) {
            if (!AreLostOrCut(ran.lines, clean.lines)) {
                wrong << "log lines that a run without a fault does not write\n";
            }
        } else if (!fault->fromThenOn) {
            const std::string line = !missing->proxies.empty()
                                         ? "makeDataProxy error due to catch an exception bad_alloc"
                                         : "DataProxy::DataProxy()  error due to catch an exception bad_alloc";
            if (std::count(ran.lines.begin(), ran.lines.end(), line) != 1) {
                wrong << "no log line about it\n";
            }
        }
    }

    const SimHost::Host& host;
    unsigned logLevel;
    SimHost::Call call;
    FaultlessRuns faultless;
    const Ran& clean;
    std::map<Call, unsigned long> injected;
    std::size_t reports = 0;
};

/** A host and how many calls of each kind a sweep must at least find to fail. */
struct SweptHost {
    std::string name;
    std::map<Call, unsigned long> least;
    /** Not so where each run takes a child process: other hosts have the same calls. */
    bool eachError = true;
};

std::ostream& operator<<(std::ostream& stream, const SweptHost& swept)
{
    return stream << swept.name;
}

/** `counts` has a number for each of `kinds`, or for the first of them. */
std::map<Call, unsigned long> Least(const std::vector<unsigned long>& counts)
{
    static const Call kinds[] = {Call::Open,   Call::Close, Call::Ioctl, Call::OpenDir, Call::ReadDir, Call::Read,
                                 Call::System, Call::New,   Call::Pipe,  Call::Fork,    Call::Select,  Call::WaitPid};
    std::map<Call, unsigned long> least;
    for (std::size_t i = 0; i < counts.size(); ++i) {
        least[kinds[i]] = counts[i];
    }
    return least;
}

/**
 * What the library cannot do without: opens and ioctls as the devices' protocols have them, one directory stream for
 * each prefix and at least one for /sys/block, an entry of each directory and its end, a module load a class.
 */
const std::vector<SweptHost>& Hosts()
{
    static const std::vector<SweptHost> hosts = {
        // 2 drives: 6 requests each; st1's revision file.
        {"tape", Least({13, 13, 12, 2, 12, 2, 1, 15})},
        // disk and tape: 5 requests, disc: 3, too old a driver: 2; sg1's two revision files, sg2's one.
        {"genericWithSg", Least({18, 17, 15, 2, 14, 4, 1, 15})},
        // a request each, sda's revision file, both of sdb.
        {"genericWithoutSg", Least({6, 5, 3, 2, 13, 4, 1, 10})},
        // hda 1, hdb 1 and two files, sda 6, sdb 7, sdc 2 and 1, NVMe 1 each.
        {"disks", Least({22, 21, 20, 4, 41, 2, 1, 30})},
        {"firmware", Least({22, 21, 20, 4, 41, 2, 1, 40})},
        // 4 requests each, sr0's two files, sr1's one; one request of sr2 for each way of asking.
        {"optical", Least({13, 10, 8, 2, 11, 4, 1, 15})},
        // 4 requests, sr0's two files, a child and its output.
        {"opticalCapabilities", Least({6, 7, 4, 2, 8, 4, 1, 40, 1, 1, 2, 1}), false},
        // tape 6; sg 5, 3 and 5; hda 1, sda 6, sdb 7, NVMe 1; sr 4 and two files.
        {"oneOfEach", Least({40, 39, 38, 9, 92, 2, 4, 60})}};
    return hosts;
}

class FaultSweep : public ::testing::TestWithParam<std::tuple<SweptHost, unsigned>> {};

TEST_P(FaultSweep, EveryFailedCallCostsNoMoreThanItMust)
{
    SIMHOST_NEEDS_NAMESPACE();
    const auto& [swept, level] = GetParam();
    const SimHost::Host host = SimHost::ReadHost(std::string(FAULTS_HOSTS) + "/" + swept.name + ".host");
    Sweep sweep(host, level);
    ASSERT_NO_FATAL_FAILURE(sweep.CheckClean());

    const auto isOfChildren = [](Call kind) {
        return kind == Call::Pipe || kind == Call::Fork || kind == Call::Select || kind == Call::Read ||
               kind == Call::WaitPid;
    };
    std::ostringstream report;
    unsigned long all = 0;
    for (const Call kind : AllCalls()) {
        if (kind == Call::Malloc && !CanFailMalloc()) {
            report << "  malloc: not failed, the sanitizer's own is in use\n";
            continue;
        }
        const bool eachError = swept.eachError || isOfChildren(kind);
        const unsigned long reached = sweep.SweepKind(kind, eachError);
        const unsigned long injected = sweep.Injected().count(kind) != 0 ? sweep.Injected().at(kind) : 0;
        const auto least = swept.least.find(kind);
        const unsigned long expected = least != swept.least.end() ? least->second : 0;
        EXPECT_GE(reached, expected) << NameOf(kind) << ": the sweep has found too few calls to fail";
        // Once for each way of failing, and once more for each where it may fail for good.
        EXPECT_GE(injected, expected * (eachError ? ErrorsOf(kind).size() : 1) * (CanFailForGood(kind) ? 2 : 1))
            << NameOf(kind);
        report << "  " << NameOf(kind) << ": " << injected << " faults in " << reached << " calls\n";
        all += injected;
    }
    std::cout << all << " faults on host " << swept.name << " at log level " << level << "\n" << report.str();
}

INSTANTIATE_TEST_SUITE_P(Hosts, FaultSweep, ::testing::Combine(::testing::ValuesIn(Hosts()), ::testing::Values(0U, 4U)),
                         [](const auto& test) {
                             return std::get<0>(test.param).name + "_log" + std::to_string(std::get<1>(test.param));
                         });

/** All texts that a device file can answer with. */
std::vector<std::string> TextsOf(const SimHost::Node& node)
{
    std::vector<std::string> texts;
    const auto add = [&](const std::vector<SimHost::Answer>& answers, std::size_t offset, std::size_t length) {
        for (const SimHost::Answer& answer : answers) {
            const std::size_t end = std::min(offset + length, answer.data.size());
            texts.emplace_back(answer.data.begin() + static_cast<std::ptrdiff_t>(std::min(offset, end)),
                               answer.data.begin() + static_cast<std::ptrdiff_t>(end));
        }
    };
    add(node.inquiry, 8, 8);
    add(node.inquiry, 16, 16);
    add(node.inquiry, 32, 4);
    add(node.serial, 4, 32);
    add(node.ataIdentify, 20, 20);
    add(node.ataIdentify, 46, 8);
    add(node.ataIdentify, 54, 40);
    add(node.nvmeIdentify, 4, 20);
    add(node.nvmeIdentify, 24, 40);
    add(node.nvmeIdentify, 64, 8);
    return texts;
}

TEST(FaultHosts, NoTwoDeviceFilesShareAText)
{
    for (const SweptHost& swept : Hosts()) {
        const SimHost::Host host = SimHost::ReadHost(std::string(FAULTS_HOSTS) + "/" + swept.name + ".host");
        std::map<std::string, std::string> owners;
        std::size_t count = 0;
        for (const SimHost::DevEntry& entry : host.dev) {
            for (const std::string& text : TextsOf(entry.node)) {
                if (text.find_first_not_of(std::string(" \0", 2)) == std::string::npos) {
                    continue;
                }
                ++count;
                const auto inserted = owners.emplace(text, entry.name);
                EXPECT_TRUE(inserted.second) << swept.name << ": " << inserted.first->second << " and " << entry.name
                                             << " both say " << SimHost::Quote(text);
            }
        }
        EXPECT_GE(count, 6U) << swept.name;
    }
}

}  // namespace
