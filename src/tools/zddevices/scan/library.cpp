#include "tools/zddevices/scan/library.h"

#include <linux/hdreg.h>

#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <memory>
#include <type_traits>
#include <utility>

#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"
#include "module/osinfos/systemdevice/deviceCollector.h"
#include "module/osinfos/systemdevice/deviceNames.h"
#include "module/osinfos/systemdevice/identityData.h"

namespace Zendra::ZDDevices {

namespace {

using ZDSystemDevice::BusDevice;
using ZDSystemDevice::CDDVDProxy;
using ZDSystemDevice::PhysicalDriveProxy;
using ZDSystemDevice::SCSIProxy;
using ZDSystemDevice::SysDeviceType;
using ZDSystemDevice::TapeProxy;

/** Asks as the library's own operator does, which it is, and tells what is asked and what came back. */
class WatchingOperator : public ZDSystemDevice::DataOperator {
public:
    explicit WatchingOperator(Watch whoIsTold) : watch(std::move(whoIsTold)) {}

    /** As DataOperator::ExecIoCtl(), through which SCSI commands go, too. */
    int ExecIoCtl(ZDSystemDevice::ReqIoCtlParam& request) override
    {
        if (!watch.before(request.driveName)) {
            return ZDSystemDevice::DEV_OPEN_FAILED;
        }
        errno = 0;
        const int status = DataOperator::ExecIoCtl(request);
        // Still that of open(2) or ioctl(2): behind them the operator closes the file, which succeeds, and logs.
        const int error = status == ZDSystemDevice::DEV_SUCCESS ? 0 : errno;
        if (watch.after) {
            watch.after({static_cast<unsigned int>(request.ioctlCode), request.ioctlData, status, error});
        }
        return status;
    }

private:
    Watch watch;
};

/** A proxy whose requests are watched. */
template <typename Proxy>
class Watched : public Proxy {
public:
    explicit Watched(const Watch& watch)
    {
        auto* const watching = new WatchingOperator(watch);
        delete this->dataOper;
        this->dataOper = watching;
    }

    /** Whether the sg module could be loaded. */
    bool UsesSgDriver() const { return this->sg_ko_loaded; }
};

/** What `ask` gives for a pointer to the proxy of the class. */
template <typename Ask>
auto WithProxy(SysDeviceType type, const Watch& watch, Ask ask)
{
    switch (type) {
    case ZDSystemDevice::SYS_DEVICE_TAPE:
        return ask(std::make_shared<Watched<TapeProxy>>(watch));
    case ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE:
        return ask(std::make_shared<Watched<PhysicalDriveProxy>>(watch));
    case ZDSystemDevice::SYS_DEVICE_CDDVD:
        return ask(std::make_shared<Watched<CDDVDProxy>>(watch));
    case ZDSystemDevice::SYS_DEVICE_SCSI:
        break;
    }
    return ask(std::make_shared<Watched<SCSIProxy>>(watch));
}

bool HasPrefix(const std::string& path, const char* prefix)
{
    return path.rfind(std::string("/dev/") + prefix, 0) == 0;
}

template <typename Proxy>
unsigned int AskFile(Proxy& proxy, BusDevice& bus, std::string& path)
{
    if constexpr (std::is_base_of_v<PhysicalDriveProxy, Proxy>) {
        if (HasPrefix(path, ZDSystemDevice::DevicePrefix::nvmeDisk)) {
            return static_cast<unsigned int>(proxy.GetNVMEInfo(bus, path));
        }
        return proxy.GetDeviceInfo(bus, path, HasPrefix(path, ZDSystemDevice::DevicePrefix::scsiDisk));
    } else {
        return proxy.GetDeviceInfo(bus, path);
    }
}

/** @param answer of HDIO_DRIVE_CMD, through which the library asks for nothing but the identity of an ATA disk. */
void TakeIdentity(const void* answer, FileAnswer& file)
{
    const ZDSystemDevice::AtaIdentity identity = ZDSystemDevice::ReadAtaIdentity(
        {static_cast<const unsigned char*>(answer), sizeof(ZDSystemDevice::AtaIdentify::Buffer)});
    file.model = boost::algorithm::trim_copy(identity.model);
    file.revision = boost::algorithm::trim_copy(identity.firmwareRevision);
}

}  // namespace

DeviceAnswer AskForDevices(std::optional<SysDeviceType> type)
{
    DeviceAnswer answer;
    answer.status = type ? ZDSystemDevice::DeviceCollector().GetIndividualDevice(answer.records, *type)
                         : ZDSystemDevice::DeviceCollector().GetAllDevice(answer.records);
    return answer;
}

OpticalAnswer AskForOptical()
{
    OpticalAnswer answer;
    answer.status = ZDSystemDevice::DeviceCollector().GetOpticalProperties(answer.records);
    return answer;
}

FirmwareAnswer AskForFirmware()
{
    FirmwareAnswer answer;
    answer.status = ZDSystemDevice::DeviceCollector().GetDiskDriverSoftwareIdentities(answer.records);
    return answer;
}

ClassAnswer AskFileByFile(SysDeviceType type, const std::function<bool(const std::string& path)>& take,
                          const std::function<void(FileAnswer answer)>& done)
{
    std::vector<ZDSystemDevice::SystemDevice> records;
    FileAnswer current;
    bool taken = false;
    bool hasAnswered = false;
    // The list asks one file after the other, and appends the record of one before it asks the next.
    const auto finish = [&] {
        if (!records.empty()) {
            current.record = std::move(records.back());
            records.clear();
        }
        if (taken) {
            done(std::exchange(current, {}));
        }
        taken = false;
    };
    const Watch watch{[&](const std::string& path) {
                          if (path != current.path) {
                              finish();
                              current = {path};
                              hasAnswered = false;
                              taken = take(path);
                          }
                          return taken;
                      },
                      [&](const DeviceRequest& request) {
                          const bool isFirst = !std::exchange(hasAnswered, true);
                          if (request.status == ZDSystemDevice::DEV_OPEN_FAILED) {
                              current.openError = request.error;
                          } else if (request.error != 0) {
                              // What is no ATA disk fails at this command anyhow, with an error that each driver
                              // chooses for itself. What came before tells more, unless the command takes a privilege.
                              if (isFirst || request.code != HDIO_DRIVE_CMD || request.error == EACCES) {
                                  current.error = request.error;
                              }
                          } else if (request.code == HDIO_DRIVE_CMD) {
                              TakeIdentity(request.argument, current);
                          }
                      }};
    return WithProxy(type, watch, [&](const auto& proxy) {
        const unsigned int status = proxy->GetDeviceList(records);
        finish();
        return ClassAnswer{status, proxy->UsesSgDriver()};
    });
}

DeviceFileAsker AskerOf(SysDeviceType type)
{
    const auto current = std::make_shared<Watch>();
    const Watch toldNow{[current](const std::string& path) { return current->before(path); },
                        [current](const DeviceRequest& request) {
                            if (current->after) {
                                current->after(request);
                            }
                        }};
    return WithProxy(type, toldNow, [&current](const auto& proxy) -> DeviceFileAsker {
        return [current, proxy](std::string path, const Watch& watch) {
            *current = watch;
            BusDevice bus;
            const unsigned int status = AskFile(*proxy, bus, path);
            return DeviceFileAnswer{status == ZDSystemDevice::DEV_SUCCESS, bus.vendorId, bus.productId};
        };
    });
}

bool LoadSgDriver()
{
    return Watched<SCSIProxy>({[](const std::string& /*deviceFile*/) { return true; }}).UsesSgDriver();
}

}  // namespace Zendra::ZDDevices
