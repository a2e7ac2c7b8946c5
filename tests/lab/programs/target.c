// A device in a guest whose every answer is ours: the user's part of the kernel's target_core_user.
//
//     labTarget NAME PRODUCT SERIAL MOOD [TYPE]
//
// Serves the backstore user_N/NAME, which exists already. The first word in the file MOOD decides, command by command,
// how it answers: "well"; "attention" and "error" (CHECK CONDITION with sense key UNIT ATTENTION or HARDWARE ERROR,
// whatever was asked); "slow SECONDS" (well, but only then). Vendor is "LABUSER", revision "0007". TYPE is SPC's
// peripheral device type; without it the device is a disk. Ends with its guest.
//
// In C, because the kernel's header is.

#include <dirent.h>
#include <fcntl.h>
#include <linux/target_core_user.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

enum { GOOD = 0x00, CHECK_CONDITION = 0x02 };
enum { BLOCKS = 2048, BLOCK_LENGTH = 512, ANSWER_LENGTH = 4096 };

// A SPC sense key with an additional sense code.
struct Sense {
    unsigned char key;
    unsigned char code;
};
static const struct Sense powerOn = {0x06, 0x29};
static const struct Sense internalFailure = {0x04, 0x44};
static const struct Sense invalidCommand = {0x05, 0x20};
static const struct Sense invalidField = {0x05, 0x24};

struct Device {
    const char* product;
    const char* serial;
    const char* mood;
    unsigned char type;
};

static void Fail(const char* what)
{
    fprintf(stderr, "labTarget: %s\n", what);
    exit(EXIT_FAILURE);
}

static void FirstLine(const char* path, char* line, size_t room)
{
    line[0] = '\0';
    FILE* const file = fopen(path, "re");
    if (file != NULL) {
        if (fgets(line, (int)room, file) == NULL) {
            line[0] = '\0';
        }
        fclose(file);
    }
    line[strcspn(line, "\n")] = '\0';
}

// The uio device that the kernel made for the backstore.
static void FindUio(const char* name, char* found, size_t room)
{
    char wanted[128];
    snprintf(wanted, sizeof(wanted), "/%s/", name);
    found[0] = '\0';
    DIR* const directory = opendir("/sys/class/uio");
    const struct dirent* entry = NULL;
    while (directory != NULL && (entry = readdir(directory)) != NULL) {
        char path[512];
        char text[512];
        snprintf(path, sizeof(path), "/sys/class/uio/%s/name", entry->d_name);
        // "tcm-user/0/NAME/..."
        FirstLine(path, text, sizeof(text));
        if (strstr(text, wanted) != NULL) {
            snprintf(found, room, "%s", entry->d_name);
        }
    }
    if (directory != NULL) {
        closedir(directory);
    }
    if (found[0] == '\0') {
        Fail("there is no such backstore");
    }
}

static unsigned char Inquire(const struct Device* device, const unsigned char* command, unsigned char* answer,
                             struct Sense* sense)
{
    answer[0] = device->type;
    if ((command[1] & 1) == 0) {
        answer[2] = 5;
        answer[3] = 2;
        answer[4] = 31;
        memset(answer + 8, ' ', 24);
        memcpy(answer + 8, "LABUSER", 7);
        memcpy(answer + 16, device->product, strnlen(device->product, 16));
        memcpy(answer + 32, "0007", 4);
        return GOOD;
    }
    if (command[2] == 0x80) {
        const size_t length = strnlen(device->serial, 32);
        answer[1] = 0x80;
        answer[3] = (unsigned char)length;
        memcpy(answer + 4, device->serial, length);
        return GOOD;
    }
    *sense = invalidField;
    return CHECK_CONDITION;
}

