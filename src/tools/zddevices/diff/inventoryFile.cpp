#include "tools/zddevices/diff/inventoryFile.h"

#include <fcntl.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <set>

#include "common/descriptor.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

namespace {

/** Memory for the JSON library, which by itself does not notice that there is none left. */
struct Memory {
    static void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }

    static void* Realloc(void* old, std::size_t /*oldSize*/, std::size_t size)
    {
        void* block = std::realloc(old, size);
        if (block == nullptr) {
            throw std::bad_alloc();
        }
        return block;
    }

    static void Free(void* block) { std::free(block); }
};

const std::string fleetSchema = "zendra-fleet/1";

using Document = rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<Memory>, Memory>;
using Json = Document::ValueType;

[[noreturn]] void Fail(const std::string& what)
{
    throw InventoryFileError(what);
}

[[noreturn]] void FailOfKey(const char* key, const char* what)
{
    Fail(std::string("\"") + key + "\" " + what);
}

/** The value of a key; null when it is null or not there. */
const Json* Find(const Json& object, const char* key)
{
    const auto member = object.FindMember(key);
    return member == object.MemberEnd() || member->value.IsNull() ? nullptr : &member->value;
}

std::string TextIn(const Json& value, const char* key)
{
    if (!value.IsString()) {
        FailOfKey(key, "is no text");
    }
    return {value.GetString(), value.GetStringLength()};
}

std::string TextOfKey(const Json& object, const char* key)
{
    const Json* value = Find(object, key);
    return value != nullptr ? TextIn(*value, key) : std::string();
}

std::vector<std::string> TextsIn(const Json& value, const char* key)
{
    if (!value.IsArray()) {
        FailOfKey(key, "is no list");
    }
    std::vector<std::string> texts;
    for (const Json& one : value.GetArray()) {
        texts.push_back(TextIn(one, key));
    }
    return texts;
}

/** The objects of a list that has to be there. */
std::vector<const Json*> ObjectsOfKey(const Json& object, const char* key)
{
    const Json* list = Find(object, key);
    if (list == nullptr || !list->IsArray()) {
        FailOfKey(key, "is missing or no list");
    }
    std::vector<const Json*> objects;
    for (const Json& one : list->GetArray()) {
        if (!one.IsObject()) {
            FailOfKey(key, "holds something that is no object");
        }
        objects.push_back(&one);
    }
    return objects;
}

/** A field's text as the record holds it. */
std::string FieldText(const Json& value, const Field<StorageDevice>& field)
{
    if (field.content == Content::Lines) {
        std::string lines;
        for (const std::string& line : TextsIn(value, field.key)) {
            lines += line + '\n';
        }
        return lines;
    }
    if (field.content == Content::Text) {
        return TextIn(value, field.key);
    }
    if (!value.IsUint64()) {
        FailOfKey(field.key, "is no number from 0 on");
    }
    return std::to_string(value.GetUint64());
}

StorageDevice ReadDevice(const Json& object)
{
    // In every document since the first; without them a file of a few megabytes could ask for gigabytes of devices.
    if (!object.HasMember("vendor") || !object.HasMember("product") || !object.HasMember("serial_number")) {
        Fail("a device has no vendor, product or serial_number");
    }
    StorageDevice device;
    for (const Field<StorageDevice>& field : KindOf<StorageDevice>().fields) {
        const Json* value = field.key != nullptr ? Find(object, field.key) : nullptr;
        if (value != nullptr) {
            device.*field.member = FieldText(*value, field);
        }
    }
    return device;
}

HostInventory ReadHost(const Json& document)
{
    if (!document.IsObject()) {
        Fail("the inventory is no object");
    }
    HostInventory inventory;
    inventory.answered = true;
    inventory.host = TextOfKey(document, "host");
    const Json* complete = Find(document, "complete");
    if (complete != nullptr && !complete->IsBool()) {
        FailOfKey("complete", "is neither true nor false");
    }
    inventory.complete = complete == nullptr || complete->GetBool();
    const Json* filters = Find(document, "filters");
    inventory.selection = filters != nullptr ? TextsIn(*filters, "filters") : std::vector<std::string>();
    inventory.selection.push_back(TextOfKey(document, "type"));
    for (const Json* device : ObjectsOfKey(document, "devices")) {
        inventory.devices.push_back(ReadDevice(*device));
    }
    return inventory;
}

std::vector<HostInventory> ReadHosts(const Json& document)
{
    std::vector<HostInventory> hosts;
    std::set<std::string> names;
    for (const Json* object : ObjectsOfKey(document, "hosts")) {
        const std::string name = TextOfKey(*object, "name");
        if (name.empty() || !names.insert(name).second) {
            Fail("a host has no name, or the name of another");
        }
        const Json* inventory = Find(*object, "inventory");
        HostInventory& host = hosts.emplace_back();
        if (inventory != nullptr) {
            try {
                host = ReadHost(*inventory);
            } catch (const InventoryFileError& error) {
                Fail("host " + name + ": " + error.what());
            }
        }
        host.host = name;
    }
    return hosts;
}

std::string ContentsOf(const std::string& path)
{
    // Enough for 300,000 devices. A file that has no end is not read until memory has one.
    constexpr std::size_t longest = 256UL * 1024 * 1024;
    constexpr std::size_t piece = 1024UL * 1024;
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::string contents;
    ssize_t count = file.IsOpen() ? 1 : -1;
    for (std::size_t length = 0; count > 0; length += static_cast<std::size_t>(count)) {
        contents.resize(length + piece);
        count = TEMP_FAILURE_RETRY(read(file.Get(), &contents[length], piece));
        contents.resize(length + static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
        if (contents.size() > longest) {
            Fail("is larger than 256 MiB");
        }
    }
    if (count < 0) {
        Fail(std::string("cannot be read: ") + std::strerror(errno));
    }
    return contents;
}

}  // namespace

InventoryFile ParseInventory(const std::string& contents)
{
    Document document;
    // Not by recursion: a hostile file may be deeper than the stack.
    document.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag>(contents.data(),
                                                                                           contents.size());
    if (document.HasParseError()) {
        Fail(std::string("no JSON: ") + rapidjson::GetParseError_En(document.GetParseError()) + " (byte " +
             std::to_string(document.GetErrorOffset()) + ")");
    }
    const std::string hostSchema = KindOf<StorageDevice>().schema;
    const std::string schema = document.IsObject() ? TextOfKey(document, "schema") : "";
    if (schema != hostSchema && schema != fleetSchema) {
        Fail("no inventory: its schema is neither " + hostSchema + " nor " + fleetSchema);
    }
    const bool isFleet = schema == fleetSchema;
    return {isFleet, TextOfKey(document, "collected_at"),
            isFleet ? ReadHosts(document) : std::vector<HostInventory>{ReadHost(document)}};
}

InventoryFile ReadInventoryFile(const std::string& path)
{
    try {
        return ParseInventory(ContentsOf(path));
    } catch (const InventoryFileError& error) {
        throw InventoryFileError(path + ": " + error.what());
    }
}

}  // namespace Zendra::ZDDevices
