#include "worker_stand_ins.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

namespace {

// Beyond the numbers that processes have.
pid_t lastPid = 1 << 23;

Descriptor theirEnd;  // of the pair that was made last
Descriptor theirClaims;
std::map<int, pid_t> pidOfFd;  // of what stands for a process

}  // namespace

std::vector<WorkerStandIn>& workerStandIns()
{
    static std::vector<WorkerStandIn> all;
    return all;
}

void forgetWorkerStandIns()
{
    workerStandIns().clear();
    theirEnd.reset();
    theirClaims.reset();
    pidOfFd.clear();
}

extern "C" int __real_memfd_create(const char* name, unsigned flags);
extern "C" int __real_socketpair(int domain, int type, int protocol, int* pair);
extern "C" pid_t __real_waitpid(pid_t pid, int* status, int options);

extern "C" int __wrap_memfd_create(const char* name, unsigned flags)
{
    const int file = __real_memfd_create(name, flags);
    if (strcmp(name, "claims") == 0)
        theirClaims = Descriptor(fcntl(file, F_DUPFD_CLOEXEC, 0));
    return file;
}

extern "C" int __wrap_socketpair(int domain, int type, int protocol, int* pair)
{
    const int result = __real_socketpair(domain, type, protocol, pair);
    if (result == 0)
        theirEnd = Descriptor(fcntl(pair[1], F_DUPFD_CLOEXEC, 0));
    return result;
}

extern "C" int __wrap_posix_spawn(pid_t* pid, const char* /*path*/,
                                  const posix_spawn_file_actions_t* /*actions*/,
                                  const posix_spawnattr_t* /*attributes*/, char* const* /*argv*/,
                                  char* const* /*environment*/)
{
    *pid = ++lastPid;
    workerStandIns().push_back({std::move(theirEnd), std::move(theirClaims), *pid, false});
    return 0;
}

extern "C" pid_t __wrap_waitpid(pid_t pid, int* status, int options)
{
    return pid > 1 << 23 ? pid : __real_waitpid(pid, status, options);
}

// There are no others here.
extern "C" long __wrap_syscall(long number, ...)
{
    va_list arguments;
    va_start(arguments, number);
    const int first = va_arg(arguments, int);
    va_end(arguments);
    if (number == SYS_pidfd_open) {
        const int file = eventfd(0, EFD_CLOEXEC);
        pidOfFd[file] = first;
        return file;
    }
    if (number != SYS_pidfd_send_signal)
        abort();
    for (WorkerStandIn& worker : workerStandIns())
        worker.isKilled = worker.isKilled || worker.pid == pidOfFd[first];
    return 0;
}
