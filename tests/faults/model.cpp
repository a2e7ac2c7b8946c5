#include "model.h"

#include <algorithm>
#include <utility>

namespace Faults {

namespace {

constexpr int succeeded = 4;
constexpr int failed = 5;
constexpr int notOpened = 3;
constexpr unsigned nothingFound = 6;

constexpr unsigned sgIo = 0x2285;
constexpr unsigned sgVersion = 0x2282;
constexpr unsigned sgScsiId = 0x2276;
constexpr unsigned scsiIdLun = 0x5382;
constexpr unsigned scsiBusNumber = 0x5386;
constexpr unsigned ataCommand = 0x031f;
constexpr unsigned nvmeCommand = 0xc0484e41;

std::string Text(const SimHost::Bytes& bytes, std::size_t offset, std::size_t length)
{
    std::string text;
    for (std::size_t i = offset; i < offset + length && i < bytes.size() && bytes[i] != 0; ++i) {
        text += static_cast<char>(bytes[i]);
    }
    return text;
}

std::string SwappedText(const SimHost::Bytes& bytes, std::size_t offset, std::size_t length)
{
    SimHost::Bytes swapped;
    for (std::size_t i = offset; i < offset + length; i += 2) {
        swapped.push_back(bytes.at(i + 1));
        swapped.push_back(bytes.at(i));
    }
    return Text(swapped, 0, length);
}

std::string WithoutOuter(const std::string& text, const char* characters)
{
    const std::size_t first = text.find_first_not_of(characters);
    return first == std::string::npos ? text : text.substr(first, text.find_last_not_of(characters) - first + 1);
}

/** The words of a text between blanks. */
std::vector<std::string> Words(const std::string& text)
{
    std::vector<std::string> words(1);
    for (const char c : text) {
        if (c != ' ') {
            words.back() += c;
        } else if (!words.back().empty()) {
            words.emplace_back();
        }
    }
    if (words.back().empty()) {
        words.pop_back();
    }
    return words;
}

std::string TypeText(unsigned char byte)
{
    static const std::map<unsigned, std::string> texts = {
        {0, "Direct Access Device"}, {1, "Sequential Access Device"}, {5, "CD-ROM Device"}};
    return texts.at(byte & 0x0fU);
}

bool BeginsWith(const std::string& text, const std::string& beginning)
{
    return text.compare(0, beginning.size(), beginning) == 0;
}

/** For names that only ask for the plain rules: see hosts/. */
bool IsListed(const std::string& prefix, const std::string& name)
{
    if (!BeginsWith(name, prefix)) {
        return false;
    }
    const bool endsInDigit = name.back() >= '0' && name.back() <= '9';
    if (prefix == "st") {
        return endsInDigit;
    }
    if (prefix == "sd") {
        return !endsInDigit;
    }
    return prefix != "nvme" || name.size() == 7;
}

}  // namespace

Model::Model(const SimHost::Host& theHost, const std::vector<Event>& theTrace, const MissingObjects& theMissing)
    : host(theHost), missing(theMissing)
{
    // Whether everything is closed is asked of the system afterwards.
    std::copy_if(theTrace.begin(), theTrace.end(), std::back_inserter(trace),
                 [](const Event& event) { return event.call != Call::Close && event.call != Call::CloseDir; });
}

Result Model::Run(const SimHost::Call& call)
{
    const auto fields = [](const Device& device) {
        return Fields{device.vendor,
                      device.product,
                      device.type,
                      device.serial,
                      device.revision,
                      std::to_string(device.hostAdapter),
                      std::to_string(device.target),
                      std::to_string(device.bus),
                      std::to_string(device.lun)};
    };
    Result result;
    switch (call.kind) {
    case SimHost::CallKind::Individual: {
        const ClassResult scanned = ScanClass(call.type);
        result.status = scanned.status;
        std::transform(scanned.devices.begin(), scanned.devices.end(), std::back_inserter(result.records), fields);
        break;
    }
    case SimHost::CallKind::All: {
        std::map<std::string, Fields> byKey;
        unsigned withoutAddress = 0;
        for (std::int32_t type = 0; type < 4; ++type) {
            for (const Device& device : ScanClass(type).devices) {
                Fields record = fields(device);
                std::array<std::string, 4> address = {record[5], record[6], record[7], record[8]};
                if (address == std::array<std::string, 4>{"0", "0", "0", "0"}) {
                    address.fill(std::to_string(++withoutAddress));
                    std::fill(record.begin() + 5, record.end(), "");
                }
                byKey.emplace("Port:" + address[0] + "|Target:" + address[1] + "|Bus:" + address[2] +
                                  "|Lun:" + address[3],
                              record);
            }
        }
        for (const auto& [key, record] : byKey) {
            result.records.push_back(record);
        }
        break;
    }
    case SimHost::CallKind::Firmware: {
        const ClassResult scanned = ScanClass(2);
        result.status = scanned.status;
        for (const Device& device : scanned.devices) {
            if (device.product.find("RAID") == std::string::npos) {
                const std::string id = WithoutOuter(device.product, " ");
                Fields record(23);
                record[4] = id;
                record[5] = device.revision;
                record[6] = "10";
                record[9] = id;
                record[15] = "0";
                record[20] = device.serial;
                record[22] = "3";
                result.records.push_back(record);
            }
        }
        break;
    }
    case SimHost::CallKind::Optical:
        result = Optical();
        break;
    }
    if (position != trace.size()) {
        Diverge("no further call");
    }
    return result;
}

void Model::Diverge(const std::string& expected) const
{
    std::string message = "call " + std::to_string(position) + ": expected " + expected + ", but there was ";
    if (position < trace.size()) {
        const Event& event = trace[position];
        message += std::string(NameOf(event.call)) + " " + SimHost::Quote(event.text) +
                   (event.succeeded ? " (succeeded)" : " (failed)");
    } else {
        message += "no further call";
    }
    throw Divergence(message);
}

bool Model::NextIs(Call call) const
{
    return position < trace.size() && trace[position].call == call;
}

const Event& Model::Take(Call call, const std::string& text)
{
    if (!NextIs(call) || (!text.empty() && trace[position].text != text)) {
        Diverge(std::string(NameOf(call)) + " " + text);
    }
    return trace[position++];
}

/** Loads the module and makes the operator; false when there is no proxy. */
bool Model::BeginClass()
{
    const unsigned number = classNumber++;
    if (missing.proxies.count(number) != 0) {
        return false;
    }
    hasSg = Take(Call::System, "modprobe sg >/dev/null 2>&1").succeeded;
    hasOperator = missing.operators.count(number) == 0;
    blockNames.reset();
    return true;
}

std::vector<std::string> Model::ReadNames(const std::string& directory, bool& opened, bool& complete)
{
    std::vector<std::string> names;
    opened = Take(Call::OpenDir, directory).succeeded;
    if (opened) {
        const Event* entry = nullptr;
        while ((entry = &Take(Call::ReadDir, ""))->succeeded) {
            names.push_back(entry->text);
        }
        complete = !entry->injected;
    }
    return names;
}

std::vector<std::string> Model::FilesOf(const std::string& prefix)
{
    bool opened = false;
    bool complete = false;
    std::vector<std::string> files;
    for (const std::string& name : ReadNames("/dev/", opened, complete)) {
        if (IsListed(prefix, name)) {
            files.push_back("/dev/" + name);
        }
    }
    return files;
}

Model::ClassResult Model::ScanClass(std::int32_t type)
{
    ClassResult result;
    if (!BeginClass()) {
        return result;
    }
    using Probe = bool (Model::*)(const std::string&, Device&);
    std::vector<std::pair<std::string, Probe>> files;
    const auto add = [&](const std::string& prefix, Probe probe) {
        for (const std::string& file : FilesOf(prefix)) {
            files.emplace_back(file, probe);
        }
    };
    switch (type) {
    case 0:
        add("st", &Model::ProbeTape);
        if (files.empty()) {
            add("nst", &Model::ProbeTape);
        }
        break;
    case 1:
        add(hasSg ? "sg" : "sd", &Model::ProbeGeneric);
        break;
    case 2:
        add("hd", &Model::ProbeDisk);
        add("sd", &Model::ProbeDisk);
        add("nvme", &Model::ProbeDisk);
        break;
    default:
        add("sr", &Model::ProbeOptical);
        break;
    }
    if (files.empty()) {
        result.status = nothingFound;
    }
    for (const auto& [file, probe] : files) {
        Device device;
        if ((this->*probe)(file, device)) {
            if (!device.revision.empty() && device.revision.back() == '\n') {
                device.revision.pop_back();
            }
            result.devices.push_back(device);
        }
    }
    return result;
}

const SimHost::Node& Model::NodeOf(const std::string& path) const
{
    for (const SimHost::DevEntry& entry : host.dev) {
        if ("/dev/" + entry.name == path) {
            return entry.node;
        }
    }
    throw Divergence("no such device: " + path);
}

int Model::Request(const std::string& path, unsigned request)
{
    if (!hasOperator) {
        return failed;
    }
    if (!Take(Call::Open, path).succeeded) {
        return notOpened;
    }
    const Event& event = Take(Call::Ioctl, path);
    if (event.request != request) {
        --position;
        Diverge("another request on " + path);
    }
    return event.succeeded ? succeeded : failed;
}

/** `answer` is null where the driver is too old to be asked. */
int Model::Inquire(const std::string& path, bool serialPage, const SimHost::Bytes*& answer)
{
    answer = nullptr;
    int status = Request(path, sgVersion);
    if (status != succeeded || NodeOf(path).sgVersion->values.front() < 30000) {
        return status;
    }
    status = Request(path, sgIo);
    if (status == succeeded) {
        answer = &(serialPage ? NodeOf(path).serial : NodeOf(path).inquiry).front().data;
    }
    return status;
}

int Model::Generic(const std::string& path, Device& device, bool isSg)
{
    const SimHost::Node& node = NodeOf(path);
    const SimHost::Bytes* answer = nullptr;
    if (Inquire(path, false, answer) != succeeded) {
        return failed;
    }
    const SimHost::Bytes nothing(36);
    const SimHost::Bytes& inquiry = answer != nullptr ? *answer : nothing;
    device.vendor = WithoutOuter(Text(inquiry, 8, 8), " \t");
    device.product = WithoutOuter(Text(inquiry, 16, 16), " \t");
    if (device.product.empty()) {
        device.product = device.vendor;
    }
    device.revision = Text(inquiry, 32, 4);
    device.type = TypeText(inquiry[0]);
    if (device.vendor.empty() || device.product.empty()) {
        return succeeded;
    }
    if (isSg) {
        if (Request(path, sgScsiId) == succeeded) {
            const std::vector<std::int32_t>& id = node.scsiId->values;
            device.hostAdapter = static_cast<unsigned>(id[0]);
            device.bus = static_cast<unsigned>(id[1]);
            device.target = static_cast<unsigned>(id[2]);
            device.lun = static_cast<unsigned>(id[3]);
        }
    } else {
        if (Request(path, scsiIdLun) == succeeded) {
            const auto packed = static_cast<unsigned>(node.idLun->values.front());
            device.target = packed & 0xffU;
            device.lun = packed >> 8 & 0xffU;
            device.bus = packed >> 16 & 0xffU;
        }
        if (Request(path, scsiBusNumber) == succeeded) {
            device.hostAdapter = static_cast<unsigned>(node.busNumber->values.front());
        }
    }
    if (inquiry[0] == 0 || inquiry[0] == 1) {
        const SimHost::Bytes* page = nullptr;
        if (Inquire(path, true, page) == succeeded && page != nullptr) {
            device.serial = Text(*page, 4, page->at(3));
        }
    }
    return succeeded;
}

int Model::Driver(const std::string& path, Device& device)
{
    const int status = Request(path, ataCommand);
    if (status == succeeded) {
        const SimHost::Bytes& identify = NodeOf(path).ataIdentify.front().data;
        const std::vector<std::string> words = Words(SwappedText(identify, 54, 40));
        device.vendor = !words.empty() ? words[0] : device.vendor;
        device.product = words.size() > 1 ? words[1] : device.product;
        device.revision = SwappedText(identify, 46, 8);
        device.serial = SwappedText(identify, 20, 20);
    }
    return status;
}

int Model::Nvme(const std::string& path, Device& device)
{
    const int status = Request(path, nvmeCommand);
    if (status == succeeded) {
        const SimHost::Bytes& identify = NodeOf(path).nvmeIdentify.front().data;
        device.vendor = "NVMe";
        device.product = Text(identify, 24, 39);
        device.revision = Text(identify, 64, identify.size() - 64);
        device.serial = Text(identify, 4, 19);
        device.type = TypeText(0);
    }
    return status;
}

void Model::RevisionFromFile(const std::string& path, Device& device)
{
    // The directory is read once for a list operation, or for each lookup. One that could not be opened, or not be
    // read to its end, is tried again.
    if (NextIs(Call::OpenDir) || !blockNames || !blockNamesComplete) {
        bool opened = false;
        std::vector<std::string> names = ReadNames("/sys/block/", opened, blockNamesComplete);
        if (!opened) {
            return;
        }
        blockNames = std::move(names);
    }
    const std::string name = path.substr(5);
    const auto found = std::find_if(blockNames->begin(), blockNames->end(),
                                    [&](const std::string& block) { return name.find(block) != std::string::npos; });
    if (found == blockNames->end()) {
        return;
    }
    for (const char* file : {"/device/firmware_rev", "/device/rev"}) {
        const Event& opened = Take(Call::Open, "/sys/block/" + *found + file);
        if (!opened.succeeded) {
            continue;
        }
        std::string content;
        bool onceMore = true;
        while (onceMore && NextIs(Call::Read) && trace[position].descriptor == opened.descriptor) {
            const Event& event = Take(Call::Read, "");
            content += event.text;
            onceMore = !(event.succeeded && event.text.empty());
        }
        if (!content.empty()) {
            device.revision = content;
        }
        return;
    }
}

bool Model::ProbeDisk(const std::string& path, Device& device)
{
    if (BeginsWith(path, "/dev/nvme")) {
        return Nvme(path, device) == succeeded;
    }
    const bool useGeneric = BeginsWith(path, "/dev/sd");
    int status = useGeneric ? Generic(path, device, false) : failed;
    if (!useGeneric || status != succeeded || (device.vendor.empty() && device.product.empty())) {
        status = Driver(path, device);
    }
    if (device.vendor.find("ATA") == std::string::npos) {
        return status == succeeded;
    }
    if (!useGeneric) {
        RevisionFromFile(path, device);
        return status == succeeded;
    }
    if (Request(path, ataCommand) != succeeded) {
        return false;
    }
    const SimHost::Bytes& identify = NodeOf(path).ataIdentify.front().data;
    device.revision = SwappedText(identify, 46, 8);
    device.revision.erase(std::remove(device.revision.begin(), device.revision.end(), ' '), device.revision.end());
    device.product = SwappedText(identify, 54, 40);
    device.product = device.product.substr(0, device.product.find(' '));
    return true;
}

bool Model::ProbeTape(const std::string& path, Device& device)
{
    int status = Generic(path, device, false);
    if (status != succeeded) {
        status = Driver(path, device);
    } else if (device.vendor.empty() && device.product.empty()) {
        Driver(path, device);
    }
    RevisionFromFile(path, device);
    return status == succeeded;
}

bool Model::ProbeOptical(const std::string& path, Device& device)
{
    int status = Generic(path, device, false);
    if (status != succeeded || (device.vendor.empty() && device.product.empty())) {
        status = Driver(path, device);
    }
    RevisionFromFile(path, device);
    return status == succeeded;
}

bool Model::ProbeGeneric(const std::string& path, Device& device)
{
    int status = hasSg ? Generic(path, device, true) : Driver(path, device);
    if (hasSg && status == succeeded && device.vendor.empty() && device.product.empty()) {
        status = Driver(path, device);
    }
    RevisionFromFile(path, device);
    return status == succeeded;
}

/** The output of cat, as far as it was read. */
std::string Model::Capture()
{
    std::string output;
    if (!Take(Call::Pipe, "").succeeded || !Take(Call::Fork, "").succeeded) {
        return output;
    }
    while (Take(Call::Select, "").succeeded) {
        const Event& event = Take(Call::Read, "");
        output += event.text.substr(0, event.text.find('\0'));
        if (event.succeeded && event.text.empty()) {
            Take(Call::WaitPid, "");
            break;
        }
    }
    return output;
}

Result Model::Optical()
{
    Result result;
    if (!BeginClass()) {
        return result;
    }
    const std::vector<std::string> files = FilesOf("sr");
    if (files.empty()) {
        result.status = nothingFound;
        return result;
    }
    std::map<std::string, Device> drives;
    for (const std::string& file : files) {
        Device device;
        if (ProbeOptical(file, device)) {
            drives[file] = device;
        }
    }
    const std::string table = Capture();
    std::map<std::string, std::string> rows;
    for (std::size_t start = 0; start < table.size();) {
        const std::size_t end = std::min(table.find('\n', start), table.size());
        const std::string line = table.substr(start, end - start);
        const std::size_t colon = line.find(':');
        if (colon != std::string::npos && line.find(':', colon + 1) == std::string::npos) {
            rows.emplace(WithoutOuter(line.substr(0, colon), " \t"), WithoutOuter(line.substr(colon + 1), " \t"));
        }
        start = end + 1;
    }
    if (rows.empty()) {
        return result;
    }
    Fields record(3);
    if (rows.count("drive name") != 0) {
        record[0] = "/dev/" + rows["drive name"];
        if (drives.count(record[0]) != 0) {
            record[1] = drives[record[0]].vendor;
            record[2] = drives[record[0]].product;
        }
    }
    for (const char* row : {"Can write DVD-RAM", "Can write CD-RW", "Can write CD-R", "Can read DVD", "Can write DVD-R",
                            "Can read MRW", "Can write MRW", "Can write RAM"}) {
        record.emplace_back(rows[row] == "1" ? "Yes" : "No");
    }
    result.records.push_back(record);
    return result;
}

}  // namespace Faults
