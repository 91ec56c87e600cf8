// In a cross build the test executables run under qemu-user. qemu-user 7.2
// refuses clone() with CLONE_PIDFD, which QProcess uses once a waitid() probe
// says the kernel has pidfds: under emulation (QUIL_TEST_EMULATOR set) the
// probe fails, and QProcess starts its children the classic way.

#include <dlfcn.h>
#include <unistd.h>

#include <sys/syscall.h>

#include <cerrno>
#include <cstdarg>
#include <cstdlib>

// System calls take at most seven word-sized arguments; passing seven on
// keeps their layout whatever the call's own count.
extern "C" long syscall(long number, ...)
{
    static const auto realSyscall = reinterpret_cast<long (*)(long, ...)>(dlsym(RTLD_NEXT, "syscall"));
    static const bool emulated = std::getenv("QUIL_TEST_EMULATOR") && *std::getenv("QUIL_TEST_EMULATOR");
    va_list list;
    va_start(list, number);
    long args[7];
    for (long& arg : args)
        arg = va_arg(list, long);
    va_end(list);
    if (number == __NR_waitid && args[0] == 3 /* P_PIDFD */ && emulated) {
        errno = EINVAL;
        return -1;
    }
    return realSyscall(number, args[0], args[1], args[2], args[3], args[4], args[5], args[6]);
}
