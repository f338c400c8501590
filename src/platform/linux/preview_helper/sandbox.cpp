#include "platform/linux/preview_helper/sandbox.h"

#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <cerrno>
#include <cstdint>
#include <initializer_list>

namespace vondle {
namespace {

// Every accepted format was seen to work within half of it.
[[maybe_unused]] constexpr rlim_t MAX_ADDRESS_SPACE = 1536ull << 20;
constexpr rlim_t MAX_FILE_BYTES = 8u << 20;
constexpr rlim_t MAX_DESCRIPTORS = 64;

bool limit(__rlimit_resource resource, rlim_t value) {
  const rlimit both{value, value};
  return setrlimit(resource, &both) == 0;
}

bool limitResources(int processorSeconds) {
#ifndef VONDLE_SANITIZED
  if (!limit(RLIMIT_AS, MAX_ADDRESS_SPACE)) return false;
#endif
  return limit(RLIMIT_CPU, static_cast<rlim_t>(processorSeconds)) && limit(RLIMIT_FSIZE, MAX_FILE_BYTES) &&
         limit(RLIMIT_NOFILE, MAX_DESCRIPTORS) && limit(RLIMIT_CORE, 0);
}

scmp_arg_cmp masked(unsigned argument, scmp_datum_t mask, scmp_datum_t value) {
  return {argument, SCMP_CMP_MASKED_EQ, mask, value};
}
scmp_arg_cmp equal(unsigned argument, scmp_datum_t value) {
  return {argument, SCMP_CMP_EQ, value, 0};
}

struct Filter {
  scmp_filter_ctx context = seccomp_init(SCMP_ACT_ERRNO(EPERM));
  bool good = context != nullptr;

  Filter() = default;
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;
  ~Filter() {
    if (context) seccomp_release(context);
  }

  template <class... Conditions>
  void add(std::uint32_t action, int call, Conditions... conditions) {
    good = good && seccomp_rule_add(context, action, call, sizeof...(Conditions), conditions...) == 0;
  }
  void allow(std::initializer_list<int> calls) {
    for (const int call : calls) add(SCMP_ACT_ALLOW, call);
  }
};

bool filterSystemCalls() {
  Filter filter;
  if (!filter.good) return false;
  filter.allow({SCMP_SYS(read), SCMP_SYS(readv), SCMP_SYS(pread64), SCMP_SYS(write), SCMP_SYS(writev), SCMP_SYS(lseek),
                SCMP_SYS(fstat), SCMP_SYS(close), SCMP_SYS(dup), SCMP_SYS(fcntl), SCMP_SYS(poll), SCMP_SYS(ppoll)});
  filter.allow({SCMP_SYS(munmap), SCMP_SYS(mremap), SCMP_SYS(madvise), SCMP_SYS(brk), SCMP_SYS(membarrier)});
  filter.allow({SCMP_SYS(futex), SCMP_SYS(set_robust_list), SCMP_SYS(rseq), SCMP_SYS(sched_yield),
                SCMP_SYS(sched_getaffinity), SCMP_SYS(exit), SCMP_SYS(exit_group)});
  filter.allow({SCMP_SYS(rt_sigaction), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn), SCMP_SYS(sigaltstack),
                SCMP_SYS(getpid), SCMP_SYS(gettid), SCMP_SYS(tgkill)});
  filter.allow({SCMP_SYS(clock_gettime), SCMP_SYS(clock_getres), SCMP_SYS(clock_nanosleep), SCMP_SYS(gettimeofday),
                SCMP_SYS(getrandom), SCMP_SYS(sysinfo), SCMP_SYS(uname), SCMP_SYS(getrusage)});

  // Memory, but no new code.
  const auto notExecutable = masked(2, PROT_EXEC, 0);
  filter.add(SCMP_ACT_ALLOW, SCMP_SYS(mmap), notExecutable);
  filter.add(SCMP_ACT_ALLOW, SCMP_SYS(mprotect), notExecutable);

  // Threads, but no processes. The flags of clone3 cannot be looked at; without it the C library uses clone.
  filter.add(SCMP_ACT_ALLOW, SCMP_SYS(clone), masked(0, CLONE_THREAD, CLONE_THREAD));
  filter.add(SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3));
  filter.add(SCMP_ACT_ALLOW, SCMP_SYS(prctl), equal(0, PR_SET_NAME));

  // The C library's fstat, which passes an empty path. The filter can't see that it is empty, so that a file's size
  // could still be learned; nothing can be done to the file.
  filter.add(SCMP_ACT_ALLOW, SCMP_SYS(newfstatat), masked(3, AT_EMPTY_PATH, AT_EMPTY_PATH));
  for (const int call : {SCMP_SYS(open), SCMP_SYS(openat), SCMP_SYS(openat2), SCMP_SYS(stat), SCMP_SYS(lstat),
                         SCMP_SYS(access), SCMP_SYS(faccessat), SCMP_SYS(faccessat2), SCMP_SYS(readlink)})
    filter.add(SCMP_ACT_ERRNO(ENOENT), call);
  return filter.good && seccomp_load(filter.context) == 0;
}

}  // namespace

bool enterSandbox(int processorSeconds) {
  // Whoever asked for the preview is gone: nobody wants it.
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0) return false;
  if (!limitResources(processorSeconds)) return false;
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && filterSystemCalls();
}

}  // namespace vondle
