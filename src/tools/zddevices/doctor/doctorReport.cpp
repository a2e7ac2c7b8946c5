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

void WriteError(int error, JsonWriter& json)
{
    if (error == 0) {
        json.Null();
        return;
    }
    json.BeginObject();
    json.Key("number");
    json.Number(error);
    json.Key("name");
    const char* name = strerrorname_np(error);
    if (name != nullptr) {
        json.Text(name);
    } else {
        json.Null();
    }
    json.Key("text");
    json.Text(std::generic_category().message(error));
    json.EndObject();
}

void WriteRequest(const RequestResult& request, JsonWriter& json)
{
    json.BeginObject();
    json.Key("request");
    json.Text(request.request);
    json.Key("asks");
    json.Text(request.asks);
    json.Key("error");
    WriteError(request.error, json);
    json.Key("remark");
    json.RecordText(request.remark);
    json.EndObject();
}

void WriteFile(const CheckedFile& file, JsonWriter& json)
{
    json.BeginObject();
    json.Key("path");
    json.Text(file.path);
    json.Key("visibility");
    json.Text(WordOf(file.visibility));
    json.Key("asked_through");
    json.RecordText(file.askedThrough);
    json.Key("open_error");
    WriteError(file.openError, json);
    json.Key("vendor");
    json.RecordText(file.vendor);
    json.Key("product");
    json.RecordText(file.product);
    json.Key("questions");
    json.BeginArray();
    for (const RequestResult& request : file.requests) {
        WriteRequest(request, json);
    }
    json.EndArray();
    json.EndObject();
}

void WriteTexts(const std::vector<std::string>& texts, JsonWriter& json)
{
    json.BeginArray();
    for (const std::string& text : texts) {
        json.Text(text);
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
    JsonWriter json;
    BeginDocument(json, "zddevices-doctor/1", origin);
    json.Key("all_visible");
    json.Boolean(diagnosis.AllVisible());
    json.Key("sg_driver");
    json.BeginObject();
    json.Key("loaded");
    json.Boolean(diagnosis.facts.sgLoaded);
    json.Key("modprobe_finds_it");
    json.Boolean(diagnosis.facts.modprobeFindsSg);
    json.Key("may_be_loaded");
    json.Boolean(diagnosis.facts.mayLoadModules);
    json.Key("used");
    json.Boolean(diagnosis.facts.sgUsed);
    json.EndObject();
    json.Key("directory_error");
    WriteError(diagnosis.facts.directoryError, json);
    json.Key("seconds_per_device");
    json.Number(diagnosis.secondsPerDevice);
    json.Key("classes");
    json.BeginArray();
    for (const ClassFiles& one : diagnosis.classes) {
        json.BeginObject();
        json.Key("type");
        json.Text(ClassOf(one.type).word);
        json.Key("device_files");
        json.BeginArray();
        for (const CheckedFile& file : one.files) {
            WriteFile(file, json);
        }
        json.EndArray();
        json.EndObject();
    }
    json.EndArray();
    json.Key("not_looked_at");
    WriteTexts(diagnosis.notLookedAt, json);
    json.Key("advice");
    WriteTexts(diagnosis.advice, json);
    json.EndObject();
    return json.Document();
}

}  // namespace ZDDevices
}  // namespace Zendra
