#include "tools/zddevices/diff/diffReport.h"

#include <algorithm>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <vector>

#include "tools/zddevices/output/json.h"
#include "tools/zddevices/output/text.h"

namespace Zendra::ZDDevices {

namespace {

const Column columns[] = {{"HOST", 12},  {"CHANGE", 9},   {"DEVICE"},     {"PLACE", 8},
                          {"VENDOR", 8}, {"PRODUCT", 12}, {"SERIAL", 12}, {"DETAILS", 20}};

/** What the words for a change do not say; empty when they say all. */
std::string Detail(Change change, const DeviceChange& device)
{
    if (change == Change::Moved) {
        return PlaceOf(device.before) + " -> " + PlaceOf(device.after);
    }
    if (change == Change::FirmwareChanged) {
        return FirmwareOf(device.before) + " -> " + FirmwareOf(device.after);
    }
    if (change == Change::IdentityChanged || change == Change::Replaced) {
        const StorageDevice& was = device.before.front();
        return "was " + CellText(was.vendor) + " " + CellText(was.product) + " " + CellText(was.serial_number);
    }
    return {};
}

std::vector<std::string> RowOf(const DeviceChange& device)
{
    // As it is now, or as it was.
    const Paths& paths = device.after.empty() ? device.before : device.after;
    std::vector<std::string> words;
    std::vector<std::string> details;
    for (const Change change : device.changes) {
        words.push_back(WordsOf(change));
        details.push_back(Detail(change, device));
    }
    const StorageDevice& first = paths.front();
    return {CellText(device.host),         boost::algorithm::join(words, ", "),
            CellText(first.device),        PlaceOf(paths),
            CellText(first.vendor),        CellText(first.product),
            CellText(first.serial_number), boost::algorithm::join(details, "; ")};
}

void WriteSide(JsonWriter& json, const char* key, const InventoryFile& file, std::size_t unidentified)
{
    json.Key(key);
    json.StartObject();
    WriteRecordText(json, "host", file.isFleet ? "" : file.hosts.front().host);
    WriteRecordText(json, "collected_at", file.collectedAt);
    json.Key("complete");
    json.Bool(std::all_of(file.hosts.begin(), file.hosts.end(),
                          [](const HostInventory& host) { return host.answered && host.complete; }));
    json.Key("unidentified");
    json.Uint64(unidentified);
    json.EndObject();
}

/** "firmware_changed". */
std::string Word(Change change)
{
    return boost::algorithm::replace_all_copy(WordsOf(change), " ", "_");
}

template <typename Value, typename Write>
void WriteList(JsonWriter& json, const char* key, const std::vector<Value>& values, Write write)
{
    json.Key(key);
    json.StartArray();
    for (const Value& value : values) {
        write(json, value);
    }
    json.EndArray();
}

void WriteHost(JsonWriter& json, const HostChange& host)
{
    json.StartObject();
    WriteText(json, "host", host.host);
    WriteText(json, "change", Word(host.change));
    json.Key("devices");
    json.Uint64(host.devices);
    json.EndObject();
}

void WriteDevice(JsonWriter& json, const DeviceChange& device)
{
    json.StartObject();
    WriteRecordText(json, "host", device.host);
    WriteList(json, "changes", device.changes, [](JsonWriter& list, Change change) { WriteText(list, Word(change)); });
    WriteList(json, "old", device.before, WriteRecord<StorageDevice>);
    WriteList(json, "new", device.after, WriteRecord<StorageDevice>);
    json.EndObject();
}

}  // namespace

std::string RenderDifference(const Difference& difference, const InventoryFile& before, std::size_t width,
                             Headings headings)
{
    // Inventories of one host need no column for it.
    const std::ptrdiff_t first = before.isFleet ? 0 : 1;
    Table table = {{std::begin(columns) + first, std::end(columns)}, {}};
    for (const DeviceChange& device : difference.devices) {
        const std::vector<std::string> row = RowOf(device);
        table.rows.emplace_back(row.begin() + first, row.end());
    }
    std::string text = table.rows.empty() ? std::string() : RenderTable(table, width, headings);
    for (const HostChange& host : difference.hosts) {
        text += "Host " + Printable(host.host) + ": " + WordsOf(host.change) + " (" + std::to_string(host.devices) +
                (host.devices == 1 ? " device)\n" : " devices)\n");
    }
    if (difference.unidentifiedBefore != difference.unidentifiedAfter) {
        text += "Devices without world-wide name and serial number: " + std::to_string(difference.unidentifiedBefore) +
                " before, " + std::to_string(difference.unidentifiedAfter) + " now\n";
    }
    return text;
}

std::string RenderDifferenceJson(const Difference& difference, const InventoryFile& before, const InventoryFile& after)
{
    return ToJson([&](JsonWriter& json) {
        json.StartObject();
        WriteText(json, "schema", "zddevices-diff/1");
        json.Key("same");
        json.Bool(difference.IsEmpty());
        WriteSide(json, "old", before, difference.unidentifiedBefore);
        WriteSide(json, "new", after, difference.unidentifiedAfter);
        json.Key("unchanged");
        json.Uint64(difference.unchanged);
        WriteList(json, "hosts", difference.hosts, WriteHost);
        WriteList(json, "devices", difference.devices, WriteDevice);
        json.EndObject();
    });
}

}  // namespace Zendra::ZDDevices
