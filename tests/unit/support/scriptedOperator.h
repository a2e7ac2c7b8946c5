/**
 * @file
 * @brief Stands in for DataOperator: answers exactly the requests that it was told of, in that order.
 *
 * Every field of a request is checked, its buffers included, before the scripted answer is written. Another
 * request, or a scripted one that never comes, fails the test.
 */
#ifndef ZENDRA_TESTS_SUPPORT_SCRIPTEDOPERATOR_H
#define ZENDRA_TESTS_SUPPORT_SCRIPTEDOPERATOR_H

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "module/osinfos/systemdevice/dataOperator_linux.h"
#include "module/osinfos/systemdevice/dataProxy_linux.h"

namespace ZendraTest {

using Bytes = std::vector<unsigned char>;

/** One request and its answer. */
struct Step {
    std::string name;
    bool passThrough = false;
    std::function<int(const Zendra::ZDSystemDevice::ReqIoCtlParam&)> ioCtl;
    std::function<int(const Zendra::ZDSystemDevice::ReqPassThruParam&)> passThru;
};

/** INQUIRY with inquiry_cmd into a zeroed buffer of 4096 bytes; `answer` is written when the status is 4. */
Step Inquiry(const std::string& path, const Bytes& answer, int status = 4);
/** INQUIRY with serialinquiry_cmd into a zeroed buffer of 4096 bytes. */
Step SerialPage(const std::string& path, const Bytes& answer, int status = 4);
/** SG_GET_SCSI_ID with a zeroed argument of 32 bytes. */
Step ScsiId(const std::string& path, int host, int channel, int id, int lun, int status = 4);
/** SCSI_IOCTL_GET_IDLUN with a zeroed argument of two int. */
Step IdLun(const std::string& path, unsigned value, int status = 4);
/** SCSI_IOCTL_GET_BUS_NUMBER with a zeroed argument of one int. */
Step BusNumber(const std::string& path, int host, int status = 4);
/** HDIO_DRIVE_CMD with the IDENTIFY DEVICE header and 512 zero bytes; `answer` is the 512 bytes. */
Step AtaIdentify(const std::string& path, const Bytes& answer, int status = 4);
/** NVME_IOCTL_ADMIN_CMD, Identify Controller, into a zeroed buffer of 4096 bytes. */
Step NvmeIdentify(const std::string& path, const Bytes& answer, int status = 4);

class ScriptedOperator : public Zendra::ZDSystemDevice::DataOperatorInterface {
public:
    explicit ScriptedOperator(std::vector<Step> steps = {}, int* deletions = nullptr);
    ~ScriptedOperator() override;

    int ExecIoCtl(Zendra::ZDSystemDevice::ReqIoCtlParam& request) override;
    int ExecPassThruCmd(Zendra::ZDSystemDevice::ReqPassThruParam& request) override;

private:
    std::deque<Step> pending;
    int* deletionCounter;
};

/** A proxy whose operator a test may replace. */
template <class Proxy>
class Scripted : public Proxy {
public:
    Scripted() = default;
    explicit Scripted(std::vector<Step> steps) { Use(new ScriptedOperator(std::move(steps))); }

    /** Takes ownership; null leaves the proxy without an operator. */
    void Use(Zendra::ZDSystemDevice::DataOperatorInterface* replacement)
    {
        delete this->dataOper;
        this->dataOper = replacement;
    }
    Zendra::ZDSystemDevice::DataOperatorInterface* Operator() const { return this->dataOper; }
    bool SgLoaded() const { return this->sg_ko_loaded; }
    void SetSgLoaded(bool loaded) { this->sg_ko_loaded = loaded; }
};

/** 96 bytes of standard INQUIRY data; texts are padded with blanks. */
Bytes InquiryData(unsigned char type, const std::string& vendor, const std::string& product,
                  const std::string& revision);
/** A Unit Serial Number page that holds `serial`. */
Bytes SerialPageData(const std::string& serial);
/** 512 bytes of IDENTIFY DEVICE data; texts are padded with blanks and byte-swapped. */
Bytes AtaData(const std::string& model, const std::string& revision, const std::string& serial);
/** 4096 bytes of Identify Controller data; texts are padded with blanks. */
Bytes NvmeData(const std::string& serial, const std::string& model, const std::string& revision);

}  // namespace ZendraTest

#endif
