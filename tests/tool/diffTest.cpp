#include <algorithm>
#include <array>
#include <boost/algorithm/string/trim_all.hpp>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "toolTests.h"
#include "tools/zddevices/diff/compare.h"
#include "tools/zddevices/diff/diffReport.h"
#include "tools/zddevices/diff/inventoryFile.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {
namespace {

using Devices = std::vector<StorageDevice>;
using Changes = std::vector<Change>;

/** A disk with a name, at a target of one adapter. */
StorageDevice Disk(const std::string& serialNumber, const std::string& target)
{
    StorageDevice disk;
    disk.vendor = "HALVARD ";
    disk.product = "HX 900";
    disk.serial_number = serialNumber;
    disk.firmware_revision = "0102";
    disk.port = "6";
    disk.bus = "0";
    disk.target = target;
    disk.lun = "0";
    disk.device = "sd" + target;
    return disk;
}

StorageDevice WithWwn(StorageDevice disk, const std::string& wwn)
{
    disk.wwn = wwn;
    return disk;
}

InventoryFile HostOf(Devices devices, bool complete = true)
{
    return {false, "2026-11-20T00:00:00Z", {{"alder", true, complete, {}, std::move(devices)}}};
}

Changes OnlyChanges(const Difference& difference)
{
    return difference.devices.size() == 1 ? difference.devices[0].changes : Changes();
}

TEST(Diff, SameInventoryIsNoDifference)
{
    const InventoryFile one = HostOf({Disk("A", "1"), Disk("B", "2"), Disk("", "3")});
    const Difference difference = Compare(one, one);
    EXPECT_TRUE(difference.IsEmpty());
    EXPECT_EQ(2U, difference.unchanged);
    EXPECT_EQ(1U, difference.unidentifiedAfter);
}

TEST(Diff, NewDeviceIsAdded)
{
    EXPECT_EQ(Changes{Change::Added}, OnlyChanges(Compare(HostOf({}), HostOf({Disk("A", "1")}))));
}

TEST(Diff, DeviceThatIsGoneIsRemoved)
{
    EXPECT_EQ(Changes{Change::Removed}, OnlyChanges(Compare(HostOf({Disk("A", "1")}), HostOf({}))));
}

TEST(Diff, IncompleteAnswerRemovesNothing)
{
    EXPECT_EQ(Changes{Change::NotSeen}, OnlyChanges(Compare(HostOf({Disk("A", "1")}), HostOf({}, false))));
}

TEST(Diff, AnotherSerialNumberAtTheSameAddressIsAReplacement)
{
    const Difference difference = Compare(HostOf({Disk("A", "1")}), HostOf({Disk("B", "1")}));
    EXPECT_EQ(Changes{Change::Replaced}, OnlyChanges(difference));
    EXPECT_EQ("A", difference.devices[0].before[0].serial_number);
    EXPECT_EQ("B", difference.devices[0].after[0].serial_number);
}

TEST(Diff, SlotTellsMoreOfAPlaceThanAnAddress)
{
    StorageDevice before = Disk("A", "1");
    StorageDevice after = Disk("B", "9");
    before.slot = after.slot = "6:0:5:0/Slot 03";
    EXPECT_EQ(Changes{Change::Replaced}, OnlyChanges(Compare(HostOf({before}), HostOf({after}))));
    after = before;
    after.target = "9";
    EXPECT_TRUE(Compare(HostOf({before}), HostOf({after})).IsEmpty());
}

TEST(Diff, SameDeviceAtAnotherAddressHasMoved)
{
    EXPECT_EQ(Changes{Change::Moved}, OnlyChanges(Compare(HostOf({Disk("A", "1")}), HostOf({Disk("A", "2")}))));
}

TEST(Diff, TwoDisksThatChangedPlacesHaveMoved)
{
    const Difference difference =
        Compare(HostOf({Disk("A", "1"), Disk("B", "2")}), HostOf({Disk("A", "2"), Disk("B", "1")}));
    ASSERT_EQ(2U, difference.devices.size());
    EXPECT_EQ(Changes{Change::Moved}, difference.devices[0].changes);
    EXPECT_EQ(Changes{Change::Moved}, difference.devices[1].changes);
}

TEST(Diff, LongRevisionDecidesWhereBothInventoriesHaveIt)
{
    StorageDevice before = Disk("A", "1");
    StorageDevice after = before;
    after.firmware_revision = "0103";
    EXPECT_EQ(Changes{Change::FirmwareChanged}, OnlyChanges(Compare(HostOf({before}), HostOf({after}))));
    after.revision = "AB010203";
    EXPECT_EQ(Changes{Change::FirmwareChanged}, OnlyChanges(Compare(HostOf({before}), HostOf({after}))));
    before.revision = after.revision;
    EXPECT_TRUE(Compare(HostOf({before}), HostOf({after})).IsEmpty());
}

TEST(Diff, DeviceFileAndStateMeanNothing)
{
    StorageDevice after = Disk("A", "1");
    after.device = "sdz";
    after.state = "offline";
    EXPECT_TRUE(Compare(HostOf({Disk("A", "1")}), HostOf({after})).IsEmpty());
}

TEST(Diff, WwnIsStrongerThanTheName)
{
    const Difference difference =
        Compare(HostOf({WithWwn(Disk("A", "1"), "0x5001")}), HostOf({WithWwn(Disk("B", "1"), "0x5001")}));
    EXPECT_EQ(Changes{Change::IdentityChanged}, OnlyChanges(difference));
    EXPECT_EQ(Changes{Change::Replaced}, OnlyChanges(Compare(HostOf({WithWwn(Disk("A", "1"), "0x5001")}),
                                                             HostOf({WithWwn(Disk("A", "1"), "0x5002")}))));
}

TEST(Diff, NameDecidesWhereOneInventoryHasNoWwn)
{
    EXPECT_TRUE(Compare(HostOf({Disk("A", "1")}), HostOf({WithWwn(Disk("A", "1"), "0x5001")})).IsEmpty());
    EXPECT_TRUE(Compare(HostOf({WithWwn(Disk("A", "1"), "0x5001")}), HostOf({Disk("A", "1")})).IsEmpty());
}

TEST(Diff, RowsOfOneWwnArePathsToOneDevice)
{
    const Devices twoPaths = {WithWwn(Disk("A", "1"), "0x5001"), WithWwn(Disk("A", "2"), "0x5001")};
    EXPECT_TRUE(Compare(HostOf(twoPaths), HostOf({twoPaths[1], twoPaths[0]})).IsEmpty());
    const Difference difference = Compare(HostOf(twoPaths), HostOf({twoPaths[0]}));
    EXPECT_EQ(Changes{Change::Moved}, OnlyChanges(difference));
    EXPECT_EQ(2U, difference.devices[0].before.size());
}

TEST(Diff, PathThatAnIncompleteAnswerLacksIsNoMove)
{
    const Devices twoPaths = {WithWwn(Disk("A", "1"), "0x5001"), WithWwn(Disk("A", "2"), "0x5001")};
    EXPECT_TRUE(Compare(HostOf(twoPaths), HostOf({twoPaths[0]}, false)).IsEmpty());
    EXPECT_EQ(Changes{Change::Moved},
              OnlyChanges(Compare(HostOf(twoPaths), HostOf({WithWwn(Disk("A", "3"), "0x5001")}, false))));
}

TEST(Diff, BlanksAroundATextMeanNothing)
{
    EXPECT_TRUE(Compare(HostOf({Disk("  A", "1")}), HostOf({Disk("A   ", "1")})).IsEmpty());
}

TEST(Diff, DevicesWithoutWwnAndSerialNumberAreCounted)
{
    const Difference difference = Compare(HostOf({Disk("", "1"), Disk(" ", "2")}), HostOf({Disk("", "1")}));
    EXPECT_TRUE(difference.devices.empty());
    EXPECT_EQ(2U, difference.unidentifiedBefore);
    EXPECT_EQ(1U, difference.unidentifiedAfter);
    EXPECT_FALSE(difference.IsEmpty());
}

TEST(Diff, HostsOfAFleetAreComparedByTheirNames)
{
    const InventoryFile before = {true,
                                  "",
                                  {{"alder", true, true, {}, {Disk("A", "1")}},
                                   {"birch", true, true, {}, {Disk("B", "1")}},
                                   {"elm", false, false}}};
    const InventoryFile after = {true,
                                 "",
                                 {{"elm", true, true, {}, {Disk("E", "1")}},
                                  {"cedar", true, true, {}, {Disk("C", "1")}},
                                  {"alder", false, false}}};
    const Difference difference = Compare(before, after);
    std::vector<std::string> hosts;
    for (const HostChange& change : difference.hosts) {
        hosts.push_back(change.host + " " + WordsOf(change.change) + " " + std::to_string(change.devices));
    }
    EXPECT_EQ((std::vector<std::string>{"alder not seen 1", "birch removed 1", "cedar added 1", "elm seen again 1"}),
              hosts);
    ASSERT_EQ(2U, difference.devices.size());
    EXPECT_EQ("birch", difference.devices[0].host);
    EXPECT_EQ(Changes{Change::Removed}, difference.devices[0].changes);
    EXPECT_EQ(Changes{Change::Added}, difference.devices[1].changes);
}

/** Why the two are not compared. */
std::string RefusalOf(const InventoryFile& before, const InventoryFile& after)
{
    try {
        Compare(before, after);
    } catch (const InventoryFileError& error) {
        return error.what();
    }
    return "none";
}

TEST(Diff, HostIsNotComparedWithAFleet)
{
    EXPECT_EQ(RefusalOf(HostOf({}), {true, "", {}}),
              "one of the files is the inventory of a host, the other that of a fleet");
}

TEST(Diff, ListsOfDifferentClassesOrFiltersAreNotCompared)
{
    InventoryFile disks = HostOf({});
    disks.hosts[0].selection = {"disk"};
    EXPECT_EQ(RefusalOf(disks, HostOf({})),
              "the inventories cannot be compared: --type or --filter was not the same for both");
    EXPECT_EQ(RefusalOf(disks, disks), "none");
}

std::string TextOf(const InventoryFile& before, const InventoryFile& after)
{
    return boost::algorithm::trim_all_copy_if(RenderDifference(Compare(before, after), before, 0, Headings::None),
                                              [](char c) { return c == ' '; });
}

TEST(DiffReport, SaysWhatWasAndWhatIs)
{
    StorageDevice changed = Disk("A", "2");
    changed.firmware_revision = "0\x1b[7m";
    EXPECT_EQ(TextOf(HostOf({Disk("A", "1")}), HostOf({changed})),
              "moved, firmware changed sd2 6:0:2:0 HALVARD HX 900 A 6:0:1:0 -> 6:0:2:0; 0102 -> 0\\x1b[7m\n");
    EXPECT_EQ(TextOf(HostOf({Disk("A", "1")}), HostOf({Disk("B", "1")})),
              "replaced sd1 6:0:1:0 HALVARD HX 900 B was HALVARD HX 900 A\n");
    EXPECT_EQ(TextOf(HostOf({WithWwn(Disk("A", "1"), "0x5")}), HostOf({WithWwn(Disk("B", "1"), "0x5")})),
              "identity changed sd1 6:0:1:0 HALVARD HX 900 B was HALVARD HX 900 A\n");
    EXPECT_EQ(TextOf(HostOf({Disk("A", "1")}), HostOf({})), "removed sd1 6:0:1:0 HALVARD HX 900 A\n");
    EXPECT_EQ(TextOf(HostOf({}), HostOf({Disk("", "1")})),
              "Devices without world-wide name and serial number: 0 before, 1 now\n");
    EXPECT_EQ(TextOf(HostOf({}), HostOf({})), "");
}

TEST(DiffReport, FleetsHaveAColumnForTheHost)
{
    const InventoryFile before = {true, "", {{"alder", true, true, {}, {Disk("A", "1")}}, {"b\x1b", true, true}}};
    const InventoryFile after = {true, "", {{"alder", true, true}, {"b\x1b", false, false}}};
    EXPECT_EQ(TextOf(before, after), "alder removed sd1 6:0:1:0 HALVARD HX 900 A\nHost b\\x1b: not seen (0 devices)\n");
}

/** Inventories by chance, with few texts, so that devices meet. */
class Chance {
public:
    explicit Chance(unsigned int seed) : random(seed) {}

