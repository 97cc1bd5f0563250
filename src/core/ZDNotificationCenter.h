#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QString>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <vector>

// A posted notification: its name, the object that posted it and a
// string-keyed user-info dictionary.
struct ZD_EXPORT ZDNotification
{
    QString name;
    const void *object = nullptr;
    QVariantMap userInfo;
};

// Delivers notifications synchronously, on the posting thread, to the observers
// registered for their name and sender.
//
// Callback contract:
// - postNotification() calls every matching observer in the order in which they
//   were added, before it returns.
// - An observer may add or remove observers (itself included) from inside its
//   handler. A removed observer that has not been called yet for the current post
//   is not called; one added during a post is called from the next post on.
// - Observers are held weakly: an observer that is destroyed without removing
//   itself is not called again, and its entries are dropped.
//
// The centre is meant for the thread that runs the host's event loop; it has no
// lock of its own.
class ZD_EXPORT ZDNotificationCenter
{
public:
    using Handler = std::function<void(const ZDNotification &)>;

    ZDNotificationCenter();
    ~ZDNotificationCenter();
    ZDNotificationCenter(const ZDNotificationCenter &) = delete;
    ZDNotificationCenter &operator=(const ZDNotificationCenter &) = delete;

    // The process-wide centre that the library posts to.
    static ZDNotificationCenter &defaultCenter();

    // Registers `handler` for notifications called `name` (every name when empty)
    // posted by `sender` (any sender when null). Does not take ownership of
    // `observer`, which identifies the registration for removeObserver().
    void addObserver(const ZDWeakTarget *observer, const QString &name, const void *sender,
                     Handler handler);

    // Removes every registration of `observer`.
    void removeObserver(const ZDWeakTarget *observer);
    // Removes the registrations of `observer` that match `name` (all names when
    // empty) and `sender` (all senders when null).
    void removeObserver(const ZDWeakTarget *observer, const QString &name, const void *sender);

    void postNotification(const QString &name, const void *sender,
                          const QVariantMap &userInfo = {});

    int observerCount() const;

private:
    struct Entry;
    std::vector<std::shared_ptr<Entry>> m_entries;
};
