#include "tools/zddevices/scan/asking.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <stdexcept>
#include <utility>

#include "tools/zddevices/scan/access.h"
#include "tools/zddevices/scan/recordTexts.h"
#include "tools/zddevices/scan/sharing.h"

namespace Zendra::ZDDevices {

namespace {

using Clock = std::chrono::steady_clock;

/** A device that takes longer does not count among those that are being asked. */
constexpr Duration longestPatience = std::chrono::seconds(1);

/** A class whose devices take longer, on average, is worth another worker. */
constexpr Duration slowDevice = std::chrono::milliseconds(5);

/** @name What became of one device file as a worker tells it: path, errors, model and revision, and the texts of the
 * record.
 * @{
 */
constexpr std::size_t textsBeforeRecord = 5;

Strings TextsOf(FileAnswer answer)
{
    Strings texts{std::move(answer.path), std::to_string(answer.openError), std::to_string(answer.error),
                  std::move(answer.model), std::move(answer.revision)};
    if (answer.record) {
        AppendTexts(std::move(*answer.record), texts);
    }
    return texts;
}

FileAnswer FileAnswerOf(Strings texts)
{
    FileAnswer answer{std::move(texts.at(0)), std::stoi(texts.at(1)), std::stoi(texts.at(2)), {},
                      std::move(texts.at(3)), std::move(texts.at(4))};
    const std::size_t recordTexts = MembersOf<ZDSystemDevice::SystemDevice>().size();
    if (texts.size() == textsBeforeRecord + recordTexts) {
        auto text = texts.begin() + textsBeforeRecord;
        answer.record = TakeRecord<ZDSystemDevice::SystemDevice>(text);
    } else if (texts.size() != textsBeforeRecord) {
        throw std::invalid_argument("too many texts for a device file");
    }
    return answer;
}
/** @} */

class Scan {
public:
    Scan(const std::vector<Asked>& whatToAsk, const AskTerms& howToAsk)
        : asked(whatToAsk), limit(howToAsk.limit), started(howToAsk.started), observer(howToAsk.observer),
          jobs(howToAsk.jobs), meanwhile(howToAsk.meanwhile), files(ListFiles(whatToAsk)), shared(files),
          starts(asked.size()), done(asked.size())
    {
        shared.Spare(TapeDriveOf);
        constexpr int share = 4;
        if (limit) {
            patience = std::min(longestPatience, *limit / share);
        } else if (jobs > 1) {
            patience = longestPatience;
        }
    }

    std::vector<AskedOutcome> Run()
    {
        std::vector<Task> tasks;
        for (std::size_t number = 0; number < asked.size(); ++number) {
            tasks.push_back(TaskFor(number));
        }
        const auto more = [this](const std::deque<Outcome>& soFar, const std::vector<Waiting>& running) {
            return MoreTasks(soFar, running);
        };
        const std::size_t atATime = jobs == 1 ? jobs : allAtOnce;
        std::deque<Outcome> outcomes =
            RunWorkers(std::move(tasks), {limit, observer, atATime, patience, more, started, meanwhile});
        std::vector<AskedOutcome> results(asked.size());
        for (std::size_t task = 0; task < outcomes.size(); ++task) {
            Add(outcomes[task], results[askedOfTask[task]]);
        }
        for (std::size_t number = 0; number < asked.size(); ++number) {
            PutInOrder(files[number], results[number].files);
            results[number].usesSgDriver = UsesSgDriver(results[number].answer);
        }
        return results;
    }

private:
    static std::vector<Strings> ListFiles(const std::vector<Asked>& asked)
    {
        std::vector<Strings> listed(asked.size());
        std::transform(asked.begin(), asked.end(), listed.begin(),
                       [](const Asked& one) { return one.files ? DeviceFilesOf(*one.files) : Strings(); });
        return listed;
    }

    static bool UsesSgDriver(const std::optional<Strings>& answer)
    {
        return !answer || answer->size() < textsBeforeRecords || answer->at(1) != notUsingSg;
    }

    /** One more worker. RunWorkers() is given them in the order in which they are made. */
    Task TaskFor(std::size_t number)
    {
        askedOfTask.push_back(number);
        const bool isFirst = ++starts[number] == 1;
        if (!asked[number].files) {
            return asked[number].whole;
        }
        return [this, number, isFirst](const Tell& tell) {
            const auto take = [&](const std::string& path) {
                // A file that was not there a moment ago is the first worker's.
                const bool mine = shared.Has(number, path) ? shared.Take(number, path) : isFirst;
                if (mine) {
                    tell.deviceFile(path);
                }
                return mine;
            };
            const auto isDone = [&](FileAnswer answer) {
                shared.LetGo(number, answer.path);
                tell.part(TextsOf(std::move(answer)));
            };
            const ClassAnswer answer = AskFileByFile(*asked[number].files, take, isDone);
            return Strings{std::to_string(answer.status), answer.usesSgDriver ? "" : notUsingSg};
        };
    }

