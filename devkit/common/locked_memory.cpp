#include "locked_memory.h"

#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <string>

namespace {

bool mayLockAll()
{
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> sets = {};
    return syscall(SYS_capget, &header, sets.data()) == 0 &&
           (sets[0].effective & 1U << CAP_IPC_LOCK) != 0;
}

}  // namespace

void lockMemory()
{
    rlimit limit = {};
    getrlimit(RLIMIT_MEMLOCK, &limit);
    limit.rlim_cur = limit.rlim_max;
    const bool isLimited = !mayLockAll() && limit.rlim_max != RLIM_INFINITY;
    setrlimit(RLIMIT_MEMLOCK, &limit);
    if (isLimited || mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) != 0)
        throw LockError("--lock-memory: memory cannot be locked; the limit RLIMIT_MEMLOCK is " +
                        (limit.rlim_max == RLIM_INFINITY ? std::string("off")
                                                         : std::to_string(limit.rlim_max)) +
                        " and has to be off (systemd: LimitMEMLOCK=infinity; shell: ulimit -l "
                        "unlimited)");
}
