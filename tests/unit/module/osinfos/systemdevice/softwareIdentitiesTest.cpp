#include <gtest/gtest.h>

#include <iterator>
#include <string>
#include <type_traits>
#include <vector>

#include "common/logger/log.h"
#include "common/options/softwareIdentity.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "support/allocations.h"
#include "support/deviceTest.h"
#include "support/expectedLogs.h"
#include "support/fakeHost.h"

namespace {

using namespace Zendra::ZDSystemDevice;
using namespace ZendraTest;
using Zendra::ZDOptions::SoftwareIdentity_;

std::vector<std::string SoftwareIdentity_::*> Fields()
{
    return {&SoftwareIdentity_::Description,
            &SoftwareIdentity_::ElementName,
            &SoftwareIdentity_::ProductName,
            &SoftwareIdentity_::Manufacturer,
            &SoftwareIdentity_::Name,
            &SoftwareIdentity_::VersionString,
            &SoftwareIdentity_::Classifications,
            &SoftwareIdentity_::ClassificationDescriptions,
            &SoftwareIdentity_::IdentityInfoValue,
            &SoftwareIdentity_::SoftwareID,
            &SoftwareIdentity_::SubDeviceID,
            &SoftwareIdentity_::ReleaseDate,
            &SoftwareIdentity_::SoftwareStatus,
            &SoftwareIdentity_::SoftwareRole,
            &SoftwareIdentity_::IdentityInfoType,
            &SoftwareIdentity_::IsPLDMUpdateSupported,
            &SoftwareIdentity_::InstanceID,
            &SoftwareIdentity_::AssociatedAdapterSlot,
            &SoftwareIdentity_::LastUpdateError,
            &SoftwareIdentity_::LastUpdateErrorString,
            &SoftwareIdentity_::SerialNumber,
            &SoftwareIdentity_::ExtraInfo};
}

std::string Text(const SoftwareIdentity_& identity)
{
    std::string text;
    for (const auto field : Fields()) {
        text += "{" + identity.*field + "}";
    }
    return text + std::to_string(identity.Category);
}

/** What a disk's identity must look like, every other field at its default. */
std::string Identity(const std::string& softwareId, const std::string& version, const std::string& serial)
{
    return "{}{}{}{}{" + softwareId + "}{" + version + "}{10}{}{}{" + softwareId + "}{}{}{}{}{}{0}{}{}{}{}{" + serial +
           "}{}3";
}

TEST(SoftwareIdentityRecord, HasItsFieldsInDeclaredOrderWithTheirDefaults)
{
    static_assert(std::is_standard_layout<SoftwareIdentity_>::value);
    static_assert(std::is_same<decltype(SoftwareIdentity_::Category), std::int32_t>::value);
    SoftwareIdentity_ identity;
    EXPECT_EQ("{}{}{}{}{}{}{}{}{}{}{}{}{}{}{}{0}{}{}{}{}{}{}3", Text(identity));
    const auto* const start = reinterpret_cast<const unsigned char*>(&identity);
    std::size_t index = 0;
    for (const auto field : Fields()) {
        EXPECT_EQ(start + index * sizeof(std::string), reinterpret_cast<const unsigned char*>(&(identity.*field)))
            << index;
        ++index;
    }
    EXPECT_EQ(start + index * sizeof(std::string), reinterpret_cast<const unsigned char*>(&identity.Category));
}

TEST(SoftwareIdentityRecord, CopiesEveryField)
{
    SoftwareIdentity_ identity;
    int number = 0;
    for (const auto field : Fields()) {
        identity.*field = "field " + std::to_string(++number);
    }
    identity.Category = -7;
    const SoftwareIdentity_ copy(identity);
    EXPECT_EQ(Text(identity), Text(copy));
    SoftwareIdentity_ assigned;
    assigned = identity;
    EXPECT_EQ(Text(identity), Text(assigned));
}

TEST(SoftwareIdentityRecord, TwentyPropertyNamesAreThoseOfTheFirstTwentyFields)
{
    const Lines expected = {"Description",
                            "ElementName",
                            "ProductName",
                            "Manufacturer",
                            "Name",
                            "VersionString",
                            "Classifications",
                            "ClassificationDescriptions",
                            "IdentityInfoValue",
                            "SoftwareID",
                            "SubDeviceID",
                            "ReleaseDate",
                            "SoftwareStatus",
                            "SoftwareRole",
                            "IdentityInfoType",
                            "IsPLDMUpdateSupported",
                            "InstanceID",
                            "AssociatedAdapterSlot",
                            "LastUpdateError",
                            "LastUpdateErrorString"};
    EXPECT_EQ(expected, Lines(std::begin(Zendra::ZDOptions::SoftwareIdentityPropertyNames),
                              std::end(Zendra::ZDOptions::SoftwareIdentityPropertyNames)));
}

class SoftwareIdentities : public DeviceTest {
protected:
    static Lines Identities(unsigned status = 0)
    {
        DeviceCollector collector;
        std::vector<SoftwareIdentity_> identities;
        EXPECT_EQ(status, collector.GetDiskDriverSoftwareIdentities(identities));
        Lines texts;
        for (const SoftwareIdentity_& identity : identities) {
            texts.push_back(Text(identity));
        }
        return texts;
    }

