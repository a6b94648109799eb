// The filter names what is refused: libraries may make any harmless call, another one in each
// version.

#include "cli/Confinement.h"

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <vector>

namespace {

// Other processes, the kernel, mounts, namespaces, clocks.
constexpr long NobodyNeeds[] = {
    SYS_ptrace,
    SYS_process_vm_readv,
    SYS_process_vm_writev,
    SYS_pidfd_getfd,
    SYS_kcmp,
    SYS_bpf,
    SYS_perf_event_open,
    SYS_userfaultfd,
    SYS_io_uring_setup,
    SYS_kexec_load,
    SYS_kexec_file_load,
    SYS_init_module,
    SYS_finit_module,
    SYS_delete_module,
    SYS_mount,
    SYS_umount2,
    SYS_pivot_root,
    SYS_chroot,
    SYS_move_mount,
    SYS_mount_setattr,
    SYS_fsconfig,
    SYS_open_tree,
    SYS_fsopen,
    SYS_fsmount,
    SYS_unshare,
    SYS_setns,
    SYS_swapon,
    SYS_swapoff,
    SYS_reboot,
    SYS_settimeofday,
    SYS_clock_settime,
    SYS_adjtimex,
    SYS_clock_adjtime,
    SYS_acct,
    SYS_sethostname,
    SYS_setdomainname,
    SYS_mknodat,
    SYS_open_by_handle_at,
#if defined(__x86_64__)
    SYS_iopl,
    SYS_ioperm,
    SYS_mknod,
#endif
};

#if defined(__x86_64__)
constexpr long Machine = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr long Machine = AUDIT_ARCH_AARCH64;
#endif

// To start libproxy's helper, which gives up its rights.
constexpr long TheHelperNeeds[] = {
    SYS_execve,    SYS_execveat,  SYS_setuid,    SYS_setgid,   SYS_setreuid, SYS_setregid,
    SYS_setresuid, SYS_setresgid, SYS_setgroups, SYS_setfsuid, SYS_setfsgid, SYS_capset,
};

using Filter = std::vector<sock_filter>;

void refuse(Filter& filter, unsigned int error = EPERM) {
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
}

void load(Filter& filter, std::size_t offset) {
  filter.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<__u32>(offset)));
}

/// Skips the next instruction if the loaded number compares otherwise.
void unless(Filter& filter, unsigned short comparison, long number, bool skipsIfTrue) {
  filter.push_back(BPF_JUMP(static_cast<unsigned short>(BPF_JMP | BPF_K | comparison),
                            static_cast<__u32>(number), static_cast<__u8>(skipsIfTrue),
                            static_cast<__u8>(!skipsIfTrue)));
}

template <std::size_t Count>
void refuseAll(Filter& filter, const long (&calls)[Count]) {
  for (const long call : calls) {
    unless(filter, BPF_JEQ, call, false);
    refuse(filter);
  }
}

/// Threads and programs are made without new namespaces.
void refuseNamespaces(Filter& filter) {
  constexpr long Namespaces = CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET |
                              CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWCGROUP;
  // Its flags are in memory, where no filter reads. The C library then takes clone(2).
  unless(filter, BPF_JEQ, SYS_clone3, false);
  refuse(filter, ENOSYS);
  constexpr __u8 OtherCalls = 3;
  filter.push_back(BPF_JUMP(BPF_JMP | BPF_K | BPF_JEQ, SYS_clone, 0, OtherCalls));
  load(filter, offsetof(seccomp_data, args));
  unless(filter, BPF_JSET, Namespaces, false);
  refuse(filter);
}

Filter makeFilter(Confinement::Programs programs) {
  Filter filter;
  // The same numbers are other calls in 32-bit code.
  load(filter, offsetof(seccomp_data, arch));
  unless(filter, BPF_JEQ, Machine, true);
  refuse(filter);
  load(filter, offsetof(seccomp_data, nr));
  constexpr long OtherNumbers = 0x40000000;  // of the x32 interface
  unless(filter, BPF_JGE, OtherNumbers, false);
  refuse(filter);
  refuseAll(filter, NobodyNeeds);
  if (programs == Confinement::Programs::None) {
    refuseAll(filter, TheHelperNeeds);
  }
  refuseNamespaces(filter);
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  return filter;
}

}  // namespace

void Confinement::begin(Programs programs) {
  Filter filter = makeFilter(programs);
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  // Without this flag, some kernels slow the process down. See seccomp(2).
  if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) {
    syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_SPEC_ALLOW, &program);
  }
}
