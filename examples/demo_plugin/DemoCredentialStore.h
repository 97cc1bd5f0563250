#pragma once

#include <QString>

#include <optional>

// Where the plug-in keeps the signed-in account between runs: the system
// keyring (Secret Service or KWallet, through QtKeychain). Where no keyring
// service runs, the store says so once on the standard error stream and keeps
// the sign-in in memory only, for this run; it never writes secrets to a plain
// file.
class DemoCredentialStore
{
public:
    struct Credentials
    {
        QString account;
        QString token;
        QString tokenSecret;
    };

    static DemoCredentialStore &shared();

    // Reads the keyring once (waiting at most a few seconds for it, in a local
    // event loop), then answers from memory. Call it early, before any window
    // shows, so that the wait never falls inside the form's appearance.
    std::optional<Credentials> load();
    void save(const Credentials &credentials);
    void clear();

    // Hosts and tests may keep the keyring out of it.
    void setKeyringEnabled(bool enabled) { m_keyringEnabled = enabled; }

private:
    void keyringUnavailable(const QString &reason);

    std::optional<Credentials> m_memory;
    bool m_keyringEnabled = true;
    bool m_keyringAvailable = true;
    bool m_loadedFromKeyring = false;
    bool m_warned = false;
};
