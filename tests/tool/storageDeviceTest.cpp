/**
 * @file
 * @brief What tables and JSON show of a storage device.
 */
#include "tools/zddevices/records/storageDevice.h"

#include <nlohmann/json.hpp>

#include "toolTests.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {
namespace {

std::string Cell(const StorageDevice& device, const char* heading)
{
    return TableOf(std::vector<StorageDevice>{device}, {heading}).rows.at(0).at(0);
}

nlohmann::ordered_json ObjectOf(const StorageDevice& device)
{
    return nlohmann::ordered_json::parse(ToJson([&](JsonWriter& json) { WriteRecord(json, device); }));
}

TEST(StorageDevice, SizesAreWrittenAsLsblkWritesThem)
{
    const std::vector<std::pair<const char*, const char*>> sizes = {
        {"0", "0B"},
        {"512", "512B"},
        {"1023", "1023B"},
        {"1024", "1K"},
        {"1536", "1.5K"},
        {"368640", "360K"},
        {"1073741312", "1024M"},
        {"4700372992", "4.4G"},
        {"512110190592", "476.9G"},
        {"1000204886016", "931.5G"},
        {"4000787030016", "3.6T"},
        {"1125899906842624", "1P"},
        {"1261007895663738880", "1.1E"},
        {"18446744073709551615", "16E"},
        {"", "-"},
        {"x", "-"},
    };
    for (const auto& [bytes, shown] : sizes) {
        StorageDevice device;
        device.size_bytes = bytes;
        EXPECT_EQ(Cell(device, "SIZE"), shown) << bytes;
    }
}

TEST(StorageDevice, ATypeIsAShortWordAndTheLibrarysTextOnDemand)
{
    EXPECT_EQ(TypeWord({}, "Medium Changer Device"), "changer");
    EXPECT_EQ(TypeWord({}, "Something New"), "Something New");
    EXPECT_EQ(TypeWord({}, ""), "");
    StorageDevice device;
    device.type = "changer";
    device.device_type = "Medium Changer Device";
    EXPECT_EQ(Cell(device, "TYPE"), "changer");
    EXPECT_EQ(Cell(device, "TYPE-TEXT"), "Medium Changer Device");
}

TEST(StorageDevice, TheKernelsTypeHasABitMoreThanTheLibrarys)
{
    EXPECT_EQ(TypeWord({}, "Write-Once Device"), "worm");
    EXPECT_EQ(TypeWord(0x04, "Write-Once Device"), "worm");
    EXPECT_EQ(TypeWord(0x14, "Write-Once Device"), "disk");
    EXPECT_EQ(TypeWord(0x11, "Sequential Access Device"), "osd");
    EXPECT_EQ(TypeWord(0x1F, "Optical Card Reader Device"), "unknown");
    EXPECT_EQ(TypeWord(0x10, "Direct Access Device"), "bridge");
    EXPECT_EQ(TypeWord(0x12, "Printer Device"), "automation");
    EXPECT_EQ(TypeWord(0x13, "Processor Device"), "security");
    EXPECT_EQ(TypeWord(0x15, "CD-ROM Device"), "unknown");
    EXPECT_EQ(TypeWord({}, "Direct Access Device"), "disk");
}

TEST(StorageDevice, AnAddressOfZerosIsAnAddress)
{
    StorageDevice device;
    EXPECT_EQ(Cell(device, "ADDRESS"), "-");
    device.port = device.bus = device.target = device.lun = "0";
    EXPECT_EQ(Cell(device, "ADDRESS"), "0:0:0:0");
    device.port = "10";
    device.bus = "1";
    device.target = "3";
    device.lun = "16384";
    EXPECT_EQ(Cell(device, "ADDRESS"), "10:1:3:16384");
}

TEST(StorageDevice, FilesAreAListInJsonAndOneCellInTheTable)
{
    StorageDevice device;
    EXPECT_EQ(Cell(device, "FILES"), "-");
    EXPECT_EQ(ObjectOf(device).at("device_files"), nlohmann::ordered_json::array());
    device.device_files = "/dev/sda\n/dev/sg0\n";
    EXPECT_EQ(Cell(device, "FILES"), "/dev/sda /dev/sg0");
    EXPECT_EQ(ObjectOf(device).at("device_files"), nlohmann::ordered_json({"/dev/sda", "/dev/sg0"}));
}

TEST(StorageDevice, JsonHoldsTheLibrarysTextsThenTheKernels)
{
    StorageDevice device;
    device.size_bytes = "18446744073709551615";
    const nlohmann::ordered_json object = ObjectOf(device);
    EXPECT_EQ(object.dump(),
              R"({"vendor":null,"product":null,"device_type":null,"serial_number":null,"firmware_revision":null,)"
              R"("port":null,"target":null,"bus":null,"lun":null,"device":null,"device_files":[],)"
              R"("size_bytes":18446744073709551615,"transport":null,"wwn":null,"state":null,"driver":null,)"
              R"("slot":null,"model":null,"revision":null})");
}

}  // namespace
}  // namespace Zendra::ZDDevices
