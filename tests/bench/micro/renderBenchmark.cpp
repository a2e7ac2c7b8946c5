/**
 * @file
 * @brief What the program makes of the library's records: its JSON document.
 */
#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/deviceCollector.h"
#include "simulatedHost.h"
#include "tools/zddevices/output/json.h"
#include "tools/zddevices/records/report.h"

using namespace Zendra::ZDDevices;

/** The document about so many disks. */
static void RenderDevices(benchmark::State& state)
{
    std::vector<Zendra::ZDSystemDevice::SystemDevice> devices;
    {
        const ZendraBench::SimulatedHost host(static_cast<std::size_t>(state.range(0)));
        Zendra::ZDSystemDevice::DeviceCollector().GetAllDevice(devices);
    }
    if (devices.size() != static_cast<std::size_t>(state.range(0))) {
        state.SkipWithError("not every disk was found");
        return;
    }
    const Report<Zendra::ZDSystemDevice::SystemDevice> report =
        DescribeDevices(Zendra::ZDSystemDevice::DEVICE_RESULT_OK, devices, std::nullopt);
    const ReportOrigin origin{"host", "2024-02-29T12:00:00Z"};
    std::size_t bytes = 0;
    for (auto _ : state) {
        const std::string document = RenderJson(report, origin);
        bytes += document.size();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK(RenderDevices)->ArgName("disks")->Arg(1)->Arg(500);