    unsigned int Below(unsigned int bound) { return std::uniform_int_distribution<unsigned int>(0, bound - 1)(random); }

    /** Whatever bytes a device may send. */
    std::string Text()
    {
        static const std::array<std::string, 7> texts = {"A",   "B", "\x1b[31m", "\xff\xfe", "a\nb", "\xe2\x80\xae",
                                                         "\x7f"};
        return texts[Below(texts.size())];
    }

    StorageDevice Any()
    {
        StorageDevice disk = Disk("S" + std::to_string(Below(30)) + Text(), std::to_string(Below(20)));
        disk.firmware_revision = std::to_string(Below(2));
        if (Below(3) == 0) {
            disk.wwn = "0x" + std::to_string(Below(20));
        }
        if (Below(3) == 0) {
            disk.slot = "bay " + std::to_string(Below(10));
        }
        return disk;
    }

    Devices SomeDevices()
    {
        Devices devices(Below(25));
        std::generate(devices.begin(), devices.end(), [this] { return Any(); });
        return devices;
    }

    Devices Shuffled(Devices devices)
    {
        std::shuffle(devices.begin(), devices.end(), random);
        return devices;
    }

private:
    std::mt19937 random;
};

std::vector<std::string> TextsOf(const StorageDevice& device)
{
    std::vector<std::string> texts;
    for (const Field<StorageDevice>& field : MembersOf<StorageDevice>()) {
        texts.push_back(device.*field.member);
    }
    return texts;
}

std::multiset<std::vector<std::string>> Rows(const Devices& devices)
{
    std::multiset<std::vector<std::string>> rows;
    for (const StorageDevice& device : devices) {
        rows.insert(TextsOf(device));
    }
    return rows;
}

/** The old rows with the changes made. */
Devices Applied(Devices devices, const Difference& difference)
{
    for (const DeviceChange& change : difference.devices) {
        for (const StorageDevice& gone : change.before) {
            const auto found = std::find_if(devices.begin(), devices.end(), [&](const StorageDevice& device) {
                return TextsOf(device) == TextsOf(gone);
            });
            EXPECT_NE(devices.end(), found) << "a row that the old inventory has not, or has no more";
            if (found != devices.end()) {
                devices.erase(found);
            }
        }
        devices.insert(devices.end(), change.after.begin(), change.after.end());
    }
    return devices;
}

TEST(RandomDiff, OfAnInventoryWithItselfInAnyOrderIsEmpty)
{
    for (unsigned int seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        const Devices devices = chance.SomeDevices();
        EXPECT_TRUE(Compare(HostOf(devices), HostOf(chance.Shuffled(devices))).IsEmpty());
    }
}

TEST(RandomDiff, AppliedToTheOldInventoryGivesTheNewOne)
{
    for (unsigned int seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        const Devices before = chance.SomeDevices();
        Devices after = chance.Shuffled(before);
        after.resize(after.size() - (after.empty() ? 0 : chance.Below(static_cast<unsigned int>(after.size()))));
        for (StorageDevice& device : after) {
            const StorageDevice any = chance.Any();
            switch (chance.Below(6)) {
            case 0:
                device.firmware_revision = any.firmware_revision;
                break;
            case 1:
                device.target = any.target;
                break;
            case 2:
                device = any;
                break;
            default:
                break;
            }
        }
        const Difference difference = Compare(HostOf(before), HostOf(after));
        Devices changed = Applied(before, difference);
        // What counts as unchanged may differ in texts that do not count: nothing more may differ.
        EXPECT_TRUE(Compare(HostOf(changed), HostOf(after)).IsEmpty());
        EXPECT_EQ(difference.IsEmpty(), Compare(HostOf(after), HostOf(before)).IsEmpty());
    }
}

TEST(RandomDiff, OrderOfTheRowsMeansNothing)
{
    for (unsigned int seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        const Devices before = chance.SomeDevices();
        const Devices after = chance.SomeDevices();
        const InventoryFile file = HostOf({});
        EXPECT_EQ(
            RenderDifferenceJson(Compare(HostOf(before), HostOf(after)), file, file),
            RenderDifferenceJson(Compare(HostOf(chance.Shuffled(before)), HostOf(chance.Shuffled(after))), file, file));
    }
}

TEST(RandomDiff, TextsOfDevicesStayInTheirLines)
{
    for (unsigned int seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        const Difference difference = Compare(HostOf(chance.SomeDevices()), HostOf(chance.SomeDevices()));
        const std::string text = RenderDifference(difference, HostOf({}), 0, Headings::Shown);
        const std::size_t rows = difference.devices.empty() ? 0 : difference.devices.size() + 1;
        const std::size_t counted = difference.unidentifiedBefore != difference.unidentifiedAfter ? 1 : 0;
        EXPECT_EQ(rows + counted, static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
        EXPECT_EQ(std::string::npos, text.find_first_of("\x1b\x7f\xff"));
    }
}

TEST(RandomDiff, WhatIsWrittenIsReadAgain)
{
    for (unsigned int seed = 1; seed <= 200; ++seed) {
        SCOPED_TRACE(seed);
        Chance chance(seed);
        Report<StorageDevice> report;
        report.records = chance.SomeDevices();
        const InventoryFile read = ParseInventory(RenderJson(report, {"alder", "2026-11-20T00:00:00Z"}));
        EXPECT_EQ("alder", read.hosts.at(0).host);
        EXPECT_TRUE(read.hosts.at(0).complete);
        for (StorageDevice& device : report.records) {
            for (const Field<StorageDevice>& field : MembersOf<StorageDevice>()) {
                device.*field.member = field.key != nullptr ? ValidUtf8(device.*field.member) : "";
            }
        }
        EXPECT_EQ(Rows(report.records), Rows(read.hosts.at(0).devices));
    }
}

std::string ErrorOf(const std::string& contents)
{
    try {
        ParseInventory(contents);
    } catch (const InventoryFileError& error) {
        return error.what();
    }
    return "none";
}

const std::string namesOfDevice = R"("vendor":null,"product":null,"serial_number":null)";

/** Why a document with a device of these keys and values is refused. */
std::string ErrorOfDevice(const std::string& members)
{
    return ErrorOf(R"({"schema":"zddevices/1","host":"h","devices":[{)" + namesOfDevice + members + "}]}");
}

TEST(InventoryFile, SaysWhatIsWrong)
{
    const std::string schemas = "no inventory: its schema is neither zddevices/1 nor zendra-fleet/1";
    EXPECT_EQ("no JSON: The document is empty. (byte 0)", ErrorOf(""));
    EXPECT_EQ("no JSON: Invalid encoding in string. (byte 2)", ErrorOf("{\"\xff\":1}"));
    EXPECT_EQ(schemas, ErrorOf("[]"));
    EXPECT_EQ(schemas, ErrorOf("{}"));
    EXPECT_EQ(schemas, ErrorOf(R"({"schema":"zddevices/2","devices":[]})"));
    EXPECT_EQ(R"("schema" is no text)", ErrorOf(R"({"schema":1})"));
    const std::string begin = R"({"schema":"zddevices/1","host":"h","devices":)";
    EXPECT_EQ(R"("devices" is missing or no list)", ErrorOf(begin + "null}"));
    EXPECT_EQ(R"("devices" holds something that is no object)", ErrorOf(begin + "[1]}"));
    EXPECT_EQ("a device has no vendor, product or serial_number", ErrorOf(begin + "[{}]}"));
    EXPECT_EQ(R"("complete" is neither true nor false)",
              ErrorOf(R"({"schema":"zddevices/1","complete":"no","devices":[]})"));
    EXPECT_EQ(R"("filters" is no list)", ErrorOf(R"({"schema":"zddevices/1","filters":"no","devices":[]})"));
    EXPECT_EQ(R"("port" is no number from 0 on)", ErrorOfDevice(R"(,"port":"1")"));
    EXPECT_EQ(R"("port" is no number from 0 on)", ErrorOfDevice(R"(,"port":-1)"));
    EXPECT_EQ(R"("wwn" is no text)", ErrorOfDevice(R"(,"wwn":{})"));
    EXPECT_EQ(R"("device_files" is no list)", ErrorOfDevice(R"(,"device_files":"/dev/sda")"));
    EXPECT_EQ(R"("device_files" is no text)", ErrorOfDevice(R"(,"device_files":["a",1])"));
    EXPECT_EQ("none", ErrorOfDevice(R"(,"unknown":[{}])"));
}

TEST(InventoryFile, SaysWhatIsWrongWithAFleet)
{
    const std::string begin = R"({"schema":"zendra-fleet/1","hosts":)";
    EXPECT_EQ(R"("hosts" is missing or no list)", ErrorOf(begin + "{}}"));
    EXPECT_EQ(R"("hosts" holds something that is no object)", ErrorOf(begin + "[0]}"));
    EXPECT_EQ("a host has no name, or the name of another", ErrorOf(begin + R"([{"name":"a"},{"name":"a"}]})"));
    EXPECT_EQ("a host has no name, or the name of another", ErrorOf(begin + "[{}]}"));
    EXPECT_EQ("host a: the inventory is no object", ErrorOf(begin + R"([{"name":"a","inventory":[]}]})"));
    EXPECT_EQ("host a: \"devices\" is missing or no list", ErrorOf(begin + R"([{"name":"a","inventory":{}}]})"));
    EXPECT_EQ("none", ErrorOf(begin + R"([{"name":"a","inventory":null}]})"));
}

TEST(InventoryFile, DepthCostsNoStack)
{
    EXPECT_NE("none", ErrorOf(std::string(2000000, '[')));
    const std::string deep = std::string(1000000, '[') + std::string(1000000, ']');
    EXPECT_EQ("none", ErrorOf(R"({"schema":"zddevices/1","devices":[],"deep":)" + deep + "}"));
}

TEST(InventoryFile, EveryBeginningOfADocumentIsRefused)
{
    Report<StorageDevice> report;
    report.records = {Disk("A", "1")};
    const std::string document = RenderJson(report, {"alder", "2026-11-20T00:00:00Z"});
    for (std::size_t length = 0; length < document.size() - 2; ++length) {
        EXPECT_NE("none", ErrorOf(document.substr(0, length))) << length;
    }
    EXPECT_EQ("none", ErrorOf(document));
}

std::string ErrorOfFile(const std::string& path)
{
    try {
        ReadInventoryFile(path);
    } catch (const InventoryFileError& error) {
        return error.what();
    }
    return "none";
}

TEST(InventoryFile, ThatCannotBeReadIsNamed)
{
    EXPECT_EQ(ErrorOfFile("/nowhere/a.json"), "/nowhere/a.json: cannot be read: No such file or directory");
    EXPECT_EQ(ErrorOfFile("/"), "/: cannot be read: Is a directory");
    EXPECT_EQ(ErrorOfFile("/dev/zero"), "/dev/zero: is larger than 256 MiB");
}

}  // namespace
}  // namespace Zendra::ZDDevices
