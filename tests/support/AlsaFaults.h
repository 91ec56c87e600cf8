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

struct Armed
{
    long result;
    int times, after;
};
struct State
{
    std::mutex mutex;
    std::map<std::string, Armed> armed;
    std::map<std::string, int> calls;
    std::map<std::string, std::any> hooks;
    std::set<void*> handles;
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

// Interposer internals.
inline bool takeFailure(const char* function, long* result)
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

inline void* realSymbol(const char* function)
{
    // The hw_params accessors exist in two symbol versions; the library links
    // against the newer one.
    if (void* versioned = dlvsym(RTLD_NEXT, function, "ALSA_0.9.0rc4"))
        return versioned;
    return dlsym(RTLD_NEXT, function);
}

inline void track(void* handle, bool open)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    open ? (void)state().handles.insert(handle) : (void)state().handles.erase(handle);
}

/// PCM and mixer handles opened through the library and not closed yet.
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
std::function<Signature> hookFor(const char* function)
{
    std::lock_guard<std::mutex> lock(state().mutex);
    auto it = state().hooks.find(function);
    return it == state().hooks.end() ? std::function<Signature>() : std::any_cast<std::function<Signature>>(it->second);
}

template <class Signature>
Signature* real(const char* function)
{
    return reinterpret_cast<Signature*>(realSymbol(function));
}

} // namespace faults

} // namespace quiltest

// Defines an interposer: armed failure first, then a hook, else the real call.
#define QUIL_INTERPOSE(Ret, name, Params, Args)                                                  \
    extern "C" Ret name Params                                                                   \
    {                                                                                            \
        long armedResult = 0;                                                                    \
        if (quiltest::faults::takeFailure(#name, &armedResult))                                  \
            return (Ret)armedResult;                                                             \
        if (auto hook = quiltest::faults::hookFor<Ret Params>(#name))                            \
            return hook Args;                                                                    \
        static auto* realFunction = quiltest::faults::real<Ret Params>(#name);                   \
        return realFunction Args;                                                                \
    }

// Defines open and close of a handle type (snd_pcm, snd_mixer) that also keep
// the count of live handles that leak checks read. An injected close failure
// still releases the handle.
#define QUIL_INTERPOSE_OPEN_CLOSE(Handle, open, close, Params, Args)                               \
    extern "C" int open Params                                                                   \
    {                                                                                            \
        long armedResult = 0;                                                                    \
        if (quiltest::faults::takeFailure(#open, &armedResult))                                  \
            return static_cast<int>(armedResult);                                                \
        static auto* realOpen = quiltest::faults::real<int Params>(#open);                       \
        const int result = realOpen Args;                                                        \
        if (result >= 0)                                                                         \
            quiltest::faults::track(*handle, true);                                              \
        return result;                                                                           \
    }                                                                                            \
    extern "C" int close(Handle* handle)                                                         \
    {                                                                                            \
        long armedResult = 0;                                                                    \
        const bool fail = quiltest::faults::takeFailure(#close, &armedResult);                   \
        static auto* realClose = quiltest::faults::real<int(Handle*)>(#close);                   \
        quiltest::faults::track(handle, false);                                                  \
        const int result = realClose(handle);                                                    \
        return fail ? static_cast<int>(armedResult) : result;                                    \
    }
