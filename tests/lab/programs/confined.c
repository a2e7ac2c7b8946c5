// What a process may do here: a line for each thing that a service which lists devices has no need of, and could do.
//
//     labConfined [ARGUMENT ...]
//
// Takes the place of zddevices in a unit, so its arguments mean nothing. "NAME kills" says that trying it ends the
// process. Each is tried by a process of its own.
//
// In C: it is full of system calls that have no other name.

#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static int CanOpen(const char* path, int flags)
{
    const int file = open(path, flags | O_CLOEXEC);
    return file >= 0;
}

static int CanTalk(int family, int type)
{
    return socket(family, type | SOCK_CLOEXEC, 0) >= 0;
}

static int SeesRootsHome(void)
{
    return access("/root/witness", F_OK) == 0;
}

static int SeesTmp(void)
{
    return access("/tmp/witness", F_OK) == 0;
}

static int WritesSystemFiles(void)
{
    return CanOpen("/etc/witness", O_WRONLY);
}

static int WritesRuntimeFiles(void)
{
    return CanOpen("/run/witness", O_WRONLY);
}

static int WritesDevicesDirectory(void)
{
    const char* const path = "/dev/witness";
    return CanOpen(path, O_WRONLY | O_CREAT) && unlink(path) == 0;
}

static int ChangesKernelSettings(void)
{
    return CanOpen("/proc/sys/kernel/panic", O_WRONLY);
}

static int ChangesControlGroups(void)
{
    return CanOpen("/sys/fs/cgroup/cgroup.procs", O_WRONLY);
}

static int TalksUnix(void)
{
    return CanTalk(AF_UNIX, SOCK_STREAM);
}

static int TalksInternet(void)
{
    return CanTalk(AF_INET, SOCK_DGRAM);
}

static int TalksNetlink(void)
{
    return CanTalk(AF_NETLINK, SOCK_RAW);
}

static int MakesNamespaces(void)
{
    return unshare(CLONE_NEWUTS) == 0;
}

static int Mounts(void)
{
    const char* const place = "/var/lib/prometheus";
    return mount("tmpfs", place, "tmpfs", 0, NULL) == 0 && umount(place) == 0;
}

static int MakesFilesThatGiveRights(void)
{
    const char* const path = "/var/lib/prometheus/node-exporter/.rights";
    const int file = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, S_IRWXU);
    const int made = file >= 0 && fchmod(file, S_ISUID | S_IRWXU) == 0;
    (void)unlink(path);
    return made;
}

static int HandsFilesOver(void)
{
    return chown("/var/lib/prometheus/node-exporter", (uid_t)-1, (gid_t)-1) == 0;
}

static int ChangesPriorities(void)
{
    return setpriority(PRIO_PROCESS, 0, PRIO_MAX - 1) == 0;
}

static int ChangesPersonality(void)
{
    return personality(PER_LINUX32) != -1;
}

static int MakesCodeAtRunTime(void)
{
    const size_t page = 4096;
    return mmap(NULL, page, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0) != MAP_FAILED;
}

static int MakesForeignCalls(void)
{
#ifdef __x86_64__
    // getpid(2) of 32-bit programs.
    long result = 20;
    __asm__ volatile("int $0x80" : "+a"(result) : : "memory");
    return result > 0;
#else
    return 0;
#endif
}

static int GainsRights(void)
{
    return prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0) == 0;
}

static int LetsOthersRead(void)
{
    return umask(0) != (S_IRWXG | S_IRWXO);
}

static int IsUrgent(void)
{
    return getpriority(PRIO_PROCESS, 0) < 10;
}

static int ReadsAndWritesBeforeOthers(void)
{
    const int process = 1;
    const int idleClass = 3;
    const int classShift = 13;
    return syscall(SYS_ioprio_get, process, 0) >> classShift != idleClass;
}

struct Thing {
    const char* name;
    int (*can)(void);
};

static const struct Thing things[] = {
    {"sees root's home", SeesRootsHome},
    {"sees /tmp", SeesTmp},
    {"writes /etc", WritesSystemFiles},
    {"writes /run", WritesRuntimeFiles},
    {"writes /dev", WritesDevicesDirectory},
    {"changes kernel settings", ChangesKernelSettings},
    {"changes control groups", ChangesControlGroups},
    {"talks to local sockets", TalksUnix},
    {"talks to the network", TalksInternet},
    {"talks to the kernel by netlink", TalksNetlink},
    {"makes namespaces", MakesNamespaces},
    {"mounts", Mounts},
    {"makes files that give rights", MakesFilesThatGiveRights},
    {"hands files over", HandsFilesOver},
    {"changes priorities", ChangesPriorities},
    {"changes its personality", ChangesPersonality},
    {"makes code at run time", MakesCodeAtRunTime},
    {"makes calls of another architecture", MakesForeignCalls},
    {"gains rights", GainsRights},
    {"lets others read its files", LetsOthersRead},
    {"is urgent", IsUrgent},
    {"reads and writes before others", ReadsAndWritesBeforeOthers},
};

/** Where a link in /proc/self/ns leads: two processes in one namespace have the same. */
static void ShowNamespace(const char* path)
{
    char link[64] = "";
    const ssize_t size = readlink(path, link, sizeof link - 1);
    printf("namespace %s\n", size > 0 ? link : "unknown");
}

int main(void)
{
    ShowNamespace("/proc/self/ns/net");
    ShowNamespace("/proc/self/ns/uts");
    for (size_t i = 0; i < sizeof things / sizeof things[0]; ++i) {
        (void)fflush(stdout);
        const pid_t child = fork();
        if (child == 0) {
            _exit(things[i].can() ? EXIT_SUCCESS : EXIT_FAILURE);
        }
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child) {
            return EXIT_FAILURE;
        }
        if (WIFSIGNALED(status)) {
            printf("%s kills\n", things[i].name);
        } else if (WEXITSTATUS(status) == EXIT_SUCCESS) {
            printf("%s\n", things[i].name);
        }
    }
    return EXIT_SUCCESS;
}
