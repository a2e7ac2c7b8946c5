// Whole hosts: builds one from the input and makes every call of the facade on it.
//
// Nothing here decodes an answer of a device (the other targets do). What must hold is what the calls say of each
// other: a class is its device files taken one by one, so that no record holds anything of another device; the
// merged list follows from the four classes; firmware identities follow from the disks; neither the log level, nor what
// the caller's list holds already, nor a host seen before makes a difference. Besides, revisions come from sysfs where
// it has them, and the fake system has rules of its own (fakeSystem.h).
//
// Input: byte 0: bit 0: the sg module cannot be loaded; bit 1: /dev cannot be read; bit 2: there is no /sys/block;
// bit 3: the sr drives' table is not there. Byte 1: the type of device for one more call. Then entries, each a byte
// (modulo 11) and what it takes; an answer belongs to the device before it, without one it is dropped:
//   00 device       1 n and n bytes of name, 1: 0: it opens
//   01 version      1 errno, 4 the number
//   02 INQUIRY      an answer to SG_IO: 1 errno, 1 info, 1 status, 1 masked status, 1 sense length written,
//                   2 host status, 2 driver status, 1 n and n bytes of sense data, 1 n and n bytes of data
//   03 serial page  the same
//   04 ATA          1 errno, 2 n and n bytes of IDENTIFY DEVICE data
//   05 NVMe         1 errno, 2 n and n bytes of Identify Controller data
//   06 SCSI id      1 errno, 4 host, 4 channel, 4 id, 4 LUN
//   07 id and LUN   1 errno, 4 the packed number
//   08 bus number   1 errno, 4 the number
//   09 block entry  1 n and n bytes of name, 1 which files (1 firmware_rev, 2 rev), for each 1 n and n bytes
//   0a table        2 n and n bytes, appended to the table of optical drives
// INQUIRY, serial page, ATA and NVMe may be given several times: answers in sequence, the last one again and again.
// Numbers have their low byte first.

#include <algorithm>
#include <map>
#include <set>

#include "fakeSystem.h"
#include "logCapture.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "opticalModel.h"

using Kernel::Answer;
using Kernel::DevEntry;
using Kernel::Node;
using Kernel::PlainAnswer;
using Zendra::Fuzz::Bytes;
using Zendra::Fuzz::FakeSystem;
using Zendra::Fuzz::Host;
using Zendra::Fuzz::Input;
using Zendra::Fuzz::Require;
using Zendra::Fuzz::RequireEqual;
using Zendra::ZDOptions::SoftwareIdentity_;
using Zendra::ZDSystemDevice::DeviceCollector;
using Zendra::ZDSystemDevice::OpticalProperty;
using Zendra::ZDSystemDevice::SysDeviceType;
using Zendra::ZDSystemDevice::SystemDevice;

