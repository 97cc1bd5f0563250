#include "core/ZDNotificationCenter.h"

#include <algorithm>

struct ZDNotificationCenter::Entry
{
    const ZDWeakTarget *observer;
    std::weak_ptr<const void> alive;
    QString name;
    const void *sender;
    Handler handler;
    bool removed = false;

    bool matches(const ZDNotification &note) const
    {
        return (name.isEmpty() || name == note.name) && (!sender || sender == note.object);
    }
};

ZDNotificationCenter::ZDNotificationCenter() = default;
ZDNotificationCenter::~ZDNotificationCenter() = default;

ZDNotificationCenter &ZDNotificationCenter::defaultCenter()
{
    static ZDNotificationCenter center;
    return center;
}

void ZDNotificationCenter::addObserver(const ZDWeakTarget *observer, const QString &name,
                                       const void *sender, Handler handler)
{
    if (!observer || !handler)
        return;
    m_entries.push_back(std::make_shared<Entry>(
        Entry{observer, observer->weakToken(), name, sender, std::move(handler)}));
}

void ZDNotificationCenter::removeObserver(const ZDWeakTarget *observer)
{
    removeObserver(observer, QString(), nullptr);
}

void ZDNotificationCenter::removeObserver(const ZDWeakTarget *observer, const QString &name,
                                          const void *sender)
{
    std::erase_if(m_entries, [&](const std::shared_ptr<Entry> &entry) {
        const bool hit = entry->observer == observer && (name.isEmpty() || entry->name == name) &&
                         (!sender || entry->sender == sender);
        if (hit)
            entry->removed = true;
        return hit;
    });
}

void ZDNotificationCenter::postNotification(const QString &name, const void *sender,
                                            const QVariantMap &userInfo)
{
    const ZDNotification note{name, sender, userInfo};
    // Drop the entries of observers that died without removing themselves.
    std::erase_if(m_entries, [](const std::shared_ptr<Entry> &entry) {
        const bool dead = entry->alive.expired();
        if (dead)
            entry->removed = true;
        return dead;
    });
    // Deliver from a snapshot: handlers may add and remove entries meanwhile.
    const auto snapshot = m_entries;
    for (const auto &entry : snapshot) {
        if (entry->removed || entry->alive.expired() || !entry->matches(note))
            continue;
        // The snapshot keeps the entry, and so its handler, alive while it runs.
        entry->handler(note);
    }
}

int ZDNotificationCenter::observerCount() const
{
    return int(std::count_if(m_entries.begin(), m_entries.end(),
                             [](const auto &entry) { return !entry->alive.expired(); }));
}
