#pragma once

// What the service does with an upload while it arrives: the video to disk
// under a stored name, the text fields in memory, and the folder that becomes
// the published video.

#include "DemoHttp.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QRegularExpression>
#include <QString>

#include <httplib.h>

#include <string>
#include <utility>

// The form of a video's id, in folder names and URLs.
const QRegularExpression &videoIdPattern();

// A new video id.
QString newVideoId();

// The reason a video's text fields are refused (a 400), or an empty string.
QString videoFieldsProblem(const QHash<QString, QString> &field);
// The meta.json of a published video from its text fields (tags as a
// comma-separated list) and what was stored.
QJsonObject videoMeta(const QString &id, const QHash<QString, QString> &field,
                      const QString &filename, qint64 bytes, const QString &md5,
                      const QString &account);

// The stored name of a video uploaded as `filename`: "video" and the filename's
// extension when it is a plain one.
QString storedVideoName(const QString &filename);
// The Content-Type a stored video is served with.
std::string videoContentType(const QString &storedName);

// One upload while it arrives, in incoming/<id>/. The folder goes away with the
// object unless the upload was published.
class IncomingUpload
{
public:
    // Fault injection for tests: the process ends (exit status 70) as soon as
    // the video content exceeds `dieAfterBytes` bytes. Negative: never.
    IncomingUpload(const QString &incomingPath, const QString &videosPath, qint64 dieAfterBytes);
    ~IncomingUpload();
    IncomingUpload(const IncomingUpload &) = delete;
    IncomingUpload &operator=(const IncomingUpload &) = delete;

    bool isValid() const { return !m_folder.isEmpty(); }
    QString id() const { return m_id; }

    // The multipart reader's callbacks: false stops the parse, with the reason
    // in problemStatus() and problem().
    bool partBegins(const httplib::MultipartFormData &part);
    bool partContent(const char *data, qsizetype size);

    // The status and message of what stopped the parse, if anything did.
    int problemStatus() const { return m_problemStatus; }
    QString problem() const { return m_problem; }

    DemoHttp::Parameters fields() const;
    bool hasVideo() const { return m_hasVideo; }
    QString filename() const { return m_filename; }
    qint64 bytes() const { return m_bytes; }
    QString md5() const { return QString::fromLatin1(m_md5.result().toHex()); }

    bool closeVideo();
    // Writes meta.json and moves the folder to <videos>/<id> in one rename.
    bool publish(const QString &videosPath, const QJsonObject &meta);

private:
    bool refuse(int status, const QString &message);

    enum class Sink { Discard, Field, Video };

    qint64 m_dieAfterBytes;
    QString m_id;
    QString m_folder;
    bool m_published = false;
    Sink m_sink = Sink::Discard;
    QList<std::pair<QString, QByteArray>> m_fields;
    qsizetype m_fieldBytes = 0;
    bool m_hasVideo = false;
    QString m_filename;
    QFile m_video;
    QCryptographicHash m_md5{QCryptographicHash::Md5};
    qint64 m_bytes = 0;
    int m_problemStatus = 0;
    QString m_problem;
};
