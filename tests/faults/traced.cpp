#include "tests/faults/traced.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "platform/base/owner.h"

namespace faults {
namespace {

constexpr unsigned seconds_to_live = 30;

// Where a call's arguments say which file it is for.
enum class target { PATH, AT_PATH, DESCRIPTOR };
using enum target;

const struct watched {
  long number;
  const char *name;
  target names;
  unsigned traits;
} watch_list[] = {
    {SYS_open, "open", PATH, OPENS | BY_NAME},
    {SYS_creat, "creat", PATH, OPENS | BY_NAME},
    {SYS_openat, "openat", AT_PATH, OPENS | BY_NAME},
    {SYS_openat2, "openat2", AT_PATH, OPENS | BY_NAME},
    {SYS_stat, "stat", PATH, BY_NAME},
    {SYS_lstat, "lstat", PATH, BY_NAME},
    {SYS_newfstatat, "newfstatat", AT_PATH, BY_NAME},
    {SYS_statx, "statx", AT_PATH, BY_NAME},
    {SYS_access, "access", PATH, BY_NAME},
    {SYS_faccessat, "faccessat", AT_PATH, BY_NAME},
    {SYS_faccessat2, "faccessat2", AT_PATH, BY_NAME},
    {SYS_readlinkat, "readlinkat", AT_PATH, BY_NAME},
    {SYS_mkdir, "mkdir", PATH, BY_NAME | CHANGES},
    {SYS_mkdirat, "mkdirat", AT_PATH, BY_NAME | CHANGES},
    {SYS_unlink, "unlink", PATH, BY_NAME | CHANGES},
    {SYS_unlinkat, "unlinkat", AT_PATH, BY_NAME | CHANGES},
    {SYS_rename, "rename", PATH, BY_NAME | CHANGES},
    {SYS_renameat, "renameat", AT_PATH, BY_NAME | CHANGES},
    {SYS_renameat2, "renameat2", AT_PATH, BY_NAME | CHANGES},
    {SYS_linkat, "linkat", AT_PATH, BY_NAME | CHANGES},
    {SYS_chown, "chown", PATH, BY_NAME | CHANGES},
    {SYS_lchown, "lchown", PATH, BY_NAME | CHANGES},
    {SYS_fchownat, "fchownat", AT_PATH, BY_NAME | CHANGES},
    {SYS_chmod, "chmod", PATH, BY_NAME | CHANGES},
    {SYS_fchmodat, "fchmodat", AT_PATH, BY_NAME | CHANGES},
    {SYS_fchown, "fchown", DESCRIPTOR, CHANGES},
    {SYS_fchmod, "fchmod", DESCRIPTOR, CHANGES},
    {SYS_ftruncate, "ftruncate", DESCRIPTOR, CHANGES},
    {SYS_fstat, "fstat", DESCRIPTOR, READS},
    {SYS_read, "read", DESCRIPTOR, READS},
    {SYS_pread64, "pread", DESCRIPTOR, READS},
    {SYS_getdents64, "getdents64", DESCRIPTOR, READS},
    {SYS_write, "write", DESCRIPTOR, WRITES | CHANGES},
    {SYS_pwrite64, "pwrite", DESCRIPTOR, WRITES | CHANGES},
    {SYS_copy_file_range, "copy_file_range", DESCRIPTOR, CHANGES},
    {SYS_sendfile, "sendfile", DESCRIPTOR, CHANGES},
    {SYS_flock, "flock", DESCRIPTOR, LOCKS},
    {SYS_close, "close", DESCRIPTOR, CLOSES},
};

using registers = user_regs_struct;

[[noreturn]] void fail(const char *what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// In the child: the calls of the list stop it, all others run as ever.
[[noreturn]] void become(const std::function<void()> &work) {
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
  for (const watched &one : watch_list) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(one.number), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRACE));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  alarm(seconds_to_live);
  if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0 || raise(SIGSTOP) != 0 ||
      prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
      prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
    _exit(127);
  }
  work();
  _exit(0);
}

