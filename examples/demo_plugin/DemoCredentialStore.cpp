#include "DemoCredentialStore.h"

#include <qt6keychain/keychain.h>

#include <QEventLoop>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

const QString kService = u"zdpublish-demo-video"_s;
const QString kKey = u"account"_s;

bool isMissingService(QKeychain::Error error)
{
    return error == QKeychain::NoBackendAvailable || error == QKeychain::NotImplemented ||
           error == QKeychain::OtherError || error == QKeychain::AccessDenied;
}

// QtKeychain's own text is often just "Unknown error"; say what the code means.
QString reasonOf(const QKeychain::Job &job)
{
    switch (job.error()) {
    case QKeychain::NoBackendAvailable:
        return u"no keyring service (such as GNOME Keyring or KWallet) is running"_s;
    case QKeychain::AccessDenied:
        return u"the keyring refused access"_s;
    case QKeychain::NotImplemented:
        return u"this system has no keyring support"_s;
    default:
        break;
    }
    const QString text = job.errorString();
    return text.isEmpty() || text.contains(u"Unknown error"_s, Qt::CaseInsensitive)
               ? u"the keyring could not be used"_s
               : text;
}

} // namespace

DemoCredentialStore &DemoCredentialStore::shared()
{
    static DemoCredentialStore store;
    return store;
}

void DemoCredentialStore::keyringUnavailable(const QString &reason)
{
    m_keyringAvailable = false;
    if (m_warned)
        return;
    m_warned = true;
    std::fprintf(stderr,
                 "Demo Video: your sign-in cannot be kept in the system keyring: %s. It is kept "
                 "in memory for this run only and will be asked for again next time.\n",
                 qPrintable(reason));
}

std::optional<DemoCredentialStore::Credentials> DemoCredentialStore::load()
{
    if (m_memory || !m_keyringEnabled || m_loadedFromKeyring)
        return m_memory;
    m_loadedFromKeyring = true;

    // The form asks for stored credentials as it appears and needs the answer
    // then; the keyring answers asynchronously, usually within milliseconds.
    QKeychain::ReadPasswordJob job(kService);
    job.setAutoDelete(false);
    job.setKey(kKey);
    QEventLoop loop;
    bool finished = false;
    QObject::connect(&job, &QKeychain::Job::finished, &loop, [&] {
        finished = true;
        loop.quit();
    });
    QTimer::singleShot(5000, &loop, &QEventLoop::quit);
    job.start();
    loop.exec(QEventLoop::ExcludeUserInputEvents);

    if (!finished) {
        keyringUnavailable(u"the keyring did not answer"_s);
        return std::nullopt;
    }
    if (job.error() == QKeychain::EntryNotFound)
        return std::nullopt;
    if (job.error() != QKeychain::NoError) {
        if (isMissingService(job.error()))
            keyringUnavailable(reasonOf(job));
        return std::nullopt;
    }
    const QJsonObject stored = QJsonDocument::fromJson(job.binaryData()).object();
    Credentials credentials{stored.value(u"account").toString(), stored.value(u"token").toString(),
                            stored.value(u"tokenSecret").toString()};
    if (credentials.token.isEmpty() || credentials.tokenSecret.isEmpty())
        return std::nullopt;
    m_memory = credentials;
    return m_memory;
}

void DemoCredentialStore::save(const Credentials &credentials)
{
    m_memory = credentials;
    if (!m_keyringEnabled || !m_keyringAvailable)
        return;
    const QJsonObject stored{{u"account"_s, credentials.account},
                             {u"token"_s, credentials.token},
                             {u"tokenSecret"_s, credentials.tokenSecret}};
    auto *job = new QKeychain::WritePasswordJob(kService);
    job->setKey(kKey);
    job->setBinaryData(QJsonDocument(stored).toJson(QJsonDocument::Compact));
    QObject::connect(job, &QKeychain::Job::finished, job, [this, job] {
        if (job->error() != QKeychain::NoError)
            keyringUnavailable(reasonOf(*job));
    });
    job->start();
}

void DemoCredentialStore::clear()
{
    m_memory.reset();
    m_loadedFromKeyring = true; // nothing left there to read
    if (!m_keyringEnabled || !m_keyringAvailable)
        return;
    auto *job = new QKeychain::DeletePasswordJob(kService);
    job->setKey(kKey);
    job->start();
}