    /** The identities of a host with one SCSI disk. */
    static Lines IdentitiesOf(const std::string& vendor, const std::string& product)
    {
        FakeHost host;
        host.Add("sda", ScsiDevice(0, vendor, product, " 1 2", "SN", 2, 0, 1, 0));
        host.Install();
        return Identities();
    }

    /** The messages from that of the method on. */
    static Lines Messages()
    {
        Lines messages;
        for (const std::string& line : Trace::Take()) {
            if (line.find("SoftwareIdentities") != std::string::npos) {
                messages.push_back(line);
            }
        }
        return messages;
    }
};

TEST_F(SoftwareIdentities, HostWithoutDisksAnswersNoneWithItsLines)
{
    ListDev({});
    ExpectTraceAtEveryLevel(
        Join({{L4("Enter construct DeviceCollector "), L4("Enter DeviceCollector::GetSoftwareIdentities()"),
               L4("Enter construct SysDevice device type is 2"), L4("Enter SysDevice::GetData()  device_type = 2")},
              Logs::Made("PhysicalDriveProxy"),
              {L4("Entry DataProxy::GetDeviceList()")},
              Logs::Scan(),
              Logs::Scan(),
              Logs::Scan(),
              Logs::Deleted("PhysicalDriveProxy"),
              {L4("DeviceCollector::GetDiskDriverSoftwareIdentities() has none disk devices"),
               L4("Leave DeviceCollector::GetSoftwareIdentities()")}}),
        [] { EXPECT_EQ(Lines(), Identities(6)); });
}

TEST_F(SoftwareIdentities, DiskGivesOneRecordWithItsProductAndRevision)
{
    FakeHost host;
    host.Add("sda", ScsiDevice(0, "SEAGATE", "ST3300657SS", " 8 0", "3SJ0", 2, 0, 1, 0));
    host.Install();
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ((Lines{Identity("ST3300657SS", " 8 0", "3SJ0")}), Identities());
    EXPECT_EQ((Lines{L4("Enter DeviceCollector::GetSoftwareIdentities()"),
                     L4("GetSoftwareIdentities software id = ST3300657SS  version string =  8 0"),
                     L4("Leave DeviceCollector::GetSoftwareIdentities()")}),
              Messages());
    for (const unsigned level : {3U, 1U, 0U}) {
        Zendra::Log::SetMinLogLevel(level);
        Identities();
        EXPECT_EQ(Lines(), Trace::Take());
    }
}

TEST_F(SoftwareIdentities, ProductWithRaidOrM2InAnyLetterCaseIsSkipped)
{
    for (const char* product : {"RAID", "Raid 5", "MegaRAID SAS", "xraidx", "M.2", "SSD m.2 2280", "rAiD"}) {
        EXPECT_EQ(Lines(), IdentitiesOf("VENDOR", product)) << product;
    }
    for (const char* product : {"M2 SSD", "RAI D", "M 2", "M,2", "RA1D"}) {
        EXPECT_EQ((Lines{Identity(product, " 1 2", "SN")}), IdentitiesOf("VENDOR", product)) << product;
    }
}

TEST_F(SoftwareIdentities, VendorIsNotExamined)
{
    EXPECT_EQ((Lines{Identity("DISK", " 1 2", "SN")}), IdentitiesOf("RAIDM.2", "DISK"));
}

TEST_F(SoftwareIdentities, BlankProductGivesThePaddedVendorWithoutItsBlanks)
{
    // NVMe texts are not trimmed on their way here, so that a product of blanks really arrives as blanks.
    FakeHost host;
    FakeDevice nvme;
    nvme.scsi = false;
    nvme.nvme = NvmeData("SN", "", "FW");
    host.Add("nvme0n1", nvme);
    host.Install();
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ((Lines{Identity("NVMe", "FW      ", Padded("SN", 19))}), Identities());
    EXPECT_EQ(
        (Lines{L4("Enter DeviceCollector::GetSoftwareIdentities()"), L4("GetSoftwareIdentities vendor_id_ is empty "),
               L4("GetSoftwareIdentities software id = NVMe  version string = FW      "),
               L4("Leave DeviceCollector::GetSoftwareIdentities()")}),
        Messages());
}

TEST_F(SoftwareIdentities, PaddedProductIsTrimmedOfAllWhiteSpaceAndTheRevisionIsNot)
{
    FakeHost host;
    FakeDevice nvme;
    nvme.scsi = false;
    nvme.nvme = NvmeData("SN", " \t\n\v\f\rMODEL  X\r ", "  FW");
    host.Add("nvme0n1", nvme);
    host.Install();
    EXPECT_EQ((Lines{Identity("MODEL  X", "  FW    ", Padded("SN", 19))}), Identities());
}

TEST_F(SoftwareIdentities, BlankProductAndBlankVendorGiveAnEmptyId)
{
    EXPECT_EQ((Lines{Identity("", " 1 2", "SN")}), IdentitiesOf("", ""));
}

TEST_F(SoftwareIdentities, ProductOfTabsIsNotBlankAndTrimsToNothing)
{
    Zendra::Log::SetMinLogLevel(4);
    EXPECT_EQ((Lines{Identity("", " 1 2", "SN")}), IdentitiesOf("VENDOR", "\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t\t"));
    EXPECT_EQ((Lines{L4("Enter DeviceCollector::GetSoftwareIdentities()"),
                     L4("GetSoftwareIdentities software id =   version string =  1 2"),
                     L4("Leave DeviceCollector::GetSoftwareIdentities()")}),
              Messages());
}

TEST_F(SoftwareIdentities, DisksAtOneAddressAreAllReportedInScanOrder)
{
    FakeHost host;
    host.Add("sdb", ScsiDevice(0, "V", "SECOND", "REV1", "S2", 2, 0, 1, 0));
    host.Add("sda", ScsiDevice(0, "V", "FIRST", "REV1", "S1", 2, 0, 1, 0));
    host.Install();
    EXPECT_EQ((Lines{Identity("SECOND", "REV1", "S2"), Identity("FIRST", "REV1", "S1")}), Identities());
}

TEST_F(SoftwareIdentities, RecordsAreAppended)
{
    FakeHost host;
    host.Add("sda", ScsiDevice(0, "V", "DISK", "REV1", "S1", 2, 0, 1, 0));
    host.Install();
    DeviceCollector collector;
    std::vector<SoftwareIdentity_> identities(1);
    identities[0].Name = "before";
    EXPECT_EQ(0U, collector.GetDiskDriverSoftwareIdentities(identities));
    ASSERT_EQ(2U, identities.size());
    EXPECT_EQ("before", identities[0].Name);
    EXPECT_EQ("DISK", identities[1].Name);
}

TEST_F(SoftwareIdentities, ProxyThatCannotBeMadeAnswersOkWithoutRecords)
{
    Allocations::FailNextOfSize(sizeof(PhysicalDriveProxy));
    EXPECT_EQ(Lines(), Identities(0));
    EXPECT_TRUE(Allocations::StopFailing());
}

}  // namespace
