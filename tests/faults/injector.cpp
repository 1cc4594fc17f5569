// A library that is loaded before the program's own: it counts the calls of the groups below, and the one that
// KDR3_FAULT names, "<group>:<n>", fails as the system would let it fail: once, or from then on where the cause lasts.
// A
// "+" behind makes any fault last, a "-" none. Without KDR3_FAULT the counts of each group go to the file KDR3_COUNTS
// at the end.
//
// Calls of the system are taken where they enter it, whoever makes them: a seccomp filter turns each into SIGSYS, whose
// handler lets it fail or makes it again. So what a stream of the C library writes from its buffer fails as well.
// Allocations are functions that take the place of the library's, those that the program's own allocation stands on.
#include <dlfcn.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace {

struct Group {
  const char* name;
  int error;
  bool lasts;  // the cause does, and so does the fault: from the n-th call on
  int calls[6];
};

enum { opening, writing, cutting, reading, closing, renaming, mapping, memory, ngroups };
constexpr int none = -1;
constexpr Group groups[ngroups] = {
    {"open", EACCES, false, {SYS_open, SYS_openat, none, none, none, none}},
    {"write", ENOSPC, true, {SYS_write, SYS_pwrite64, SYS_writev, SYS_pwritev, SYS_fallocate, none}},
    {"cut", EIO, false, {SYS_ftruncate, SYS_truncate, SYS_fsync, SYS_fdatasync, none, none}},
    {"read", EIO, false, {SYS_read, SYS_pread64, SYS_readv, SYS_preadv, none, none}},
    {"close", EDQUOT, false, {SYS_close, none, none, none, none, none}},
    {"rename", EIO, false, {SYS_rename, SYS_renameat, SYS_renameat2, none, none, none}},
    {"map", ENOMEM, true, {SYS_mmap, SYS_mremap, SYS_brk, none, none, none}},
    {"memory", ENOMEM, true, {none, none, none, none, none, none}},
};

std::atomic<long> counts[ngroups];
int faultgroup = none;
long faultcall = 0;
bool lasts = false;  // of the fault
bool ready = false;

// True for a call that is to fail.
bool fails(int group) {
  if (!ready) return false;
  const long n = ++counts[group];
  if (group != faultgroup) return false;
  return lasts ? n >= faultcall : n == faultcall;
}

int groupof(int call) {
  for (int g = 0; g < ngroups; ++g)
    for (const int one : groups[g].calls)
      if (one == call) return g;
  return none;
}

// The handler's own way into the system: calls from within this function of the library pass the filter.
constexpr std::uint32_t waylength = 64;

// A read gets no more at once, as it may, so that a file of some thousand bytes has more than one place to fail.
constexpr greg_t shortread = 512;

void onsyscall(int, siginfo_t* info, void* context) {
  greg_t* registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  const int before = errno;
  const int call = info->si_syscall;
  const int group = groupof(call);
  const bool fault = fails(group);
  long result = -groups[group].error;
  if (call == SYS_read && registers[REG_RDX] > shortread) registers[REG_RDX] = shortread;
  if (fault && call == SYS_brk) {
    result = syscall(SYS_brk, 0);  // the end of the heap stays where it is
  } else if (!fault || call == SYS_close) {
    const long done = syscall(call, registers[REG_RDI], registers[REG_RSI], registers[REG_RDX], registers[REG_R10],
                              registers[REG_R8], registers[REG_R9]);
    if (!fault) result = done == -1 ? -errno : done;
  }
  registers[REG_RAX] = result;
  errno = before;
}

