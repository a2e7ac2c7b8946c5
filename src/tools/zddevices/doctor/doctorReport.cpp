#include "tools/zddevices/doctor/doctorReport.h"

#include <boost/format.hpp>
#include <cstring>
#include <sstream>
#include <system_error>
#include <utility>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

const std::vector<std::pair<Visibility, const char*>> visibilityWords = {
    {Visibility::Visible, "visible"},
    {Visibility::Denied, "denied"},
    {Visibility::CannotBeOpened, "cannot_be_opened"},
    {Visibility::NoUsableAnswer, "no_usable_answer"},
    {Visibility::NoAnswerInTime, "no_answer_in_time"},
    {Visibility::NotAsked, "not_asked"},
};

const char* WordOf(Visibility visibility)
{
    for (const auto& [value, word] : visibilityWords) {
        if (value == visibility) {
            return word;
        }
    }
    return "";
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
    WriteText(json, "visibility", WordOf(file.visibility));
    WriteRecordText(json, "asked_through", file.askedThrough);
    WriteError(json, "open_error", file.openError);
    WriteRecordText(json, "vendor", file.vendor);
    WriteRecordText(json, "product", file.product);
    json.Key("questions");
    json.StartArray();
    for (const RequestResult& request : file.requests) {
        WriteRequest(json, request);
    }
    json.EndArray();
    json.EndObject();
}

void WriteBool(JsonWriter& json, const char* key, bool value)
{
    json.Key(key);
    json.Bool(value);
}

void WriteTexts(JsonWriter& json, const char* key, const std::vector<std::string>& texts)
{
    json.Key(key);
    json.StartArray();
    for (const std::string& text : texts) {
        WriteText(json, text);
    }
    json.EndArray();
}

std::string DescribeSg(const Diagnosis& diagnosis)
{
    if (diagnosis.facts.sgUsed) {
        return "loaded";
    }
    if (diagnosis.facts.sgLoaded) {
        return "loaded, but not used: \"modprobe sg\" fails";
    }
    return diagnosis.facts.modprobeFindsSg ? "not loaded, and this user may not load it"
                                           : "not loaded, and cannot be: \"modprobe sg\" fails";
}

std::string Names(const CheckedFile& file)
{
    std::string names;
    for (const std::string& name : {file.vendor, file.product}) {
        const std::string cell = CellText(name);
        if (cell != unknownText) {
            names += (names.empty() ? "" : " ") + cell;
        }
    }
    return names;
}

std::string Verdict(const CheckedFile& file, double secondsPerDevice)
{
    switch (file.visibility) {
    case Visibility::Visible: {
        const std::string names = Names(file);
        return names.empty() ? "visible" : "visible: " + names;
    }
    case Visibility::Denied:
    case Visibility::CannotBeOpened:
        return "NOT VISIBLE: open: " + DescribeError(file.openError);
    case Visibility::NoAnswerInTime:
        return (boost::format("NOT VISIBLE: no answer within %g seconds") % secondsPerDevice).str();
    case Visibility::NotAsked:
        return "may be opened; not asked, because that would rewind the tape";
    case Visibility::NoUsableAnswer:
        break;
    }
    return "NOT VISIBLE: does not answer as a device that is listed";
}

std::string DescribeFile(const CheckedFile& file, double secondsPerDevice)
{
    std::string text = "  " + Printable(file.path) + "  " + Verdict(file, secondsPerDevice) + "\n";
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

/** An item of a list, broken between words. */
std::string Item(const std::string& item, std::size_t width)
{
    std::string text = "-";
    std::size_t column = text.size();
    std::istringstream words(item);
    for (std::string word; words >> word;) {
        const bool fits = width == 0 || column + 1 + word.size() <= width;
        text += (fits ? " " : "\n  ") + word;
        column = (fits ? column + 1 : 2) + word.size();
    }
    return text + "\n";
}

std::string DescribeClass(const ClassFiles& one, const Diagnosis& diagnosis)
{
    const DeviceClass& words = ClassOf(one.type);
    std::string text = std::string(words.title) + ": ";
    const bool inPlaceOfSg = one.type == ZDSystemDevice::SYS_DEVICE_SCSI && !diagnosis.facts.sgUsed;
    if (one.files.empty()) {
        return text + "no device file (" + (inPlaceOfSg ? "/dev/sd*" : words.files) + ")\n";
    }
    text += std::to_string(one.files.size()) + (one.files.size() == 1 ? " device file" : " device files");
    if (inPlaceOfSg) {
        text += ", the disks' in place of the sg driver's";
    }
    text += "\n";
    for (const CheckedFile& file : one.files) {
        text += DescribeFile(file, diagnosis.secondsPerDevice);
    }
    return text;
}

}  // namespace

std::string DescribeError(int error)
{
    const char* name = strerrorname_np(error);
    return std::generic_category().message(error) + (name != nullptr ? std::string(" (") + name + ")" : "");
}

std::string RenderDiagnosis(const Diagnosis& diagnosis, std::size_t width)
{
    std::string text = "Driver for generic SCSI devices (sg): " + DescribeSg(diagnosis) + "\n";
    if (diagnosis.facts.directoryError == 0) {
        for (const ClassFiles& one : diagnosis.classes) {
            text += "\n" + DescribeClass(one, diagnosis);
        }
    }
    if (diagnosis.advice.empty()) {
        return text + "\nThe library sees everything that has a device file.\n";
    }
    text += "\nWhat to know and to do:\n";
    for (const std::string& advice : diagnosis.advice) {
        text += Item(advice, width);
    }
    return text;
}

std::string RenderDiagnosisJson(const Diagnosis& diagnosis, const ReportOrigin& origin)
{
    return RenderDocument("zddevices-doctor/1", origin, [&diagnosis](JsonWriter& json) {
        WriteBool(json, "all_visible", diagnosis.AllVisible());
        json.Key("sg_driver");
        json.StartObject();
        WriteBool(json, "loaded", diagnosis.facts.sgLoaded);
        WriteBool(json, "modprobe_finds_it", diagnosis.facts.modprobeFindsSg);
        WriteBool(json, "may_be_loaded", diagnosis.facts.mayLoadModules);
        WriteBool(json, "used", diagnosis.facts.sgUsed);
        json.EndObject();
        WriteError(json, "directory_error", diagnosis.facts.directoryError);
        json.Key("seconds_per_device");
        json.Double(diagnosis.secondsPerDevice);
        json.Key("classes");
        json.StartArray();
        for (const ClassFiles& one : diagnosis.classes) {
            json.StartObject();
            WriteText(json, "type", ClassOf(one.type).word);
            json.Key("device_files");
            json.StartArray();
            for (const CheckedFile& file : one.files) {
                WriteFile(json, file);
            }
            json.EndArray();
            json.EndObject();
        }
        json.EndArray();
        WriteTexts(json, "not_looked_at", diagnosis.notLookedAt);
        WriteTexts(json, "advice", diagnosis.advice);
    });
}

}  // namespace ZDDevices
}  // namespace Zendra
