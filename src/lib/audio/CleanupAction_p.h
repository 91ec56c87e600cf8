#pragma once

#include <functional>
#include <utility>

namespace quil {

// Runs its action when it goes out of scope, unless dismissed first: the
// release path of a multi-step open() that must leave nothing behind on any
// failure, including an exception passing through.
class CleanupAction {
public:
    explicit CleanupAction(std::function<void()> action)
        : m_action(std::move(action))
    {
    }
    ~CleanupAction()
    {
        if (!m_dismissed)
            m_action();
    }
    CleanupAction(const CleanupAction&) = delete;
    CleanupAction& operator=(const CleanupAction&) = delete;

    void dismiss() { m_dismissed = true; }

private:
    std::function<void()> m_action;
    bool m_dismissed = false;
};

} // namespace quil
