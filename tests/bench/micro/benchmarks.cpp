/**
 * @file
 * @brief Decoders, merge and conversion by themselves: no kernel, no device.
 */
#include <benchmark/benchmark.h>
#include <linux/hdreg.h>
#include <linux/nvme_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "simulatedHost.h"

using namespace Zendra::ZDSystemDevice;
using ZendraBench::SimulatedHost;

namespace {

/** Answers every command at once, with what is in its buffer. */
class ReadyOperator : public DataOperatorInterface {
public:
    int ExecIoCtl(ReqIoCtlParam& request) override
    {
        std::memcpy(request.ioctlData, answer.data(), length);
        return DEV_SUCCESS;
    }
    int ExecPassThruCmd(ReqPassThruParam& request) override
    {
        std::memcpy(request.dataBuffer, answer.data(), length);
        return DEV_SUCCESS;
    }

    std::array<unsigned char, 4096> answer{};
    std::size_t length = 0;
};

/** A proxy with that operator in place of its own. */
template <class Base>
class ReadyProxy : public Base {
public:
    ReadyProxy()
    {
        delete this->dataOper;
        this->dataOper = ready = new ReadyOperator;
    }

    ReadyOperator* ready;
};

/** Proxies load a kernel module while they are made; here they do not. */
class Decoders : public benchmark::Fixture {
public:
    void SetUp(benchmark::State& /*state*/) override { host.emplace(0); }
    void TearDown(benchmark::State& /*state*/) override { host.reset(); }

protected:
    std::optional<SimulatedHost> host;
    BusDevice bus;
};

void SetAtaText(unsigned char* field, const char* text, std::size_t length)
{
    for (std::size_t i = 0; i < length; ++i) {
        field[i ^ 1U] = static_cast<unsigned char>(i < std::strlen(text) ? text[i] : ' ');
    }
}

BusDevice ProbedDisk()
{
    BusDevice disk;
    disk.hostAdapter = 3;
    disk.targetId = 12;
    disk.lun = 7;
    disk.vendorId = "HALVARD";
    disk.productId = "HX 900 DISK";
    disk.deviceType = "Direct Access Device";
    disk.revision = "A1B2\n";
    disk.serialNum = "HX900-0000-SN-004711";
    disk.otherIdentInfo = "Port:3|Target:12|Bus:0|Lun:7";
    return disk;
}

}  // namespace

BENCHMARK_F(Decoders, InquiryData)(benchmark::State& state)
{
    ReadyProxy<SCSIProxy> proxy;
    std::array<unsigned char, 255> data{};
    ZendraBench::FillInquiry(data.data());
    for (auto _ : state) {
        proxy.ProcessInquiryData(data.data(), &bus);
        benchmark::DoNotOptimize(bus);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_F(Decoders, SerialPage)(benchmark::State& state)
{
    ReadyProxy<SCSIProxy> proxy;
    ZendraBench::FillSerialPage(proxy.ready->answer.data());
    proxy.ready->length = 255;
    std::array<unsigned char, 255> data{};
    ReqPassThruParam request;
    request.dataBuffer = data.data();
    for (auto _ : state) {
        proxy.SendRcvPassthroughCMD(request, bus, PT_SERIAL_INQUIRY);
        benchmark::DoNotOptimize(bus);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_F(Decoders, ScsiAddress)(benchmark::State& state)
{
    ReadyProxy<SCSIProxy> proxy;
    proxy.ready->length = sizeof(sg_scsi_id);
    sg_scsi_id address{};
    ReqIoCtlParam request;
    request.ioctlCode = SG_GET_SCSI_ID;
    request.ioctlData = &address;
    for (auto _ : state) {
        proxy.SendRcvIOCTLCMD(request, bus);
        benchmark::DoNotOptimize(bus);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_F(Decoders, AtaIdentify)(benchmark::State& state)
{
    ReadyProxy<PhysicalDriveProxy> proxy;
    constexpr std::size_t headerLength = 4;
    constexpr std::size_t answerLength = 512;
    proxy.ready->length = headerLength + answerLength;
    unsigned char* const identify = proxy.ready->answer.data() + headerLength;
    SetAtaText(identify + 20, "ZC1 8LQ 0042", 20);
    SetAtaText(identify + 46, "AB12CD34", 8);
    SetAtaText(identify + 54, "SEAVIEW ST4000X", 40);
    std::array<unsigned char, headerLength + answerLength> data{};
    ReqIoCtlParam request;
    request.ioctlCode = HDIO_DRIVE_CMD;
    request.ioctlData = data.data();
    for (auto _ : state) {
        proxy.SendRcvIOCTLCMD(request, bus);
        benchmark::DoNotOptimize(bus);
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_F(Decoders, NvmeIdentify)(benchmark::State& state)
{
    ReadyProxy<PhysicalDriveProxy> proxy;
    std::array<unsigned char, 4096> data{};
    std::memset(data.data() + 4, ' ', 68);
    std::memcpy(data.data() + 4, "NV-0001", 7);
    std::memcpy(data.data() + 24, "QUICKSILVER 3", 13);
    std::memcpy(data.data() + 64, "7.2", 3);
    nvme_admin_cmd command{};
    command.addr = reinterpret_cast<std::uintptr_t>(data.data());
    ReqIoCtlParam request;
    request.ioctlCode = static_cast<int>(NVME_IOCTL_ADMIN_CMD);
    request.ioctlData = &command;
    for (auto _ : state) {
        proxy.SendRcvIOCTLCMD(request, bus);
        benchmark::DoNotOptimize(bus);
    }
    state.SetItemsProcessed(state.iterations());
}

/** A probed device becomes a record. */
BENCHMARK_F(Decoders, Conversion)(benchmark::State& state)
{
    ReadyProxy<SCSIProxy> proxy;
    bus = ProbedDisk();
    std::vector<SystemDevice> records;
    records.reserve(1024);
    for (auto _ : state) {
        if (records.size() == records.capacity()) {
            state.PauseTiming();
            records.clear();
            state.ResumeTiming();
        }
        proxy.StoreBusDev(bus, records);
    }
    state.SetItemsProcessed(state.iterations());
}

/** One class of devices: scan, queries with answers that cost nothing, conversion. */
static void OneClass(benchmark::State& state)
{
    const SimulatedHost host(static_cast<std::size_t>(state.range(0)));
    const auto type = static_cast<SysDeviceType>(state.range(1));
    std::size_t found = 0;
    for (auto _ : state) {
        std::vector<SystemDevice> devices;
        DeviceCollector().GetIndividualDevice(devices, type);
        found = devices.size();
    }
    if (found != static_cast<std::size_t>(state.range(0))) {
        state.SkipWithError("not every disk was found");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(OneClass)
    ->ArgNames({"disks", "class"})
    ->ArgsProduct({{100, 500, 2000}, {SYS_DEVICE_SCSI, SYS_DEVICE_PHYSICAL_DRIVE}});

/** All of them, merged by address: what it takes more than its two classes is the merge. */
static void AllDevices(benchmark::State& state)
{
    const SimulatedHost host(static_cast<std::size_t>(state.range(0)));
    std::size_t found = 0;
    for (auto _ : state) {
        std::vector<SystemDevice> devices;
        DeviceCollector().GetAllDevice(devices);
        found = devices.size();
    }
    if (found != static_cast<std::size_t>(state.range(0))) {
        state.SkipWithError("not every disk was found");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(AllDevices)->ArgName("disks")->Arg(1)->Arg(100)->Arg(500)->Arg(2000);

BENCHMARK_MAIN();
