#include "budgetHosts.h"

#include <sstream>
#include <stdexcept>

namespace Faults {

namespace {

/** What every SCSI device answers, at whatever node it is asked. */
std::string Scsi(unsigned type, const std::string& who, const std::string& tag, unsigned number)
{
    std::ostringstream text;
    text << "  sg_version 30536\n"
         << "  inquiry type=" << type << " vendor=\"" << who << tag << "\" product=\"UNIT " << tag << number
         << "\" revision=\"R" << number << "\" times=any\n"
         << "  serial text=\"SERIAL-" << who << tag << number << "\" times=any\n"
         << "  idlun " << 0x01000000 + number << "\n  bus_number 1\n"
         << "  scsi_id host=1 id=" << number << "\n";
    return text.str();
}

std::string Ata(const std::string& who, const std::string& tag, unsigned number)
{
    std::ostringstream text;
    text << "  ata_identify model=\"" << who << tag << number << " MODEL" << tag << number << "\" revision=\"A"
         << number << "\" serial=\"ATA-" << tag << number << "\" times=any\n";
    return text.str();
}

}  // namespace

const std::vector<std::string>& DeviceKinds()
{
    static const std::vector<std::string> kinds = {"tape",      "sg disk",  "sg disc", "sd without sg", "scsi disk",
                                                   "sata disk", "ide disk", "nvme",    "optical",       "capabilities"};
    return kinds;
}

std::string HostText(const std::string& kind, unsigned count, unsigned otherBlocks, const std::string& tag)
{
    if (count > 26) {
        throw std::invalid_argument("letters for 26 devices");
    }
    std::ostringstream nodes;
    std::ostringstream blocks;
    std::string call;
    for (unsigned number = 0; number < count; ++number) {
        const char letter = static_cast<char>('a' + number);
        const auto node = [&](const std::string& name) { nodes << "dev node " << name << "\n"; };
        const auto block = [&](const std::string& name, const std::string& file) {
            blocks << "block " << name << " " << file << "=\"F" << tag << number << "\\n\"\n";
        };
        if (kind == "tape") {
            call = "individual 0";
            node("st" + std::to_string(number));
            nodes << Scsi(1, "TAPE", tag, number);
        } else if (kind == "sg disk" || kind == "sg disc") {
            call = "individual 1";
            node("sg" + std::to_string(number));
            nodes << Scsi(kind == "sg disk" ? 0 : 5, "SG", tag, number);
        } else if (kind == "sd without sg") {
            call = "individual 1";
            node(std::string("sd") + letter);
            nodes << Scsi(0, "DISK", tag, number) << Ata("DISK", tag, number);
            block(std::string("sd") + letter, "rev");
        } else if (kind == "scsi disk") {
            call = "individual 2";
            node(std::string("sd") + letter);
            nodes << Scsi(0, "DISK", tag, number);
            block(std::string("sd") + letter, "rev");
        } else if (kind == "sata disk") {
            call = "individual 2";
            node(std::string("sd") + letter);
            nodes << Scsi(0, "ATA", tag, number) << Ata("ATA", tag, number);
            block(std::string("sd") + letter, "rev");
        } else if (kind == "ide disk") {
            call = "individual 2";
            node(std::string("hd") + letter);
            nodes << Ata("ATA", tag, number);
            block(std::string("hd") + letter, "firmware_rev");
        } else if (kind == "nvme") {
            call = "individual 2";
            const std::string name = "nvme" + std::to_string(number % 10) + "n" + std::to_string(1 + number / 10);
            node(name);
            nodes << "  nvme_identify serial=\"NVME-" << tag << number << "\" model=\"MODEL " << tag << number
                  << "\" revision=N" << number << " times=any\n";
            block(name, "firmware_rev");
        } else if (kind == "optical" || kind == "capabilities") {
            call = kind == "optical" ? "individual 3" : "optical";
            node("sr" + std::to_string(number));
            nodes << Scsi(5, "DISC", tag, number);
            block("sr" + std::to_string(number), "rev");
        } else {
            throw std::invalid_argument("no such kind of devices: " + kind);
        }
    }
    std::ostringstream text;
    text << "modprobe exit=" << (kind == "sd without sg" ? 1 : 0) << "\n" << nodes.str();
    for (unsigned number = 0; number < otherBlocks; ++number) {
        text << "block loop" << number << "\n";
    }
    text << blocks.str();
    if (kind == "capabilities") {
        text << "cdrom_info \"CD-ROM information, Id: cdrom.c 3.20 2003/12/17\\n\\ndrive name:\\t\\tsr0\\n"
             << "Can write CD-R:\\t\\t1\\n\"\n";
    }
    text << "call " << call << "\n";
    return text.str();
}

}  // namespace Faults
