#include "ErrorRegistry_p.h"

#include "Synchronization_p.h"

#include <QHash>

#include <atomic>

namespace quil {
namespace {

struct Entry {
    QString text;
    int code = 0;
    bool retired = false;
};

struct Registry {
    QMutex mutex;
    QHash<const void*, Entry> entries;
    // Mirrors entries.size(): objects with no entry (the common case) are
    // cleared and destroyed without taking the lock.
    std::atomic<int> size{0};
};

// Never destroyed: objects with static storage may outlive any static here.
Registry& registry()
{
    static Registry* const instance = new Registry;
    return *instance;
}

template <class Update> void update(const void* object, Update change)
{
    Registry& r = registry();
    MutexLocker locker(&r.mutex);
    change(r.entries[object]);
    r.size.store(r.entries.size(), std::memory_order_release);
}

Entry find(const void* object)
{
    Registry& r = registry();
    if (r.size.load(std::memory_order_acquire) == 0)
        return {};
    MutexLocker locker(&r.mutex);
    return r.entries.value(object);
}

} // namespace

void ErrorRegistry::record(const void* object, const QString& text, int code)
{
    if (text.isEmpty())
        return clear(object);
    update(object, [&](Entry& entry) {
        entry.text = text;
        entry.code = code;
    });
}

void ErrorRegistry::clear(const void* object)
{
    Registry& r = registry();
    if (r.size.load(std::memory_order_acquire) == 0)
        return;
    MutexLocker locker(&r.mutex);
    r.entries.remove(object);
    r.size.store(r.entries.size(), std::memory_order_release);
}

QString ErrorRegistry::text(const void* object) { return find(object).text; }

int ErrorRegistry::code(const void* object) { return find(object).code; }

void ErrorRegistry::retire(const void* object)
{
    update(object, [](Entry& entry) { entry.retired = true; });
}

bool ErrorRegistry::isRetired(const void* object) { return find(object).retired; }

} // namespace quil
