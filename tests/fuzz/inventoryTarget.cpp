// Files that "zddevices diff" compares: ParseInventory(), and what is made of a file that it takes.
//
// Input: the file.

#include <algorithm>
#include <string>

#include "check.h"
#include "tools/zddevices/diff/compare.h"
#include "tools/zddevices/diff/diffReport.h"
#include "tools/zddevices/diff/inventoryFile.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/records/field.h"

using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using namespace Zendra::ZDDevices;

namespace {

bool IsAscii(const std::string& text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c == '\n' || (c >= ' ' && c <= '~'); });
}

std::string JsonOf(const Difference& difference, const InventoryFile& file)
{
    std::string json = RenderDifferenceJson(difference, file, file);
    Require(IsAscii(json), "JSON is ASCII without control characters");
    return json;
}

/** What is written of a host's inventory, and read again, is the inventory. */
void CheckWritten(const HostInventory& host)
{
    Report<StorageDevice> report;
    report.records = host.devices;
    const std::string written = RenderJson(report, {host.host, "2024-02-29T12:00:00Z"});
    const InventoryFile read = ParseInventory(written);
    RequireEqual(read.hosts.at(0).host, host.host, "the host's name survives being written");
    report.records = read.hosts.at(0).devices;
    RequireEqual(RenderJson(report, {host.host, "2024-02-29T12:00:00Z"}), written, "devices survive being written");
}

void CheckFile(const InventoryFile& file)
{
    Require(Compare(file, file).IsEmpty(), "a file does not differ from itself");
    InventoryFile turned = file;
    for (HostInventory& host : turned.hosts) {
        std::reverse(host.devices.begin(), host.devices.end());
    }
    Require(Compare(file, turned).IsEmpty(), "the order of devices means nothing");

    InventoryFile empty = file;
    for (HostInventory& host : empty.hosts) {
        host.devices.clear();
    }
    for (const bool appears : {false, true}) {
        const Difference difference = appears ? Compare(empty, file) : Compare(file, empty);
        JsonOf(difference, file);
        const std::string text = RenderDifference(difference, file, 0, Headings::None);
        Require(IsAscii(text), "what people see is printable");
        const bool counts = difference.unidentifiedBefore != difference.unidentifiedAfter;
        RequireEqual(std::count(text.begin(), text.end(), '\n'),
                     static_cast<std::int64_t>(difference.devices.size() + (counts ? 1 : 0)), "a change is a line");
        Require(std::all_of(difference.devices.begin(), difference.devices.end(),
                            [&](const DeviceChange& one) {
                                return one.before.empty() == appears && one.after.empty() != appears;
                            }),
                "against nothing devices only come or go");
    }
    for (const HostInventory& host : file.hosts) {
        CheckWritten(host);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    InventoryFile file;
    try {
        file = ParseInventory(std::string(data, data + size));
    } catch (const InventoryFileError& error) {
        Require(error.what()[0] != '\0', "a refusal says why");
        return 0;
    }
    Require(file.isFleet || file.hosts.size() == 1, "a file that is no fleet's has one host");
    CheckFile(file);
    return 0;
}
