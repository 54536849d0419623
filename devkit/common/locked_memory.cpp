#include "locked_memory.h"

#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <system_error>

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
    if (!mayLockAll() && limit.rlim_max != RLIM_INFINITY)
        throw LockError("--lock-memory: only " + std::to_string(limit.rlim_max) +
                        " bytes may be locked; the limit RLIMIT_MEMLOCK has to be unlimited "
                        "(systemd: LimitMEMLOCK=infinity; shell: ulimit -l unlimited)");
    setrlimit(RLIMIT_MEMLOCK, &limit);
    if (mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) != 0)
        throw LockError("--lock-memory: " + std::generic_category().message(errno));
}
