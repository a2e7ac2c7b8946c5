#include "tools/zddevices/doctor/doctorReport.h"

#include <algorithm>
#include <array>
#include <boost/format.hpp>
#include <system_error>
#include <utility>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

namespace {

struct VisibilityWords {
    Visibility visibility;
    /** In JSON. */
    const char* word;
    /** For people; details may follow. */
    const char* verdict;
};

constexpr std::array<VisibilityWords, 9> visibilityTable = {{
    {Visibility::Visible, "visible", "visible"},
    {Visibility::Denied, "denied", "NOT VISIBLE: open: "},
    {Visibility::CannotBeOpened, "cannot_be_opened", "NOT VISIBLE: open: "},
    {Visibility::NoUsableAnswer, "no_usable_answer", "NOT VISIBLE: does not answer as a device that is listed"},
    {Visibility::NoAnswerInTime, "no_answer_in_time", "NOT VISIBLE: no answer within "},
    {Visibility::NotAskedInTime, "not_asked_in_time", "NOT VISIBLE: not asked: the time was over"},
    {Visibility::WorkerDied, "worker_died", "NOT VISIBLE: the process that asks came to an end"},
    {Visibility::Offline, "offline", "NOT VISIBLE: "},
    {Visibility::NotAsked, "not_asked", "may be opened; not asked, because that would rewind the tape"},
}};

const VisibilityWords& WordsOf(Visibility visibility)
{
    return *std::find_if(visibilityTable.begin(), visibilityTable.end(),
                         [&](const VisibilityWords& one) { return one.visibility == visibility; });
}

/** An array of what `write` makes of each item. */
template <typename Item, typename Write>
void WriteArray(JsonWriter& json, const char* key, const std::vector<Item>& items, Write write)
{
    json.Key(key);
    json.StartArray();
    for (const Item& item : items) {
        write(json, item);
    }
    json.EndArray();
}

void WriteItem(JsonWriter& json, const std::string& text)
{
    WriteText(json, text);
}

void WriteError(JsonWriter& json, const char* key, int error)
{
    json.Key(key);
    if (error == 0) {
        json.Null();
        return;
    }
    json.StartObject();
    json.Key("number");
    json.Int(error);
    const char* name = strerrorname_np(error);
    WriteRecordText(json, "name", name != nullptr ? name : "");
    WriteText(json, "text", std::generic_category().message(error));
    json.EndObject();
}

void WriteRequest(JsonWriter& json, const RequestResult& request)
{
    json.StartObject();
    WriteText(json, "request", request.request);
    WriteText(json, "asks", request.asks);
    WriteError(json, "error", request.error);
    WriteRecordText(json, "remark", request.remark);
    json.EndObject();
}

void WriteFile(JsonWriter& json, const CheckedFile& file)
{
    json.StartObject();
    WriteText(json, "path", file.path);
    WriteText(json, "visibility", WordsOf(file.visibility).word);
    WriteRecordText(json, "asked_through", file.askedThrough);
    WriteError(json, "open_error", file.openError);
    WriteRecordText(json, "vendor", file.vendor);
    WriteRecordText(json, "product", file.product);
    WriteRecordText(json, "state", file.state);
    WriteArray(json, "questions", file.requests, WriteRequest);
    json.EndObject();
}

void WriteClass(JsonWriter& json, const ClassFiles& one)
{
    json.StartObject();
    WriteText(json, "type", ClassOf(one.type).word);
    WriteArray(json, "device_files", one.files, WriteFile);
    json.EndObject();
}

void WriteBool(JsonWriter& json, const char* key, bool value)
{
    json.Key(key);
    json.Bool(value);
}

std::string DescribeSg(const HostFacts& facts)
{
    if (facts.sgUsed) {
        return "loaded";
    }
    if (facts.sgLoaded) {
        return "loaded, but not used: \"modprobe sg\" fails";
    }
    return facts.modprobeFindsSg && !facts.mayLoadModules ? "not loaded, and this user may not load it"
                                                          : "not loaded, and cannot be: \"modprobe sg\" fails";
}

std::string Verdict(const CheckedFile& file, double limitSeconds)
{
    std::string verdict = WordsOf(file.visibility).verdict;
    if (file.visibility == Visibility::Visible) {
        std::string separator = ": ";
        for (const std::string& name : {file.vendor, file.product}) {
            const std::string cell = CellText(name);
            if (cell != unknownText) {
                verdict += std::exchange(separator, " ") + cell;
            }
        }
    } else if (file.visibility == Visibility::NoAnswerInTime) {
        verdict += (boost::format("%g seconds") % limitSeconds).str();
    } else if (file.visibility == Visibility::Offline) {
        verdict += DescribeOutOfService(file.state);
    } else if (file.openError != 0) {
        verdict += DescribeError(file.openError);
    }
    return verdict;
}

std::string DescribeFile(const CheckedFile& file, double limitSeconds)
{
    std::string text = "  " + Printable(file.path) + "  " + Verdict(file, limitSeconds) + "\n";
    if (!file.askedThrough.empty()) {
        text += "      asked through " + Printable(file.askedThrough) + ", which does not rewind the tape\n";
    }
    for (const RequestResult& request : file.requests) {
        if (request.error != 0 || !request.remark.empty()) {
            text += "      " + request.request + " (" + request.asks +
                    "): " + (request.error != 0 ? DescribeError(request.error) : request.remark) + "\n";
        }
    }
    return text;
}

std::string DescribeClass(const ClassFiles& one, const Diagnosis& diagnosis)
{
    const DeviceClass& words = ClassOf(one.type);
    const bool inPlaceOfSg = one.type == ZDSystemDevice::SYS_DEVICE_SCSI && !diagnosis.facts.sgUsed;
    const std::size_t count = one.files.size();
    std::string text = std::string(words.title) + ": " + (count == 0 ? "no" : std::to_string(count)) +
                       (count > 1 ? " device files" : " device file");
    if (count == 0) {
        text += std::string(" (") + (inPlaceOfSg ? "/dev/sd*" : words.files) + ")";
    } else if (inPlaceOfSg) {
        text += ", the disks' in place of the sg driver's";
    }
    text += "\n";
    for (const CheckedFile& file : one.files) {
        text += DescribeFile(file, diagnosis.limitSeconds);
    }
    return text;
}

}  // namespace