// The child's memory from `address` on, as far as it can be read.
std::string memory_of(pid_t child, uint64_t address, size_t length) {
  const unique_fd memory(
      open(("/proc/" + std::to_string(child) + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  std::string bytes(length, '\0');
  const ssize_t count = pread(memory.get(), bytes.data(), length, static_cast<off_t>(address));
  bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
  return bytes;
}

std::string descriptor_path(pid_t child, uint64_t fd) {
  const std::string link =
      "/proc/" + std::to_string(child) + "/fd/" + std::to_string(static_cast<int>(fd));
  char path[4096];
  const ssize_t length = readlink(link.c_str(), path, sizeof path);
  return {path, length > 0 ? static_cast<size_t>(length) : 0};
}

std::string path_of(pid_t child, const watched &what, const registers &stop) {
  if (what.names == DESCRIPTOR) return descriptor_path(child, stop.rdi);
  const uint64_t text = what.names == PATH ? stop.rdi : stop.rsi;
  std::string named = memory_of(child, text, 4096).c_str();  // ends at its terminator
  if (named.starts_with('/') || what.names == PATH) return named;
  const std::string folder = descriptor_path(child, stop.rdi);
  return named.empty() ? folder : folder + "/" + named;
}

uint64_t open_flags(pid_t child, const watched &what, const registers &stop) {
  if (what.number == SYS_creat) return O_CREAT | O_TRUNC;
  if (what.number != SYS_openat2) return what.names == PATH ? stop.rsi : stop.rdx;
  const std::string how = memory_of(child, stop.rdx, sizeof(open_how));
  return how.size() == sizeof(open_how) ? reinterpret_cast<const open_how *>(how.data())->flags : 0;
}

unsigned traits_of(pid_t child, const watched &what, const registers &stop,
                   const std::string &path) {
  const uint64_t flags = what.traits & OPENS ? open_flags(child, what, stop) : 0;
  const bool makes = what.number == SYS_mkdir || what.number == SYS_mkdirat || flags & O_CREAT;
  struct stat unused {};
  if (makes && lstat(path.c_str(), &unused) != 0) return what.traits | CREATES | CHANGES;
  return flags & O_TRUNC ? what.traits | CHANGES : what.traits;
}

void meet_call(pid_t child, const std::string &folder, const decision &decide) {
  registers stop{};
  if (ptrace(PTRACE_GETREGS, child, nullptr, &stop) != 0) fail("PTRACE_GETREGS");
  const auto number = static_cast<long>(stop.orig_rax);
  const watched &what = *std::find_if(std::begin(watch_list), std::end(watch_list),
                                      [&](const watched &one) { return one.number == number; });
  const std::string path = path_of(child, what, stop);
  if (!path.starts_with(folder)) return;
  const fate chosen = decide({what.name, path, traits_of(child, what, stop, path)});
  switch (chosen.what) {
    case fate::GO:
      return;
    case fate::KILL:
      kill(child, SIGKILL);
      return;
    case fate::SHORTEN:
      stop.rdx = (stop.rdx + 1) / 2;  // the count of write and pwrite
      break;
    case fate::FAIL:
      stop.orig_rax = ~0ULL;  // no call; its result is in rax
      stop.rax = static_cast<unsigned long long>(-chosen.error);
      break;
  }
  if (ptrace(PTRACE_SETREGS, child, nullptr, &stop) != 0) fail("PTRACE_SETREGS");
}

}  // namespace

int run_traced(const std::function<void()> &work, const std::string &folder,
               const decision &decide) {
  const pid_t child = fork();
  if (child < 0) fail("fork");
  if (child == 0) become(work);
  int status = 0;
  int signal = 0;
  if (waitpid(child, &status, 0) != child || !WIFSTOPPED(status) ||
      ptrace(PTRACE_SETOPTIONS, child, nullptr,
             PTRACE_O_TRACESECCOMP | PTRACE_O_TRACEEXEC | PTRACE_O_EXITKILL) != 0) {
    fail("cannot trace a child");
  }
  for (;;) {
    ptrace(PTRACE_CONT, child, nullptr, signal);
    if (waitpid(child, &status, 0) != child) fail("waitpid");
    if (!WIFSTOPPED(status)) return status;
    const int event = status >> 16;
    signal = event == 0 ? WSTOPSIG(status) : 0;
    if (event == PTRACE_EVENT_SECCOMP) meet_call(child, folder, decide);
  }
}

}  // namespace faults
