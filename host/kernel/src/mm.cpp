// Memory information and user copies. The emulated machine's RAM is the host's; the direct
// map covers the whole host address space above PAGE_OFFSET.
#include "internal.hpp"
#include <linux/mm.h>
#include <asm/uaccess.h>

#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
void *high_memory = reinterpret_cast<void *>(0x800000000000UL);
unsigned long num_physpages = 0;
}

namespace {

// The host's sysinfo record (the system call's layout; the C library's header cannot be used
// next to the kernel's own struct sysinfo).
struct HostSysinfo {
    long uptime;
    unsigned long loads[3];
    unsigned long totalram, freeram, sharedram, bufferram, totalswap, freeswap;
    unsigned short procs, pad;
    unsigned long totalhigh, freehigh;
    unsigned int mem_unit;
    char _f[20 - 2 * sizeof(long) - sizeof(int)];
};

int host_sysinfo(HostSysinfo *info) {
    return static_cast<int>(::syscall(SYS_sysinfo, info));
}

unsigned long to_pages(unsigned long amount, unsigned int unit) {
    return static_cast<unsigned long>((static_cast<unsigned __int128>(amount) * unit) / PAGE_SIZE);
}

// Addresses in the first page or above the user/kernel split are not valid user memory.
bool bad_user_range(const void *p, unsigned long n) {
    auto a = reinterpret_cast<unsigned long>(p);
    return n && (a < PAGE_SIZE || a + n < a || a + n > 0x800000000000UL);
}
}  // namespace

namespace marlix::kernel::detail {
void mm_boot() {
    HostSysinfo info{};
    if (host_sysinfo(&info) == 0) num_physpages = to_pages(info.totalram, info.mem_unit);
}
}  // namespace marlix::kernel::detail

extern "C" {

void si_meminfo(struct sysinfo *val) {
    HostSysinfo info{};
    std::memset(val, 0, sizeof *val);
    if (host_sysinfo(&info) != 0) return;
    val->uptime = info.uptime;
    for (int i = 0; i < 3; ++i) val->loads[i] = info.loads[i];
    val->totalram = to_pages(info.totalram, info.mem_unit);
    val->freeram = to_pages(info.freeram, info.mem_unit);
    val->sharedram = to_pages(info.sharedram, info.mem_unit);
    val->bufferram = to_pages(info.bufferram, info.mem_unit);
    val->totalswap = to_pages(info.totalswap, info.mem_unit);
    val->freeswap = to_pages(info.freeswap, info.mem_unit);
    val->procs = info.procs;
    val->totalhigh = 0;  // x86_64 has no high memory
    val->freehigh = 0;
    val->mem_unit = PAGE_SIZE;
}

unsigned long copy_from_user(void *to, const void __user *from, unsigned long n) {
    if (bad_user_range(from, n)) {
        std::memset(to, 0, n);  // the kernel zeroes what it could not copy
        return n;
    }
    std::memcpy(to, from, n);
    return 0;
}

unsigned long copy_to_user(void __user *to, const void *from, unsigned long n) {
    if (bad_user_range(to, n)) return n;
    std::memcpy(to, from, n);
    return 0;
}

}  // extern "C"
