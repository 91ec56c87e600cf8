// In a cross build the test executables run under qemu-user, and so must the
// target programs they start (the quil-audio tool): without binfmt
// registration the kernel cannot run those itself. When QUIL_TEST_EMULATOR
// names the emulator command (words separated by spaces), an exec of an ELF
// file of this build's machine becomes an exec of the emulator with that file.
// Host programs (pulseaudio, pactl, shell scripts) start as they are.
// qemu-user 7.2 also refuses clone() with CLONE_PIDFD, which QProcess uses
// once a waitid() probe says the kernel has pidfds: under emulation the probe
// fails, and QProcess starts its children the classic way.

#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <unistd.h>

#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

extern char** environ;

namespace {

#if defined(__aarch64__)
constexpr unsigned TargetMachine = EM_AARCH64;
#elif defined(__arm__)
constexpr unsigned TargetMachine = EM_ARM;
#elif defined(__x86_64__)
constexpr unsigned TargetMachine = EM_X86_64;
#else
constexpr unsigned TargetMachine = EM_NONE;
#endif

using ExecveFunction = int (*)(const char*, char* const[], char* const[]);
using SyscallFunction = long (*)(long, ...);

bool emulated()
{
    const char* emulator = std::getenv("QUIL_TEST_EMULATOR");
    return emulator && *emulator;
}

bool isTargetElf(const char* path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    unsigned char header[EI_NIDENT + 4] = {};
    const bool complete = ::read(fd, header, sizeof header) == static_cast<ssize_t>(sizeof header);
    ::close(fd);
    // e_machine follows e_type after the identification bytes, little-endian here.
    return complete && std::memcmp(header, ELFMAG, SELFMAG) == 0
        && (header[EI_NIDENT + 2] | header[EI_NIDENT + 3] << 8) == TargetMachine;
}

} // namespace

// Runs between fork and exec: no allocation, fixed buffers only.
extern "C" int execve(const char* path, char* const argv[], char* const envp[])
{
    static const auto realExecve = reinterpret_cast<ExecveFunction>(dlsym(RTLD_NEXT, "execve"));
    if (!emulated() || !isTargetElf(path))
        return realExecve(path, argv, envp);

    static char words[4096];
    static char* args[1024];
    std::strncpy(words, std::getenv("QUIL_TEST_EMULATOR"), sizeof words - 1);
    size_t count = 0;
    for (char* word = std::strtok(words, " "); word && count < 16; word = std::strtok(nullptr, " "))
        args[count++] = word;
    args[count++] = const_cast<char*>(path);
    for (size_t i = 1; argv[0] && argv[i] && count < sizeof args / sizeof *args - 1; ++i)
        args[count++] = argv[i];
    args[count] = nullptr;
    return realExecve(args[0], args, envp);
}

extern "C" int execv(const char* path, char* const argv[])
{
    return execve(path, argv, environ);
}

// System calls take at most seven word-sized arguments; passing seven on
// keeps their layout whatever the call's own count.
extern "C" long syscall(long number, ...)
{
    static const auto realSyscall = reinterpret_cast<SyscallFunction>(dlsym(RTLD_NEXT, "syscall"));
    va_list list;
    va_start(list, number);
    long args[7];
    for (long& arg : args)
        arg = va_arg(list, long);
    va_end(list);
#if defined(P_PIDFD) || defined(__NR_waitid)
    constexpr long PidfdIdType = 3; // P_PIDFD
    if (number == __NR_waitid && args[0] == PidfdIdType && emulated()) {
        errno = EINVAL;
        return -1;
    }
#endif
    return realSyscall(number, args[0], args[1], args[2], args[3], args[4], args[5], args[6]);
}
