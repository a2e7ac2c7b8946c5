#include "tools/zddevices/doctorReport.h"

#include <boost/format.hpp>
#include <cstring>
#include <sstream>
#include <system_error>
#include <utility>

#include "tools/zddevices/text.h"

namespace Zendra {
namespace ZDDevices {

namespace {

using nlohmann::ordered_json;
using ZDSystemDevice::SysDeviceType;

struct ClassWords {
    const char* word;
    const char* title;
    const char* files;
};

ClassWords WordsOf(SysDeviceType type)
{
    switch (type) {
    case ZDSystemDevice::SYS_DEVICE_TAPE:
        return {"tape", "Tape drives", "/dev/st*, /dev/nst*"};
    case ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE:
        return {"disk", "Disks", "/dev/sd*, /dev/hd*, /dev/nvme*"};
    case ZDSystemDevice::SYS_DEVICE_CDDVD:
        return {"optical", "Optical drives", "/dev/sr*"};
    case ZDSystemDevice::SYS_DEVICE_SCSI:
        break;
    }
    return {"scsi", "Generic SCSI devices", "/dev/sg*"};
}

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

ordered_json ErrorObject(int error)
{
    if (error == 0) {
        return nullptr;
    }
    const char* name = strerrorname_np(error);
    return {{"number", error},
            {"name", name != nullptr ? ordered_json(name) : ordered_json()},
            {"text", std::generic_category().message(error)}};
}

ordered_json FindingObject(const Finding& finding)
{
    ordered_json questions = ordered_json::array();
    for (const Question& question : finding.questions) {
        questions.push_back({{"request", question.request},
                             {"asks", question.asks},
                             {"error", ErrorObject(question.error)},
                             {"remark", JsonText(question.remark)}});
    }
    return {{"path", ValidUtf8(finding.path)},
            {"visibility", WordOf(finding.visibility)},
            {"asked_through", JsonText(finding.askedThrough)},
            {"open_error", ErrorObject(finding.openError)},
            {"vendor", JsonText(finding.vendor)},
            {"product", JsonText(finding.product)},
            {"questions", questions}};
}

int ErrorOf(const ordered_json& object)
{
    return object.is_null() ? 0 : object.at("number").get<int>();
}

std::string TextOf(const ordered_json& text)
{
    return text.is_null() ? std::string() : text.get<std::string>();
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
    const ClassWords words = WordsOf(one.type);
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

std::string RenderDiagnosisJson(const Diagnosis& diagnosis, const Occasion& occasion)
{
    ordered_json classes = ordered_json::array();
    for (const ClassFindings& one : diagnosis.classes) {
        ordered_json files = ordered_json::array();
        for (const Finding& finding : one.findings) {
            files.push_back(FindingObject(finding));
        }
        classes.push_back({{"type", WordsOf(one.type).word}, {"device_files", files}});
    }
    ordered_json notLookedAt = ordered_json::array();
    for (const std::string& path : diagnosis.notLookedAt) {
        notLookedAt.push_back(ValidUtf8(path));
    }
    ordered_json document = BeginDocument("zddevices-doctor/1", occasion);
    document["all_visible"] = diagnosis.AllVisible();
    document["sg_driver"] = {{"loaded", diagnosis.facts.sgLoaded},
                             {"modprobe_finds_it", diagnosis.facts.modprobeFindsSg},
                             {"may_be_loaded", diagnosis.facts.mayLoadModules},
                             {"used", diagnosis.sgUsed}};
    document["directory_error"] = ErrorObject(diagnosis.facts.directoryError);
    document["seconds_per_device"] = diagnosis.patienceSeconds;
    document["classes"] = classes;
    document["not_looked_at"] = notLookedAt;
    document["advice"] = diagnosis.advice;
    return WriteDocument(document);
}

std::string PackFinding(const Finding& finding)
{
    return FindingObject(finding).dump();
}

Finding UnpackFinding(const std::string& bytes)
{
    const ordered_json object = ordered_json::parse(bytes);
    Finding finding;
    finding.path = object.at("path");
    const std::string word = object.at("visibility");
    for (const auto& [value, known] : visibilityWords) {
        if (word == known) {
            finding.visibility = value;
        }
    }
    finding.askedThrough = TextOf(object.at("asked_through"));
    finding.openError = ErrorOf(object.at("open_error"));
    finding.vendor = TextOf(object.at("vendor"));
    finding.product = TextOf(object.at("product"));
    for (const ordered_json& question : object.at("questions")) {
        finding.questions.push_back({question.at("request"), question.at("asks"), ErrorOf(question.at("error")),
                                     TextOf(question.at("remark"))});
    }
    return finding;
}

}  // namespace ZDDevices
}  // namespace Zendra