// Answers a command; `answer` has room for ANSWER_LENGTH bytes and holds zeros.
static unsigned char Execute(const struct Device* device, const unsigned char* command, unsigned char* answer,
                             struct Sense* sense)
{
    char now[64];
    FirstLine(device->mood, now, sizeof(now));
    if (strcmp(now, "attention") == 0) {
        *sense = powerOn;
        return CHECK_CONDITION;
    }
    if (strcmp(now, "error") == 0) {
        *sense = internalFailure;
        return CHECK_CONDITION;
    }
    if (strncmp(now, "slow ", 5) == 0) {
        sleep((unsigned int)strtoul(now + 5, NULL, 10));
    }
    const unsigned int lastBlock = BLOCKS - 1;
    switch (command[0]) {
    case 0x12:  // INQUIRY
        return Inquire(device, command, answer, sense);
    case 0x25:  // READ CAPACITY(10)
        answer[2] = (unsigned char)(lastBlock >> 8);
        answer[3] = (unsigned char)lastBlock;
        answer[6] = (unsigned char)(BLOCK_LENGTH >> 8);
        return GOOD;
    case 0x00:  // TEST UNIT READY
    case 0x08:  // READ(6): zeros
    case 0x1B:  // START STOP UNIT
    case 0x28:  // READ(10)
    case 0x35:  // SYNCHRONIZE CACHE(10)
        return GOOD;
    default:
        *sense = invalidCommand;
        return CHECK_CONDITION;
    }
}

// Addresses in an entry count from the start of the shared memory.
static void Answer(char* base, struct tcmu_cmd_entry* entry, const struct Device* device)
{
    unsigned char answer[ANSWER_LENGTH] = {0};
    struct Sense sense = {0, 0};
    const unsigned char status = Execute(device, (const unsigned char*)base + entry->req.cdb_off, answer, &sense);
    size_t copied = 0;
    for (unsigned int i = 0; i < entry->req.iov_cnt; ++i) {
        const struct iovec piece = entry->req.iov[i];
        char* const room = base + (size_t)piece.iov_base;
        const size_t left = sizeof(answer) - copied;
        const size_t length = piece.iov_len < left ? piece.iov_len : left;
        memset(room, 0, piece.iov_len);
        memcpy(room, answer + copied, length);
        copied += length;
    }
    // The answer lies where the request was.
    memset(&entry->rsp, 0, sizeof(entry->rsp));
    entry->rsp.scsi_status = status;
    if (status == CHECK_CONDITION) {
        // SPC fixed format, 18 bytes.
        entry->rsp.sense_buffer[0] = 0x70;
        entry->rsp.sense_buffer[2] = (char)sense.key;
        entry->rsp.sense_buffer[7] = 10;
        entry->rsp.sense_buffer[12] = (char)sense.code;
    }
}

static void Serve(const char* uio, const struct Device* device)
{
    char path[512];
    char length[64];
    snprintf(path, sizeof(path), "/dev/%s", uio);
    const int descriptor = open(path, O_RDWR | O_CLOEXEC);
    snprintf(path, sizeof(path), "/sys/class/uio/%s/maps/map0/size", uio);
    FirstLine(path, length, sizeof(length));
    char* const base = mmap(NULL, strtoul(length, NULL, 0), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (descriptor < 0 || base == MAP_FAILED) {
        Fail("the uio device cannot be opened");
    }
    volatile struct tcmu_mailbox* const box = (volatile struct tcmu_mailbox*)base;
    for (;;) {
        while (box->cmd_tail != box->cmd_head) {
            __sync_synchronize();
            struct tcmu_cmd_entry* const entry = (struct tcmu_cmd_entry*)(base + box->cmdr_off + box->cmd_tail);
            const unsigned int entryLength = tcmu_hdr_get_len(entry->hdr.len_op);
            if (tcmu_hdr_get_op(entry->hdr.len_op) == TCMU_OP_CMD) {
                Answer(base, entry, device);
            }
            __sync_synchronize();
            box->cmd_tail = (box->cmd_tail + entryLength) % box->cmdr_size;
            const unsigned int done = 1;
            if (write(descriptor, &done, sizeof(done)) != sizeof(done)) {
                Fail("the kernel does not take the answer");
            }
        }
        unsigned int events = 0;
        if (read(descriptor, &events, sizeof(events)) != sizeof(events)) {
            Fail("the kernel sends no commands any more");
        }
    }
}

int main(int argc, char** argv)
{
    if (argc != 5 && argc != 6) {
        fputs("usage: labTarget NAME PRODUCT SERIAL MOOD [TYPE]\n", stderr);
        return 2;
    }
    char uio[300];
    FindUio(argv[1], uio, sizeof(uio));
    const unsigned char type = argc == 6 ? (unsigned char)strtoul(argv[5], NULL, 10) : 0;
    const struct Device device = {argv[2], argv[3], argv[4], type};
    Serve(uio, &device);
}
