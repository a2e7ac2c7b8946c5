#include "tools/zddevices/doctor/doctorReport.h"

#include <boost/format.hpp>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "tools/zddevices/deviceClass.h"
#include "tools/zddevices/output/text.h"
#include "tools/zddevices/scan/parcel.h"

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

void WriteQuestion(const Question& question, JsonWriter& json)
{
    json.BeginObject();
    json.Key("request");
    json.Text(question.request);
    json.Key("asks");
    json.Text(question.asks);
    json.Key("error");
    WriteError(question.error, json);
    json.Key("remark");
    json.RecordText(question.remark);
    json.EndObject();
}

void WriteFinding(const Finding& finding, JsonWriter& json)
{
    json.BeginObject();
    json.Key("path");
    json.Text(finding.path);
    json.Key("visibility");
    json.Text(WordOf(finding.visibility));
    json.Key("asked_through");
    json.RecordText(finding.askedThrough);
    json.Key("open_error");
    WriteError(finding.openError, json);
    json.Key("vendor");
    json.RecordText(finding.vendor);
    json.Key("product");
    json.RecordText(finding.product);
    json.Key("questions");
    json.BeginArray();
    for (const Question& question : finding.questions) {
        WriteQuestion(question, json);
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

/** An error number out of its decimal digits. */
bool ReadError(const std::string& digits, int& error)
{
    const char* end = digits.data() + digits.size();
    const std::from_chars_result result = std::from_chars(digits.data(), end, error);
    return result.ec == std::errc() && result.ptr == end;
}

/** The first row of a packed finding. */
bool ReadFile(std::vector<std::string>& texts, Finding& finding)
{
    constexpr std::size_t textCount = 5;
    if (texts.size() != textCount || !ReadError(texts[2], finding.openError)) {
        return false;
    }
    finding.path = std::move(texts[0]);
    finding.askedThrough = std::move(texts[1]);
    finding.vendor = std::move(texts[3]);
    finding.product = std::move(texts[4]);
    return true;
}

/** Each other row. */
bool ReadQuestion(std::vector<std::string>& texts, Question& question)
{
    constexpr std::size_t textCount = 4;
    if (texts.size() != textCount || !ReadError(texts[2], question.error)) {
        return false;
    }
    question.request = std::move(texts[0]);
    question.asks = std::move(texts[1]);
    question.remark = std::move(texts[3]);
    return true;
}

void AddRow(const std::vector<std::string>& texts, Parcel& parcel)
{
    parcel.BeginRow();
    for (const std::string& text : texts) {
        parcel.Add(ValidUtf8(text));
    }
}

std::string DescribeSg(const Diagnosis& diagnosis)
{
    if (diagnosis.sgUsed) {
        return diagnosis.facts.sgLoaded ? "loaded" : "not loaded; the next scan loads it";
    }
    if (diagnosis.facts.sgLoaded) {
        return "loaded, but not used: \"modprobe sg\" fails";
    }
    return diagnosis.facts.modprobeFindsSg ? "not loaded, and this user may not load it"
                                           : "not loaded, and cannot be: \"modprobe sg\" fails";
}

std::string Names(const Finding& finding)
{
    std::string names;
    for (const std::string& name : {finding.vendor, finding.product}) {
        const std::string cell = CellText(name);
        if (cell != unknownText) {
            names += (names.empty() ? "" : " ") + cell;
        }
    }
    return names;
}

std::string Verdict(const Finding& finding, double patienceSeconds)
{
    switch (finding.visibility) {
    case Visibility::Visible: {
        const std::string names = Names(finding);
        return names.empty() ? "visible" : "visible: " + names;
    }
    case Visibility::Denied:
    case Visibility::CannotBeOpened:
        return "NOT VISIBLE: open: " + DescribeError(finding.openError);
    case Visibility::NoAnswerInTime:
        return (boost::format("NOT VISIBLE: no answer within %g seconds") % patienceSeconds).str();
    case Visibility::NotAsked:
        return "may be opened; not asked, because that would rewind the tape";
    case Visibility::NoUsableAnswer:
        break;
    }
    return "NOT VISIBLE: does not answer as a device that is listed";
}

std::string DescribeFinding(const Finding& finding, double patienceSeconds)
{
    std::string text = "  " + Printable(finding.path) + "  " + Verdict(finding, patienceSeconds) + "\n";
    if (!finding.askedThrough.empty()) {
        text += "      asked through " + Printable(finding.askedThrough) + ", which does not rewind the tape\n";
    }
    for (const Question& question : finding.questions) {
        if (question.error != 0 || !question.remark.empty()) {
            text += "      " + question.request + " (" + question.asks +
                    "): " + (question.error != 0 ? DescribeError(question.error) : question.remark) + "\n";
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

std::string DescribeClass(const ClassFindings& one, const Diagnosis& diagnosis)
{
    const DeviceClass& words = ClassOf(one.type);
    std::string text = std::string(words.title) + ": ";
    const bool inPlaceOfSg = one.type == ZDSystemDevice::SYS_DEVICE_SCSI && !diagnosis.sgUsed;
    if (one.findings.empty()) {
        return text + "no device file (" + (inPlaceOfSg ? "/dev/sd*" : words.files) + ")\n";
    }
    text += std::to_string(one.findings.size()) + (one.findings.size() == 1 ? " device file" : " device files");
    if (inPlaceOfSg) {
        text += ", the disks' in place of the sg driver's";
    }
    text += "\n";
    for (const Finding& finding : one.findings) {
        text += DescribeFinding(finding, diagnosis.patienceSeconds);
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
        for (const ClassFindings& one : diagnosis.classes) {
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
    json.Boolean(diagnosis.sgUsed);
    json.EndObject();
    json.Key("directory_error");
    WriteError(diagnosis.facts.directoryError, json);
    json.Key("seconds_per_device");
    json.Number(diagnosis.patienceSeconds);
    json.Key("classes");
    json.BeginArray();
    for (const ClassFindings& one : diagnosis.classes) {
        json.BeginObject();
        json.Key("type");
        json.Text(ClassOf(one.type).word);
        json.Key("device_files");
        json.BeginArray();
        for (const Finding& finding : one.findings) {
            WriteFinding(finding, json);
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

std::string PackFinding(const Finding& finding)
{
    Parcel parcel(static_cast<std::uint32_t>(finding.visibility));
    AddRow({finding.path, finding.askedThrough, std::to_string(finding.openError), finding.vendor, finding.product},
           parcel);
    for (const Question& question : finding.questions) {
        AddRow({question.request, question.asks, std::to_string(question.error), question.remark}, parcel);
    }
    return parcel.Bytes();
}

Finding UnpackFinding(const std::string& bytes)
{
    constexpr std::size_t widestRow = 5;
    Finding finding;
    bool fileIsRead = false;
    const std::optional<std::uint32_t> visibility =
        Unpack(bytes, widestRow, [&finding, &fileIsRead](std::vector<std::string>& texts) {
            if (fileIsRead) {
                return ReadQuestion(texts, finding.questions.emplace_back());
            }
            fileIsRead = true;
            return ReadFile(texts, finding);
        });
    if (visibility && *visibility <= static_cast<std::uint32_t>(Visibility::NotAsked)) {
        finding.visibility = static_cast<Visibility>(*visibility);
        if (PackFinding(finding) == bytes) {
            return finding;
        }
    }
    throw std::runtime_error("a process gave no proper finding");
}

}  // namespace ZDDevices
}  // namespace Zendra
