#include "AlsaFaults.h"

#include <dlfcn.h>

namespace quiltest {
namespace faults {

State& state()
{
    static State* s = new State;   // never destroyed: interposers may run during exit
    return *s;
}

void arm(const std::string& function, long result, int times, int after)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().armed[function] = Armed{result, times, after};
}

void reset()
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().armed.clear();
    state().calls.clear();
    state().hooks.clear();
}

int calls(const std::string& prefix)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    int total = 0;
    for (const auto& entry : state().calls)
        total += entry.first.compare(0, prefix.size(), prefix) == 0 ? entry.second : 0;
    return total;
}

bool takeFailure(const char* function, long* result)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().calls[function];
    auto it = state().armed.find(function);
    if (it == state().armed.end() || it->second.times == 0)
        return false;
    Armed& armed = it->second;
    if (armed.after > 0)
        return --armed.after, false;
    armed.times -= armed.times > 0 ? 1 : 0;
    *result = armed.result;
    return true;
}

void* realSymbol(const char* function)
{
    // The hw_params accessors exist in two symbol versions; the library links
    // against the newer one.
    if (void* versioned = dlvsym(RTLD_NEXT, function, "ALSA_0.9.0rc4"))
        return versioned;
    return dlsym(RTLD_NEXT, function);
}

void track(void* handle, bool open)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    open ? (void)state().handles.insert(handle) : (void)state().handles.erase(handle);
}

int openHandles()
{
    std::lock_guard<std::mutex> lock(state().mutex);
    return static_cast<int>(state().handles.size());
}

} // namespace faults
} // namespace quiltest
