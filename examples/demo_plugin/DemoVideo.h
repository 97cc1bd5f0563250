#pragma once

// What the plug-in knows about the Demo Video service: where it is, the
// client's credentials and the plug-in's own errors.

#include <core/ZDError.h>

#include <QString>
#include <QUrl>

namespace DemoVideo {

// The service's address; http://127.0.0.1:8765/ unless the host says otherwise.
QUrl baseURL();
void setBaseURL(const QUrl &url);
// An endpoint below the base address, e.g. endpoint(u"api/videos").
QUrl endpoint(const QString &path);

QString consumerKey();
// The client secret is shipped scrambled and unscrambled on first use.
QString consumerSecret();

// The plug-in's own errors, with a readable description for the user.
extern const QString ErrorDomain;
enum Error : qint32 {
    ErrorFileUnreadable = 1, // the video file cannot be read
    ErrorFileTooLarge = 2,   // too large to hold in memory for an in-memory upload
    ErrorSignInExpired = 3,  // the service no longer accepts the token
    ErrorRefused = 4,        // the service refused the upload
    ErrorConnection = 5,     // the connection failed or broke off
    ErrorBadAnswer = 6,      // the service's answer made no sense
    ErrorCancelled = 7,      // the user cancelled the upload
};
// An error of the plug-in's domain; `underlying` (when not null) is kept under
// "underlyingError".
ZDError error(Error code, const QString &description, const ZDError &underlying = ZDError());

} // namespace DemoVideo
