/**
 * @file
 * @brief The least that an inventory of disks can cost: the module loading and the device traffic, and nothing else.
 *
 *     benchFloor LIST
 *
 * LIST names one device file per line, /dev/sg* before /dev/sd*, in the order of the scan. Each is opened, asked and
 * closed exactly as the library does it; no answer is looked at. The benchmark compares the system calls of both.
 */
#include <fcntl.h>
#include <scsi/scsi.h>
#include <scsi/scsi_ioctl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int longestLine = 64;

unsigned char inquiry[6] = {0x12, 0, 0, 0, 0x80, 0};
unsigned char serialPage[6] = {0x12, 0x01, 0x80, 0, 0xFF, 0};
unsigned char answer[4096];
unsigned char sense[32];

void Ask(const char* path, unsigned long request, void* argument)
{
    const int descriptor = open(path, O_RDONLY | O_NONBLOCK);
    if (descriptor < 0 || ioctl(descriptor, request, argument) < 0) {
        std::perror(path);
        std::exit(EXIT_FAILURE);
    }
    close(descriptor);
}

void Send(const char* path, unsigned char* command)
{
    int version = 0;
    Ask(path, SG_GET_VERSION_NUM, &version);
    sg_io_hdr_t header{};
    header.interface_id = 'S';
    header.dxfer_direction = SG_DXFER_FROM_DEV;
    header.cmd_len = sizeof(inquiry);
    header.mx_sb_len = sizeof(sense);
    header.dxfer_len = 255;
    header.dxferp = answer;
    header.cmdp = command;
    header.sbp = sense;
    header.timeout = 20000;
    Ask(path, SG_IO, &header);
}

void AskGeneric(const char* path)
{
    sg_scsi_id address;
    Send(path, inquiry);
    Ask(path, SG_GET_SCSI_ID, &address);
    Send(path, serialPage);
}

void AskDisk(const char* path)
{
    int address[2];
    Send(path, inquiry);
    Ask(path, SCSI_IOCTL_GET_IDLUN, address);
    Ask(path, SCSI_IOCTL_GET_BUS_NUMBER, address);
    Send(path, serialPage);
}

void LoadModule()
{
    if (std::system("modprobe sg >/dev/null 2>&1") != 0) {
        std::fputs("benchFloor: modprobe failed\n", stderr);
        std::exit(EXIT_FAILURE);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    std::FILE* list = argc == 2 ? std::fopen(argv[1], "re") : nullptr;
    if (list == nullptr) {
        std::fputs("usage: benchFloor LIST\n", stderr);
        return 2;
    }
    char path[longestLine];
    // Tapes, generic devices, disks, optical drives: the driver is loaded for each class.
    LoadModule();
    LoadModule();
    bool disksBegun = false;
    while (std::fgets(path, sizeof(path), list) != nullptr) {
        path[std::strcspn(path, "\n")] = '\0';
        if (std::strncmp(path, "/dev/sg", 7) == 0) {
            AskGeneric(path);
            continue;
        }
        if (!disksBegun) {
            LoadModule();
            disksBegun = true;
        }
        AskDisk(path);
    }
    if (!disksBegun) {
        LoadModule();
    }
    LoadModule();
    std::fclose(list);
    return EXIT_SUCCESS;
}