namespace {

constexpr std::size_t mostDevices = 8;
constexpr std::size_t mostBlockEntries = 8;
constexpr std::size_t mostAnswers = 8;
constexpr unsigned none = Zendra::ZDSystemDevice::DEVICE_RESULT_NONE;

using Devices = std::vector<SystemDevice>;

// ---------------------------------------------------------------------------------------------------------------
// The host

Answer ReadScsiAnswer(Input& input)
{
    Answer answer;
    answer.failure = input.Byte();
    answer.info = input.Byte();
    answer.status = input.Byte();
    answer.maskedStatus = input.Byte();
    answer.senseLengthWritten = input.Byte();
    answer.hostStatus = input.Number16();
    answer.driverStatus = input.Number16();
    answer.sense = input.Take(input.Byte());
    answer.data = input.Take(input.Byte());
    return answer;
}

PlainAnswer ReadPlainAnswer(Input& input, std::size_t numbers)
{
    PlainAnswer answer;
    answer.failure = input.Byte();
    for (std::size_t i = 0; i < numbers; ++i) {
        answer.values.push_back(input.Number32());
    }
    return answer;
}

Answer ReadLongAnswer(Input& input)
{
    Answer answer;
    answer.failure = input.Byte();
    answer.data = input.Take(input.Number16());
    return answer;
}

/** A name that a directory can hold, and that it does not hold yet; otherwise empty. */
std::string ReadName(Input& input, std::set<std::string>& taken)
{
    std::string name = input.TakeText(input.Byte());
    const bool possible = !name.empty() && name.find('/') == std::string::npos && Zendra::Fuzz::HasNoNul(name) &&
                          name != "." && name != "..";
    return possible && taken.insert(name).second ? name : "";
}

struct Scenario {
    Host host;
    std::string table;
    std::int32_t anyType = 0;
};

void Append(std::vector<Answer>& answers, const Answer& answer)
{
    if (answers.size() < mostAnswers) {
        answers.push_back(answer);
    }
}

Scenario ReadScenario(Input& input)
{
    Scenario scenario;
    Host& host = scenario.host;
    const unsigned flags = input.Byte();
    host.modprobeStatus = (flags & 1) != 0 ? 0x100 : 0;
    host.devUnreadable = (flags & 2) != 0;
    host.blockAbsent = (flags & 4) != 0;
    const bool tableAbsent = (flags & 8) != 0;
    scenario.anyType = static_cast<std::int8_t>(input.Byte());
    std::set<std::string> devNames;
    std::set<std::string> blockNames;
    Node lost;
    Node* device = &lost;
    while (!input.IsEmpty()) {
        switch (input.Byte() % 11) {
        case 0: {
            DevEntry next;
            next.name = ReadName(input, devNames);
            next.kind = input.Byte() != 0 ? Kernel::EntryKind::Unopenable : Kernel::EntryKind::Node;
            device = &lost;
            if (!next.name.empty() && host.dev.size() < mostDevices) {
                host.dev.push_back(next);
                device = &host.dev.back().node;
            }
            break;
        }
        case 1:
            device->sgVersion = ReadPlainAnswer(input, 1);
            break;
        case 2:
            Append(device->inquiry, ReadScsiAnswer(input));
            break;
        case 3:
            Append(device->serial, ReadScsiAnswer(input));
            break;
        case 4:
            Append(device->ataIdentify, ReadLongAnswer(input));
            break;
        case 5:
            Append(device->nvmeIdentify, ReadLongAnswer(input));
            break;
        case 6:
            device->scsiId = ReadPlainAnswer(input, 4);
            break;
        case 7:
            device->idLun = ReadPlainAnswer(input, 1);
            break;
        case 8:
            device->busNumber = ReadPlainAnswer(input, 1);
            break;
        case 9: {
            Kernel::BlockEntry entry;
            entry.name = ReadName(input, blockNames);
            const unsigned files = input.Byte();
            if ((files & 1) != 0) {
                entry.firmwareRev = input.TakeText(input.Byte());
            }
            if ((files & 2) != 0) {
                entry.rev = input.TakeText(input.Byte());
            }
            if (!entry.name.empty() && host.block.size() < mostBlockEntries) {
                host.block.push_back(entry);
            }
            break;
        }
        default:
            scenario.table += input.TakeText(input.Number16());
            break;
        }
    }
    for (DevEntry& entry : host.dev) {
        Zendra::Fuzz::Complete(entry.node);
    }
    Zendra::Fuzz::Child cat;
    if (tableAbsent) {
        scenario.table = "cat: /proc/sys/dev/cdrom/info: No such file or directory\n";
        cat.status = 0x100;
    }
    cat.output = {scenario.table};
    host.children = {cat};
    return scenario;
}

// ---------------------------------------------------------------------------------------------------------------
// Records

std::string Text(const SystemDevice& device)
{
    std::string text;
    for (const std::string* field :
         {&device.vendor, &device.product, &device.device_type, &device.serial_number, &device.firmware_revision,
          &device.port, &device.target, &device.bus, &device.lun}) {
        text += *field + "\n";
    }
    return text;
}

/** All string fields, by their names' order, and the number. */
std::string Text(const SoftwareIdentity_& identity)
{
    std::string text;
    for (const std::string* field : {&identity.Description,
                                     &identity.ElementName,
                                     &identity.ProductName,
                                     &identity.Manufacturer,
                                     &identity.Name,
                                     &identity.VersionString,
                                     &identity.Classifications,
                                     &identity.ClassificationDescriptions,
                                     &identity.IdentityInfoValue,
                                     &identity.SoftwareID,
                                     &identity.SubDeviceID,
                                     &identity.ReleaseDate,
                                     &identity.SoftwareStatus,
                                     &identity.SoftwareRole,
                                     &identity.IdentityInfoType,
                                     &identity.IsPLDMUpdateSupported,
                                     &identity.InstanceID,
                                     &identity.AssociatedAdapterSlot,
                                     &identity.LastUpdateError,
                                     &identity.LastUpdateErrorString,
                                     &identity.SerialNumber,
                                     &identity.ExtraInfo}) {
        text += *field + "\n";
    }
    return text + std::to_string(identity.Category);
}

template <class Record>
void RequireSameRecords(const std::vector<Record>& actual, const std::vector<Record>& expected,
                        const std::string& promise)
{
    RequireEqual(static_cast<std::int64_t>(actual.size()), static_cast<std::int64_t>(expected.size()),
                 promise + ": records");
    for (std::size_t i = 0; i < expected.size(); ++i) {
        RequireEqual(Text(actual[i]), Text(expected[i]), promise + ": record " + std::to_string(i));
    }
}

void RequireWhole(const SystemDevice& device, std::size_t longestRevisionFile)
{
    static const std::set<std::string> types = {"",
                                                "Direct Access Device",
                                                "Sequential Access Device",
                                                "Printer Device",
                                                "Processor Device",
                                                "Write-Once Device",
                                                "CD-ROM Device",
                                                "Scanner Device",
                                                "Optical Memory Device",
                                                "Medium Changer Device",
                                                "Communications Device",
                                                "Graphic Arts Device",
                                                "Storage Array Controller",
                                                "Enclosure Device",
                                                "Simple Direct Access Device",
                                                "Optical Card Reader Device"};
    Require(types.count(device.device_type) == 1, "a device type is one of the known ones");
    Require(device.serial_number.size() <= 32, "a serial number has at most 32 characters");
    Require(device.vendor.size() <= 40 && device.product.size() <= 40, "vendor and product fit into an ATA model");
    Require(device.firmware_revision.size() <= std::max<std::size_t>(4032, longestRevisionFile),
            "a revision is no longer than the device's answer");
    for (const std::string* number : {&device.port, &device.target, &device.bus, &device.lun}) {
        Require(!number->empty() && number->size() <= 5 &&
                    std::all_of(number->begin(), number->end(), [](char c) { return c >= '0' && c <= '9'; }) &&
                    std::stoul(*number) <= 65535 && std::to_string(std::stoul(*number)) == *number,
                "an address field is a number of 16 bits in decimal");
    }
    // The revision may come from a file, which may hold any byte.
    for (const std::string* text : {&device.vendor, &device.product, &device.serial_number}) {
        Require(Zendra::Fuzz::HasNoNul(*text), "no text that a device sent holds a NUL byte");
    }
}

// ---------------------------------------------------------------------------------------------------------------
// Calls

struct ListOutcome {
    unsigned status = 0;
    Devices devices;
    std::vector<std::string> probed;
};

/** Behind a record of the caller's own, which has to stay. */
template <class Record, class CallOnce>
unsigned CallBehind(std::vector<Record>& records, CallOnce call)
{
    const Record before = Record();
    records.assign(1, before);
    const unsigned status = call(records);
    Require(!records.empty(), "a caller's list is appended to only");
    RequireEqual(Text(records.front()), Text(before), "what a caller's list held before");
    records.erase(records.begin());
    return status;
}

ListOutcome List(const Host& host, std::int32_t type)
{
    ListOutcome outcome;
    FakeSystem system(host);
    outcome.status = CallBehind(outcome.devices, [&](Devices& devices) {
        return DeviceCollector().GetIndividualDevice(devices, static_cast<SysDeviceType>(type));
    });
    outcome.probed = system.Probed();
    return outcome;
}

ListOutcome All(const Host& host)
{
    ListOutcome outcome;
    FakeSystem system(host);
    outcome.status =
        CallBehind(outcome.devices, [](Devices& devices) { return DeviceCollector().GetAllDevice(devices); });
    return outcome;
}

/** The four classes merged, as GetAllDevice has to. */
Devices Merge(const std::vector<Devices>& classes)
{
    std::map<std::string, SystemDevice> merged;
    int withoutAddress = 0;
    for (const Devices& devices : classes) {
        for (SystemDevice device : devices) {
            if (device.port + " " + device.target + " " + device.bus + " " + device.lun == "0 0 0 0") {
                const std::string number = std::to_string(++withoutAddress);
                device.port = device.target = device.bus = device.lun = "";
                merged.insert({"Port:" + number + "|Target:" + number + "|Bus:" + number + "|Lun:" + number, device});
            } else {
                merged.insert(
                    {"Port:" + device.port + "|Target:" + device.target + "|Bus:" + device.bus + "|Lun:" + device.lun,
                     device});
            }
        }
    }
    Devices list;
    for (const auto& entry : merged) {
        list.push_back(entry.second);
    }
    return list;
}

std::vector<SoftwareIdentity_> Identities(const Devices& disks)
{
    std::vector<SoftwareIdentity_> identities;
    for (const SystemDevice& disk : disks) {
        std::string lower = disk.product;
        for (char& c : lower) {
            c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
        }
        if (lower.find("raid") != std::string::npos || lower.find("m.2") != std::string::npos) {
            continue;
        }
        std::string id = disk.product;
        if (std::all_of(id.begin(), id.end(), [](char c) { return c == ' '; })) {
            id = disk.vendor;
        }
        const auto notSpace = [](char c) { return !Zendra::Fuzz::IsWhiteSpace(c); };
        id.erase(std::find_if(id.rbegin(), id.rend(), notSpace).base(), id.end());
        id.erase(id.begin(), std::find_if(id.begin(), id.end(), notSpace));
        SoftwareIdentity_ identity;
        identity.Name = id;
        identity.SoftwareID = id;
        identity.VersionString = disk.firmware_revision;
        identity.Classifications = "10";
        identity.SerialNumber = disk.serial_number;
        identity.IsPLDMUpdateSupported = "0";
        identity.Category = 3;
        identities.push_back(identity);
    }
    return identities;
}

/** The revision that sysfs holds for a device file, without its line end. An empty file holds none. */
std::optional<std::string> SysfsRevision(const Host& host, const std::string& name)
{
    for (const auto& entry : host.block) {
        if (host.blockAbsent || name.find(entry.name) == std::string::npos) {
            continue;
        }
        std::string revision = entry.firmwareRev ? *entry.firmwareRev : entry.rev ? *entry.rev : "";
        if (revision.empty()) {
            return std::nullopt;
        }
        if (revision.back() == '\n') {
            revision.pop_back();
        }
        return revision;
    }
    return std::nullopt;
}

/** The class's device files one by one, each alone in /dev. */
Devices ListOneByOne(const Host& host, std::int32_t type, const std::vector<std::string>& files,
                     std::vector<Zendra::Fuzz::OpticalDrive>& answered)
{
    Devices joined;
    Host alone = host;
    for (const std::string& file : files) {
        alone.dev.clear();
        std::copy_if(host.dev.begin(), host.dev.end(), std::back_inserter(alone.dev),
                     [&](const DevEntry& entry) { return "/dev/" + entry.name == file; });
        const ListOutcome one = List(alone, type);
        RequireEqual(one.status, 0, "the status of a host with one device file");
        Require(one.devices.size() <= 1, "a device file gives one record at most");
        for (const SystemDevice& device : one.devices) {
            const auto revision = SysfsRevision(host, file.substr(std::string("/dev/").size()));
            if (revision && type != Zendra::ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE) {
                RequireEqual(device.firmware_revision, *revision, "the revision that sysfs holds");
            }
            joined.push_back(device);
            answered.push_back({file, device.vendor, device.product});
        }
    }
    return joined;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const Scenario scenario = ReadScenario(input);
    const Host& host = scenario.host;
    std::size_t longestRevisionFile = 0;
    for (const auto& entry : host.block) {
        for (const auto* contents : {&entry.firmwareRev, &entry.rev}) {
            longestRevisionFile = std::max(longestRevisionFile, *contents ? (*contents)->size() : 0);
        }
    }

    {
        // Another host: nothing of it may be remembered.
        Host before = host;
        before.block.clear();
        before.dev.resize(std::min<std::size_t>(before.dev.size(), 1));
        All(before);
    }

    std::vector<Devices> classes;
    std::vector<unsigned> statuses;
    std::vector<Zendra::Fuzz::OpticalDrive> drives;
    for (std::int32_t type = 0; type < 4; ++type) {
        const ListOutcome outcome = List(host, type);
        const std::string name = "class " + std::to_string(type);
        RequireEqual(outcome.status, outcome.probed.empty() ? none : 0, name + ": status");
        for (const SystemDevice& device : outcome.devices) {
            RequireWhole(device, longestRevisionFile);
        }
        drives.clear();
        RequireSameRecords(outcome.devices, ListOneByOne(host, type, outcome.probed, drives),
                           name + " against its files one by one");
        classes.push_back(outcome.devices);
        statuses.push_back(outcome.status);
    }

    const std::int32_t known = scenario.anyType >= 0 && scenario.anyType < 4 ? scenario.anyType : 1;
    {
        const Zendra::Fuzz::LogCapture log(4);
        const ListOutcome again = List(host, scenario.anyType);
        RequireEqual(again.status, statuses[static_cast<std::size_t>(known)], "any type: status");
        RequireSameRecords(again.devices, classes[static_cast<std::size_t>(known)], "any type, with a log");
    }

    const ListOutcome all = All(host);
    RequireEqual(all.status, 0, "all: status");
    RequireSameRecords(all.devices, Merge(classes), "all");

    {
        FakeSystem system(host);
        std::vector<SoftwareIdentity_> identities;
        const unsigned status = CallBehind(identities, [](std::vector<SoftwareIdentity_>& list) {
            return DeviceCollector().GetDiskDriverSoftwareIdentities(list);
        });
        RequireEqual(status, statuses[2], "firmware: status");
        RequireSameRecords(identities, Identities(classes[2]), "firmware");
    }
    {
        std::string text;
        for (const std::string& chunk : Zendra::Fuzz::Chunks({scenario.table})) {
            text += chunk;
        }
        const auto expected =
            statuses[3] == none ? std::nullopt : Zendra::Fuzz::ExpectOptical(Zendra::Fuzz::OpticalLines(text), drives);
        FakeSystem system(host);
        std::vector<OpticalProperty> properties;
        RequireEqual(DeviceCollector().GetOpticalProperties(properties), statuses[3], "optical: status");
        RequireEqual(static_cast<std::int64_t>(properties.size()), expected ? 1 : 0, "optical: records");
        if (expected) {
            RequireEqual(properties.front(), *expected);
        }
    }
    return 0;
}
