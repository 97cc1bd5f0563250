#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>

// Where an authenticator keeps an account's secrets (tokens) between runs: one
// opaque value per key, written and replaced as a whole, so a reader never sees
// half of an update.
//
// Calls are synchronous and made on the main thread. save() returns once the
// value is stored, so a caller that saves before it uses a new secret never
// loses it to a crash in between.
class ZD_EXPORT ZDCredentialStore
{
public:
    virtual ~ZDCredentialStore();

    // The value stored under `key`, or nothing.
    virtual std::optional<QByteArray> load(const QString &key) = 0;
    // Replaces the value under `key`. Returns false when it could not be stored
    // at all (it is then not kept anywhere).
    virtual bool save(const QString &key, const QByteArray &value) = 0;
    virtual void remove(const QString &key) = 0;
};

// Keeps values in memory for the life of the object.
class ZD_EXPORT ZDMemoryCredentialStore : public ZDCredentialStore
{
public:
    std::optional<QByteArray> load(const QString &key) override;
    bool save(const QString &key, const QByteArray &value) override;
    void remove(const QString &key) override;

private:
    QHash<QString, QByteArray> m_values;
};

// The system keyring (Secret Service or KWallet), one keyring entry per key
// under the service name given. Values are never written to a plain file.
//
// The keyring answers asynchronously; each call waits for its answer in a local
// event loop that leaves user input alone, at most 5 seconds. Call load() early
// (when the host loads the plug-in), before any window shows.
//
// Where no keyring service runs (or it does not answer), the store says so once
// as a warning and from then on keeps values in memory for this run only.
class ZD_EXPORT ZDKeychainCredentialStore : public ZDCredentialStore
{
public:
    explicit ZDKeychainCredentialStore(const QString &service);

    std::optional<QByteArray> load(const QString &key) override;
    bool save(const QString &key, const QByteArray &value) override;
    void remove(const QString &key) override;

    // Hosts and tests may keep the keyring out of it: memory only, no warning.
    void setKeyringEnabled(bool enabled) { m_keyringEnabled = enabled; }
    // False once the keyring failed and the store fell back to memory.
    bool usesKeyring() const { return m_keyringEnabled && m_keyringAvailable; }

private:
    void keyringUnavailable(const QString &reason);

    QString m_service;
    ZDMemoryCredentialStore m_memory;
    QHash<QString, bool> m_readFromKeyring;
    bool m_keyringEnabled = true;
    bool m_keyringAvailable = true;
    bool m_warned = false;
};
