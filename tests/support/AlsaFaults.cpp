#include "AlsaFaults.h"

#include <dlfcn.h>

#include <map>
#include <set>

namespace quiltest {
namespace faults {

namespace {

struct Armed
{
    long result;
    int times;
    int after;
};

struct State
{
    std::mutex mutex;
    std::map<std::string, Armed> armed;
    std::map<std::string, int> calls;
    std::set<void*> pcms;
    std::set<void*> mixers;
};

State& state()
{
    static State* s = new State;   // never destroyed: interposers may run during exit
    return *s;
}

} // namespace

void arm(const std::string& function, long result, int times, int after)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().armed[function] = Armed{result, times, after};
}

void reset()
{
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        state().armed.clear();
        state().calls.clear();
    }
    std::lock_guard<std::mutex> lock(hookMutex());
    hooks().clear();
}

int calls(const std::string& function)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().calls.find(function);
    return it == state().calls.end() ? 0 : it->second;
}

int callsStartingWith(const std::string& prefix)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    int total = 0;
    for (auto it = state().calls.lower_bound(prefix);
         it != state().calls.end() && it->first.compare(0, prefix.size(), prefix) == 0; ++it)
        total += it->second;
    return total;
}

bool takeFailure(const char* function, long* result)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().calls[function];
    auto it = state().armed.find(function);
    if (it == state().armed.end())
        return false;
    Armed& armed = it->second;
    if (armed.after > 0) {
        --armed.after;
        return false;
    }
    if (armed.times == 0)
        return false;
    if (armed.times > 0)
        --armed.times;
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

namespace {
void track(std::set<void*> State::*handles, void* handle, bool open)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    if (open)
        (state().*handles).insert(handle);
    else
        (state().*handles).erase(handle);
}

int liveCount(std::set<void*> State::*handles)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    return static_cast<int>((state().*handles).size());
}
} // namespace

void pcmOpened(void* handle) { track(&State::pcms, handle, true); }
void pcmClosed(void* handle) { track(&State::pcms, handle, false); }
void mixerOpened(void* handle) { track(&State::mixers, handle, true); }
void mixerClosed(void* handle) { track(&State::mixers, handle, false); }
int openPcmHandles() { return liveCount(&State::pcms); }
int openMixerHandles() { return liveCount(&State::mixers); }

std::mutex& hookMutex()
{
    static std::mutex* mutex = new std::mutex;
    return *mutex;
}

std::map<std::string, std::any>& hooks()
{
    static auto* map = new std::map<std::string, std::any>;
    return *map;
}

} // namespace faults
} // namespace quiltest
