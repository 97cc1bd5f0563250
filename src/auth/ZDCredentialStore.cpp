#include "auth/ZDCredentialStore.h"

#include "core/ZDLogging_p.h"

#include <qt6keychain/keychain.h>

#include <QEventLoop>
#include <QTimer>

#include <memory>

namespace {

constexpr int kKeyringWaitMs = 5000;

// Starts `job` and waits for it; false when the keyring did not answer in time.
bool runJob(QKeychain::Job &job)
{
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(kKeyringWaitMs, &loop, &QEventLoop::quit);
    job.start();
    if (!finished)
        loop.exec(QEventLoop::ExcludeUserInputEvents);
    return finished;
}

// QtKeychain's own text is often just "Unknown error"; say what the code means.
QString reasonOf(const QKeychain::Job &job)
{
    switch (job.error()) {
    case QKeychain::NoBackendAvailable:
        return QStringLiteral("no keyring service (such as GNOME Keyring or KWallet) is running");
    case QKeychain::AccessDenied:
        return QStringLiteral("the keyring refused access");
    case QKeychain::NotImplemented:
        return QStringLiteral("this system has no keyring support");
    default:
        break;
    }
    const QString text = job.errorString();
    return text.isEmpty() || text.contains(QStringLiteral("Unknown error"), Qt::CaseInsensitive)
               ? QStringLiteral("the keyring could not be used")
               : text;
}

} // namespace

ZDCredentialStore::~ZDCredentialStore() = default;

std::optional<QByteArray> ZDMemoryCredentialStore::load(const QString &key)
{
    const auto it = m_values.constFind(key);
    if (it == m_values.cend())
        return std::nullopt;
    return *it;
}

bool ZDMemoryCredentialStore::save(const QString &key, const QByteArray &value)
{
    m_values.insert(key, value);
    return true;
}

void ZDMemoryCredentialStore::remove(const QString &key)
{
    m_values.remove(key);
}

ZDKeychainCredentialStore::ZDKeychainCredentialStore(const QString &service) : m_service(service) {}

void ZDKeychainCredentialStore::keyringUnavailable(const QString &reason)
{
    m_keyringAvailable = false;
    if (m_warned)
        return;
    m_warned = true;
    qCWarning(lcZDAuth).noquote()
        << QStringLiteral("Sign-ins cannot be kept in the system keyring: %1. They are kept in "
                          "memory for this run only and will be asked for again next time.")
               .arg(reason);
}

std::optional<QByteArray> ZDKeychainCredentialStore::load(const QString &key)
{
    if (const auto value = m_memory.load(key))
        return value;
    if (!usesKeyring() || m_readFromKeyring.value(key))
        return std::nullopt;
    m_readFromKeyring.insert(key, true);

    QKeychain::ReadPasswordJob job(m_service);
    job.setAutoDelete(false);
    job.setKey(key);
    if (!runJob(job)) {
        keyringUnavailable(QStringLiteral("the keyring did not answer"));
        return std::nullopt;
    }
    if (job.error() == QKeychain::EntryNotFound)
        return std::nullopt;
    if (job.error() != QKeychain::NoError) {
        keyringUnavailable(reasonOf(job));
        return std::nullopt;
    }
    m_memory.save(key, job.binaryData());
    return job.binaryData();
}

bool ZDKeychainCredentialStore::save(const QString &key, const QByteArray &value)
{
    m_memory.save(key, value);
    m_readFromKeyring.insert(key, true);
    if (!usesKeyring())
        return true;
    QKeychain::WritePasswordJob job(m_service);
    job.setAutoDelete(false);
    job.setKey(key);
    job.setBinaryData(value);
    if (!runJob(job))
        keyringUnavailable(QStringLiteral("the keyring did not answer"));
    else if (job.error() != QKeychain::NoError)
        keyringUnavailable(reasonOf(job));
    return true;
}

void ZDKeychainCredentialStore::remove(const QString &key)
{
    m_memory.remove(key);
    m_readFromKeyring.insert(key, true); // nothing left there to read
    if (!usesKeyring())
        return;
    QKeychain::DeletePasswordJob job(m_service);
    job.setAutoDelete(false);
    job.setKey(key);
    runJob(job);
}
