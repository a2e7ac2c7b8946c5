#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

// Other components were built against these tables: the order of the slots is part of the interface.

namespace {

class VirtualTables : public ::testing::Test {
protected:
    void SetUp() override
    {
        library = dlopen("libdeviceCollector.so.1", RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(nullptr, library) << dlerror();
    }
    void TearDown() override
    {
        if (library != nullptr) {
            dlclose(library);
        }
    }

    /** The operations in the table of a class, by their names within the class. */
    std::vector<void*> Slots(const std::string& className, std::size_t count)
    {
        void** const table = static_cast<void**>(Find("_ZTV" + Scoped(className) + "E"));
        return table != nullptr ? std::vector<void*>(table + 2, table + 2 + count) : std::vector<void*>();
    }

    void* Operation(const std::string& className, const std::string& mangledMember)
    {
        return Find("_Z" + Scoped(className) + mangledMember);
    }

    void ExpectSlot(const std::vector<void*>& slots, std::size_t slot, const std::string& className,
                    const std::string& mangledMember)
    {
        ASSERT_LT(slot, slots.size());
        EXPECT_EQ(Operation(className, mangledMember), slots[slot]) << className << " slot " << slot;
    }

private:
    static std::string Scoped(const std::string& className)
    {
        return "N6Zendra14ZDSystemDevice" + std::to_string(className.size()) + className;
    }
    void* Find(const std::string& symbol)
    {
        void* const address = dlsym(library, symbol.c_str());
        EXPECT_NE(nullptr, address) << symbol;
        return address;
    }

    void* library = nullptr;
};

const char* const execIoCtl = "9ExecIoCtlERNS0_13ReqIoCtlParamE";
const char* const execPassThruCmd = "15ExecPassThruCmdERNS0_16ReqPassThruParamE";
const char* const getDeviceList = "13GetDeviceListERSt6vectorINS0_12SystemDeviceESaIS3_EE";
const char* const getOptList = "15GetCDDVDOptListERSt6vectorINS0_15OpticalPropertyESaIS3_EE";

TEST_F(VirtualTables, OperatorHasItsTwoOperationsAndThenItsDestructor)
{
    const std::vector<void*> slots = Slots("DataOperator", 4);
    ExpectSlot(slots, 0, "DataOperator", execIoCtl);
    ExpectSlot(slots, 1, "DataOperator", execPassThruCmd);
    ExpectSlot(slots, 2, "DataOperator", "D1Ev");
    ExpectSlot(slots, 3, "DataOperator", "D0Ev");
}

TEST_F(VirtualTables, ProxiesHaveTheirDestructorAndThenTheirTwoOperations)
{
    for (const char* name : {"DataProxy", "CDDVDProxy", "TapeProxy", "PhysicalDriveProxy", "SCSIProxy"}) {
        const std::vector<void*> slots = Slots(name, 4);
        ExpectSlot(slots, 0, name, "D1Ev");
        ExpectSlot(slots, 1, name, "D0Ev");
        ExpectSlot(slots, 2, name, getDeviceList);
        ExpectSlot(slots, 3, name, getOptList);
    }
}

}  // namespace