    /** Workers for classes whose own are dead, held up or slow. */
    std::vector<Task> MoreTasks(const std::deque<Outcome>& outcomes, const std::vector<Waiting>& running)
    {
        const Clock::time_point now = Clock::now();
        const Duration sinceLook = now - lastLook;
        const bool looks = sinceLook >= observeInterval;
        std::vector<std::size_t> doneNow(asked.size());
        // Without the sg driver the generic class asks none of its files.
        std::vector<bool> takesFiles(asked.size(), true);
        for (std::size_t task = 0; task < outcomes.size(); ++task) {
            doneNow[askedOfTask[task]] += outcomes[task].parts.size();
            takesFiles[askedOfTask[task]] = takesFiles[askedOfTask[task]] && UsesSgDriver(outcomes[task].answer);
            if (!outcomes[task].failure.empty()) {
                shared.LetGo(askedOfTask[task], outcomes[task].deviceFile);
            }
        }
        std::vector<std::size_t> workers(asked.size());
        std::vector<bool> begins(asked.size());
        std::size_t atWork = 0;
        for (const Waiting& one : running) {
            const std::size_t number = askedOfTask[one.task];
            if (now - one.since >= patience) {
                // A tape drive that is loading stays closed to others for as long as it takes.
                if (asked[number].files != ZDSystemDevice::SYS_DEVICE_TAPE) {
                    shared.LetGo(number, one.deviceFile);
                }
            } else {
                ++workers[number];
                ++atWork;
                begins[number] = begins[number] || one.deviceFile.empty();
            }
        }
        std::vector<Task> more;
        for (std::size_t number = 0; number < asked.size(); ++number) {
            const bool isSlow =
                looks && !begins[number] && (doneNow[number] - done[number]) * slowDevice < workers[number] * sinceLook;
            // No more than one for each file: should every device kill its worker, it comes to an end all the same.
            if (takesFiles[number] && (workers[number] == 0 || isSlow) && atWork < jobs &&
                starts[number] <= files[number].size() && shared.LeftToTake(number) > 0) {
                SpareAdapters();
                more.push_back(TaskFor(number));
                ++atWork;
            }
        }
        if (looks) {
            lastLook = now;
            done = std::move(doneNow);
        }
        return more;
    }

    /** Once there is reason for it: looking for the adapters costs a host with many disks time. */
    void SpareAdapters()
    {
        if (!sparesAdapters) {
            shared.Spare(HostAdapterOf);
            sparesAdapters = true;
        }
    }

    static void Add(Outcome& outcome, AskedOutcome& result)
    {
        result.elapsed = std::max(result.elapsed, outcome.elapsed);
        try {
            TakeAnswers(outcome, result);
        } catch (const std::logic_error&) {
            // What a process with broken memory sends may be anything.
            outcome.failure = improperAnswer;
        }
        if (!outcome.failure.empty() && !outcome.deviceFile.empty()) {
            result.lost.push_back({outcome.deviceFile, outcome.late, outcome.failure});
        }
        if (!result.status && result.failure.empty()) {
            result.failure = outcome.failure;
            result.threw = outcome.threw;
            result.late = outcome.late;
        }
    }

    static void TakeAnswers(Outcome& outcome, AskedOutcome& result)
    {
        for (Strings& texts : outcome.parts) {
            result.files.push_back(FileAnswerOf(std::move(texts)));
        }
        if (outcome.answer && !result.status) {
            result.status = static_cast<unsigned int>(std::stoul(outcome.answer->at(0)));
            result.answer = std::move(outcome.answer);
            result.failure.clear();
        }
    }

    static void PutInOrder(const Strings& paths, std::vector<FileAnswer>& answers)
    {
        std::map<std::string, std::size_t> places;
        for (const std::string& path : paths) {
            places.emplace(path, places.size());
        }
        const auto place = [&places](const FileAnswer& answer) {
            const auto found = places.find(answer.path);
            return found == places.end() ? places.size() : found->second;
        };
        const auto before = [&place](const FileAnswer& left, const FileAnswer& right) {
            return place(left) < place(right);
        };
        // One worker's answers are, and moving them takes longer than looking.
        if (!std::is_sorted(answers.begin(), answers.end(), before)) {
            std::stable_sort(answers.begin(), answers.end(), before);
        }
    }

    const std::vector<Asked>& asked;
    const std::optional<Duration> limit;
    const Clock::time_point started;
    Observer* const observer;
    const std::size_t jobs;
    const std::function<void()> meanwhile;
    Duration patience = Duration::max();
    /** Of each class, as /dev had them in the beginning. */
    const std::vector<Strings> files;
    SharedFiles shared;
    /** How many workers were started for each. */
    std::vector<std::size_t> starts;
    std::vector<std::size_t> askedOfTask;
    /** How many device files of each were done at the last look. */
    std::vector<std::size_t> done;
    Clock::time_point lastLook = Clock::now();
    bool sparesAdapters = false;
};

}  // namespace

std::vector<AskedOutcome> Ask(const std::vector<Asked>& asked, const AskTerms& terms)
{
    return Scan(asked, terms).Run();
}

}  // namespace Zendra::ZDDevices