bool filtercalls() {
  struct sigaction action {};
  action.sa_sigaction = onsyscall;
  action.sa_flags = SA_SIGINFO | SA_NODEFER;
  sigemptyset(&action.sa_mask);
  sigaction(SIGSYS, &action, nullptr);

  const auto way = reinterpret_cast<std::uintptr_t>(dlsym(RTLD_DEFAULT, "syscall"));
  const auto low = static_cast<std::uint32_t>(way), high = static_cast<std::uint32_t>(way >> 32);
  sock_filter filter[64];
  std::size_t n = 0;
  const auto load = [&](std::size_t offset) {
    filter[n++] = BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
  };
  // From the handler?
  load(offsetof(seccomp_data, instruction_pointer) + 4);
  filter[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, high, 0, 4);
  load(offsetof(seccomp_data, instruction_pointer));
  filter[n++] = BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, low, 0, 2);
  filter[n++] = BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, low + waylength, 1, 0);
  filter[n++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  load(offsetof(seccomp_data, nr));
  for (const Group& group : groups)
    for (const int call : group.calls)
      if (call != none) {
        filter[n++] = BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call), 0, 1);
        filter[n++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP);
      }
  filter[n++] = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
  const sock_fprog program{static_cast<unsigned short>(n), filter};
  return low + waylength > low && prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// Streams with small buffers write and read often, so that files of some hundred bytes have more places to fail.
constexpr std::size_t buffersize = 256;

std::FILE* smallbuffer(std::FILE* stream) {
  if (stream == nullptr) return nullptr;
  static char buffers[512][buffersize];
  static std::atomic<std::size_t> used = 0;
  const std::size_t mine = used++;
  if (mine < std::size(buffers)) std::setvbuf(stream, buffers[mine], _IOFBF, buffersize);
  return stream;
}

template <class F>
F next(const char* name) {
  return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

__attribute__((constructor)) void begin() {
  if (const char* fault = std::getenv("KDR3_FAULT")) {
    const char* colon = std::strchr(fault, ':');
    const auto length = static_cast<std::size_t>(colon - fault);
    for (int g = 0; g < ngroups; ++g)
      if (std::strlen(groups[g].name) == length && std::strncmp(fault, groups[g].name, length) == 0) faultgroup = g;
    faultcall = std::atol(colon + 1);
    lasts = std::strchr(colon, '+') != nullptr ||
            (faultgroup != none && groups[faultgroup].lasts && std::strchr(colon, '-') == nullptr);
  }
  smallbuffer(stdout);
  if (!filtercalls()) _exit(99);
  ready = true;
}

void tell() {
  const char* path = std::getenv("KDR3_COUNTS");
  if (path == nullptr) return;
  ready = false;
  std::FILE* file = std::fopen(path, "w");
  if (file == nullptr) return;
  for (int g = 0; g < ngroups; ++g) std::fprintf(file, "%s %ld\n", groups[g].name, counts[g].load());
  std::fclose(file);
}

}  // namespace

extern "C" {

// The program ends by this one.
[[noreturn]] void _Exit(int code) {
  tell();
  _exit(code);
}

std::FILE* fopen(const char* path, const char* mode) {
  static const auto real = next<std::FILE* (*)(const char*, const char*)>("fopen");
  return smallbuffer(real(path, mode));
}

std::FILE* fdopen(int handle, const char* mode) {
  static const auto real = next<std::FILE* (*)(int, const char*)>("fdopen");
  return smallbuffer(real(handle, mode));
}

// The name of the same function for files of any size.
std::FILE* fopen64(const char* path, const char* mode) __attribute__((alias("fopen")));

void* __libc_malloc(size_t bytes) {
  static const auto real = next<void* (*)(size_t)>("__libc_malloc");
  if (fails(memory)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(bytes);
}

void* __libc_realloc(void* piece, size_t bytes) {
  static const auto real = next<void* (*)(void*, size_t)>("__libc_realloc");
  if (fails(memory)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(piece, bytes);
}

void* aligned_alloc(size_t alignment, size_t bytes) {
  static const auto real = next<void* (*)(size_t, size_t)>("aligned_alloc");
  if (fails(memory)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(alignment, bytes);
}

void* __libc_calloc(size_t n, size_t bytes) {
  // dlsym itself may ask for memory: until the real one is known, this much is at hand.
  static char early[4096];
  static std::size_t used = 0;
  static bool asking = false;
  static void* (*real)(size_t, size_t) = nullptr;
  if (real == nullptr) {
    if (asking) {
      void* piece = early + used;
      used += (n * bytes + 15) / 16 * 16;
      return piece;
    }
    asking = true;
    real = next<void* (*)(size_t, size_t)>("__libc_calloc");
  }
  if (fails(memory)) {
    errno = ENOMEM;
    return nullptr;
  }
  return real(n, bytes);
}
}
