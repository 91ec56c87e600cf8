#pragma once

// Fault injection for ALSA calls made by the library. The test executable
// defines the ALSA functions itself (see the *Interposers.cpp files); each one
// forwards to libasound unless a test armed a failure or installed a hook.

#include <dlfcn.h>

#include <any>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>

namespace quiltest {
namespace faults {

struct Armed { long result; int times, after; };
struct State
{
    std::mutex mutex;
    std::map<std::string, Armed> armed;
    std::map<std::string, int> calls;
    std::map<std::string, std::any> hooks;
    std::set<void*> handles;   // PCM and mixer handles opened and not closed yet
};
inline State& state()
{
    static State* s = new State;   // never destroyed: interposers may run during exit
    return *s;
}

/// Makes `function` return `result` for `times` calls (-1: until reset), after
/// letting `after` calls pass through.
inline void arm(const std::string& function, long result, int times = 1, int after = 0)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().armed[function] = Armed{result, times, after};
}

/// Clears every armed failure and hook, and the call counters.
inline void reset()
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().armed.clear();
    state().calls.clear();
    state().hooks.clear();
}

/// Calls since the last reset of every function whose name starts with `prefix`.
inline int calls(const std::string& prefix)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    int total = 0;
    for (const auto& entry : state().calls)
        total += entry.first.compare(0, prefix.size(), prefix) == 0 ? entry.second : 0;
    return total;
}

inline int openHandles()
{
    std::lock_guard<std::mutex> lock(state().mutex);
    return static_cast<int>(state().handles.size());
}

/// Replaces `function` by `hook` until reset(); the hook may call the real one
/// through real().
template <class Signature>
void setHook(const std::string& function, std::function<Signature> hook)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    state().hooks[function] = std::move(hook);
}

template <class Signature>
Signature* real(const char* function)
{
    // The hw_params accessors exist in two symbol versions; the library links
    // against the newer one.
    void* versioned = dlvsym(RTLD_NEXT, function, "ALSA_0.9.0rc4");
    return reinterpret_cast<Signature*>(versioned ? versioned : dlsym(RTLD_NEXT, function));
}

// Interposer internals: counts the call, and gives the armed failure or the hook.
template <class Signature>
bool takeFailure(const char* function, long* result, std::function<Signature>* hook = nullptr)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    ++state().calls[function];
    auto found = state().hooks.find(function);
    if (hook && found != state().hooks.end())
        *hook = std::any_cast<std::function<Signature>>(found->second);
    auto it = state().armed.find(function);
    if (it == state().armed.end() || it->second.times == 0 || it->second.after-- > 0)
        return false;
    it->second.times -= it->second.times > 0 ? 1 : 0;
    *result = it->second.result;
    return true;
}

} // namespace faults
} // namespace quiltest

// Defines an interposer: armed failure first, then a hook, else the real call.
#define QUIL_INTERPOSE(Ret, name, Params, Args)                                                  \
    extern "C" Ret name Params                                                                   \
    {                                                                                            \
        long armedResult = 0;                                                                    \
        std::function<Ret Params> hook;                                                          \
        if (quiltest::faults::takeFailure(#name, &armedResult, &hook))                           \
            return (Ret)armedResult;                                                             \
        static auto* realFunction = quiltest::faults::real<Ret Params>(#name);                   \
        return hook ? hook Args : realFunction Args;                                             \
    }

// Defines open and close of a handle type (snd_pcm, snd_mixer) that also keep
// the set of live handles that leak checks read.
#define QUIL_INTERPOSE_OPEN_CLOSE(Handle, open, close, Params, Args)                               \
    extern "C" int open Params                                                                   \
    {                                                                                            \
        long armedResult = 0;                                                                    \
        if (quiltest::faults::takeFailure<void()>(#open, &armedResult))                          \
            return static_cast<int>(armedResult);                                                \
        const int result = quiltest::faults::real<int Params>(#open) Args;                       \
        std::lock_guard<std::mutex> lock(quiltest::faults::state().mutex);                       \
        if (result >= 0)                                                                         \
            quiltest::faults::state().handles.insert(*handle);                                   \
        return result;                                                                           \
    }                                                                                            \
    extern "C" int close(Handle* handle)                                                         \
    {                                                                                            \
        std::unique_lock<std::mutex> lock(quiltest::faults::state().mutex);                      \
        quiltest::faults::state().handles.erase(handle);                                         \
        lock.unlock();                                                                           \
        return quiltest::faults::real<int(Handle*)>(#close)(handle);                             \
    }