std::string RenderDiagnosis(const Diagnosis& diagnosis, std::size_t width)
{
    std::string text = "Driver for generic SCSI devices (sg): " + DescribeSg(diagnosis.facts) + "\n";
    if (diagnosis.facts.directoryError == 0) {
        for (const ClassFiles& one : diagnosis.classes) {
            text += "\n" + DescribeClass(one, diagnosis);
        }
    }
    if (diagnosis.advice.empty()) {
        return FoldedLines(text + "\nThe library sees everything that has a device file.\n", width);
    }
    text += "\nWhat to know and to do:\n";
    for (const std::string& advice : diagnosis.advice) {
        text += "- " + advice + "\n";
    }
    return FoldedLines(text, width);
}

std::string RenderDiagnosisJson(const Diagnosis& diagnosis, const ReportOrigin& origin)
{
    return RenderDocument("zddevices-doctor/1", origin, [&diagnosis](JsonWriter& json) {
        const HostFacts& facts = diagnosis.facts;
        WriteBool(json, "all_visible", diagnosis.AllVisible());
        json.Key("sg_driver");
        json.StartObject();
        WriteBool(json, "loaded", facts.sgLoaded);
        WriteBool(json, "modprobe_finds_it", facts.modprobeFindsSg);
        WriteBool(json, "may_be_loaded", facts.mayLoadModules);
        WriteBool(json, "used", facts.sgUsed);
        json.EndObject();
        WriteError(json, "directory_error", facts.directoryError);
        json.Key("time_limit_seconds");
        json.Double(diagnosis.limitSeconds);
        WriteArray(json, "classes", diagnosis.classes, WriteClass);
        WriteArray(json, "without_file", diagnosis.withoutFile, WriteMissing);
        WriteArray(json, "not_looked_at", diagnosis.notLookedAt, WriteItem);
        WriteArray(json, "advice", diagnosis.advice, WriteItem);
    });
}

}  // namespace Zendra::ZDDevices
