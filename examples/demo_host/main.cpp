// The demo host: a small photo application that publishes one video to the
// Demo Video service through the example plug-in.
//
//   zd_demo_host [video] [--service URL] [--scripted] [--tablet] ...
//
// With a display it opens a phone-sized (or tablet-sized) window in which you
// fill in the sheet yourself. Without one, or with --scripted, it runs on the
// offscreen platform and a scripted user fills in the sheet; the terminal shows
// what the user does, the upload's progress and the result. The exit status is
// 0 only when the service stored the video intact (same size and MD5).
//
// Uploads that a crash or a kill cut short are listed at start, from the
// plug-in's journal; --resume-interrupted resumes them (after the sign-in)
// instead of publishing a new video. A window run asks after the sign-in, in an
// alert, whether to resume them; --answer-resume has the scripted user answer.

#include "HostSheet.h"
#include "SampleClip.h"
#include "ScriptedUser.h"

#include <DemoAuthenticator.h>
#include <DemoVideo.h>
#include <toolkit/ZDAlertView.h>
#include <toolkit/ZDDevice.h>
#include <toolkit/ZDKeyboard.h>

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QMimeDatabase>
#include <QPalette>
#include <QTimer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

enum ExitStatus { ExitUsage = 1, ExitScriptStuck = 5 };

bool hasDisplay()
{
    return qEnvironmentVariableIsSet("DISPLAY") || qEnvironmentVariableIsSet("WAYLAND_DISPLAY");
}

bool wantsScripted(int argc, char **argv)
{
    for (int i = 1; i < argc; ++i) {
        if (qstrcmp(argv[i], "--scripted") == 0)
            return true;
    }
    return !hasDisplay();
}

std::optional<qint64> byteCount(const QString &text)
{
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    return ok && value >= 0 ? std::optional<qint64>(value) : std::nullopt;
}

// Names the option and what is wrong with its value, instead of the whole help.
int badOption(const QString &option, const QString &value, const char *expected)
{
    std::fprintf(stderr, "zd_demo_host: --%s \"%s\": %s (see --help)\n", qPrintable(option),
                 qPrintable(value), expected);
    return ExitUsage;
}

// Why `path` cannot be published as a video, or nothing when it can: it must
// be a file with something in it that names or shows itself as a video.
std::optional<QString> notAVideo(const QString &path)
{
    const QFileInfo info(path);
    if (!info.exists())
        return u"no such file"_s;
    if (!info.isFile())
        return u"not a file"_s;
    if (info.size() == 0)
        return u"the file is empty"_s;
    const QMimeType type = QMimeDatabase().mimeTypeForFile(info);
    if (!type.name().startsWith(u"video/"))
        return u"not a video (%1)"_s.arg(type.comment());
    return std::nullopt;
}

// The offscreen platform's remarks about what it cannot do for a window say
// nothing to the person watching the terminal; everything else goes through.
QtMessageHandler defaultHandler = nullptr;
void quietOffscreenRemarks(QtMsgType type, const QMessageLogContext &context,
                           const QString &message)
{
    if (message.contains(u"propagateSizeHints") || message.contains(u"XDG_RUNTIME_DIR"))
        return;
    defaultHandler(type, context, message);
}

} // namespace

int main(int argc, char **argv)
{
    const bool scripted = wantsScripted(argc, argv);
    if (scripted && !qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    if (scripted)
        defaultHandler = qInstallMessageHandler(quietOffscreenRemarks);
    QApplication app(argc, argv);
    // Right to left for languages written so (the table has Arabic).
    app.setLayoutDirection(QLocale().textDirection());
    QApplication::setApplicationName(u"zd_demo_host"_s);

    QCommandLineParser parser;
    parser.setApplicationDescription(u"Publishes a video to the Demo Video service."_s);
    parser.addHelpOption();
    parser.addPositionalArgument(u"video"_s, u"The video to publish (a sample clip if none)."_s);
    const QCommandLineOption service(u"service"_s, u"The service's address."_s, u"url"_s,
                                     u"http://127.0.0.1:8765/"_s);
    const QCommandLineOption scriptedOption(u"scripted"_s,
                                            u"A scripted user fills in the sheet."_s);
    const QCommandLineOption tablet(u"tablet"_s, u"A tablet-sized sheet."_s);
    const QCommandLineOption noKeyring(u"no-keyring"_s, u"Keep the sign-in in memory only."_s);
    const QCommandLineOption oauth2(u"oauth2"_s,
                                    u"Sign in with OAuth 2.0 instead of OAuth 1.0a."_s);
    const QCommandLineOption mode(
        u"upload-mode"_s,
        u"resumable (chunks resumed after any failure), or one multipart POST: auto, memory or streamed."_s,
        u"mode"_s, u"resumable"_s);
    const QCommandLineOption threshold(
        u"stream-threshold"_s, u"Auto mode streams files from this size (bytes)."_s, u"bytes"_s);
    const QCommandLineOption memoryLimit(
        u"memory-limit"_s, u"Memory an in-memory upload may use (bytes)."_s, u"bytes"_s);
    const QCommandLineOption title(u"title"_s, u"The scripted title."_s, u"text"_s,
                                   u"Sunset at the sea"_s);
    const QCommandLineOption description(
        u"description"_s, u"The scripted description."_s, u"text"_s,
        u"The sun goes down over the water, filmed from the pier."_s);
    const QCommandLineOption tags(u"tags"_s, u"The scripted tags, comma-separated."_s, u"list"_s,
                                  u"sea,sunset,summer"_s);
    const QCommandLineOption category(u"category"_s, u"The scripted category."_s, u"name"_s,
                                      u"Travel & Events"_s);
    const QCommandLineOption access(u"access"_s, u"public, unlisted or private."_s, u"access"_s,
                                    u"unlisted"_s);
    const QCommandLineOption hd(u"hd"_s, u"The scripted user chooses high definition."_s);
    const QCommandLineOption rightFirst(u"no-wrong-password"_s,
                                        u"The scripted user signs in right the first time."_s);
    const QCommandLineOption cancelSheet(u"cancel-sheet"_s,
                                         u"The scripted user cancels the sheet."_s);
    const QCommandLineOption cancelAfter(u"cancel-after-bytes"_s,
                                         u"The scripted user cancels the upload after this much."_s,
                                         u"bytes"_s);
    const QCommandLineOption revoke(u"revoke-before-publish"_s,
                                    u"The sign-in is revoked just before publishing."_s);
    const QCommandLineOption deleteFile(u"delete-before-publish"_s,
                                        u"The video is deleted just before publishing."_s);
    const QCommandLineOption staySignedIn(u"stay-signed-in"_s,
                                          u"The scripted run keeps a stored sign-in."_s);
    const QCommandLineOption dark(u"dark"_s, u"A dark colour scheme."_s);
    const QCommandLineOption sheetWindow(
        u"sheet-window"_s,
        u"Show the publishing sheet as a window of its own, as some hosts do."_s);
    const QCommandLineOption keyboardOnly(
        u"keyboard-only"_s, u"The scripted user uses the keyboard alone, never the mouse."_s);
    const QCommandLineOption journal(
        u"journal"_s,
        u"Where interrupted uploads are recorded (default: \"uploads\" in the application's "
        u"data folder)."_s,
        u"dir"_s);
    const QCommandLineOption resumeInterrupted(
        u"resume-interrupted"_s,
        u"Resume every interrupted upload once signed in, without asking, instead of publishing a "
        u"new video. "
        u"Without it they are listed, and a window run asks after the sign-in whether to "
        u"resume them."_s);
    const QCommandLineOption answerResume(
        u"answer-resume"_s,
        u"When there are interrupted uploads, the scripted user signs in and answers the alert "
        u"that offers to resume them: yes resumes them, no keeps them and cancels the sheet."_s,
        u"yes|no"_s);
    const QCommandLineOption screenshots(u"screenshots"_s, u"Save pictures of the sheet here."_s,
                                         u"dir"_s);
    parser.addOptions({service,      scriptedOption, tablet,     noKeyring,    mode,
                       threshold,    memoryLimit,    title,      description,  tags,
                       category,     access,         hd,         rightFirst,   cancelSheet,
                       cancelAfter,  revoke,         deleteFile, staySignedIn, screenshots,
                       oauth2,       keyboardOnly,   dark,       journal,      resumeInterrupted,
                       answerResume, sheetWindow});
    parser.process(app);
    if (parser.isSet(dark)) {
        // What a dark system colour scheme hands the application.
        QPalette palette;
        palette.setColor(QPalette::Window, QColor(0x26, 0x28, 0x2c));
        palette.setColor(QPalette::WindowText, QColor(0xe8, 0xea, 0xed));
        palette.setColor(QPalette::Base, QColor(0x1e, 0x1f, 0x22));
        palette.setColor(QPalette::AlternateBase, QColor(0x2d, 0x2f, 0x34));
        palette.setColor(QPalette::Text, QColor(0xe8, 0xea, 0xed));
        palette.setColor(QPalette::Button, QColor(0x33, 0x36, 0x3b));
        palette.setColor(QPalette::ButtonText, QColor(0xe8, 0xea, 0xed));
        palette.setColor(QPalette::Highlight, QColor(0x4c, 0x8d, 0xf6));
        palette.setColor(QPalette::HighlightedText, Qt::white);
        palette.setColor(QPalette::PlaceholderText, QColor(0x8a, 0x8f, 0x98));
        QApplication::setPalette(palette);
    }

    DemoVideo::setBaseURL(QUrl(parser.value(service)));
    DemoAuthenticator::setUsesOAuth2(parser.isSet(oauth2));
    if (parser.isSet(noKeyring))
        DemoAuthenticator::credentialStore()->setKeyringEnabled(false);

    DemoUploadOptions uploadOptions;
    const QString modeName = parser.value(mode);
    if (modeName == u"resumable")
        uploadOptions.mode = DemoUploadOptions::Mode::Resumable;
    else if (modeName == u"memory")
        uploadOptions.mode = DemoUploadOptions::Mode::InMemory;
    else if (modeName == u"streamed")
        uploadOptions.mode = DemoUploadOptions::Mode::Streamed;
    else if (modeName != u"auto")
        return badOption(u"upload-mode"_s, modeName, "must be resumable, auto, memory or streamed");
    if (parser.isSet(threshold)) {
        const auto bytes = byteCount(parser.value(threshold));
        if (!bytes)
            return badOption(u"stream-threshold"_s, parser.value(threshold),
                             "must be a whole number of bytes");
        uploadOptions.streamThreshold = *bytes;
    }
    if (parser.isSet(memoryLimit)) {
        uploadOptions.memoryLimit = byteCount(parser.value(memoryLimit));
        if (!uploadOptions.memoryLimit)
            return badOption(u"memory-limit"_s, parser.value(memoryLimit),
                             "must be a whole number of bytes");
    }
    uploadOptions.journalDirectory = parser.value(journal);
    const bool resuming = parser.isSet(resumeInterrupted);
    std::optional<bool> answer; // the scripted user's answer to the resume alert
    if (parser.isSet(answerResume)) {
        const QString value = parser.value(answerResume);
        if (value != u"yes" && value != u"no")
            return badOption(u"answer-resume"_s, value, "must be yes or no");
        if (resuming)
            return badOption(u"answer-resume"_s, value,
                             "--resume-interrupted resumes without asking");
        answer = value == u"yes";
    }
    std::optional<qint64> cancelAfterBytes;
    if (parser.isSet(cancelAfter)) {
        cancelAfterBytes = byteCount(parser.value(cancelAfter));
        if (!cancelAfterBytes)
            return badOption(u"cancel-after-bytes"_s, parser.value(cancelAfter),
                             "must be a whole number of bytes");
    }
    if (!DemoPublishViewController::accessValues().contains(parser.value(access)))
        return badOption(u"access"_s, parser.value(access), "must be public, unlisted or private");

    QString videoPath = parser.positionalArguments().value(0);
    if (resuming) {
        if (!videoPath.isEmpty()) {
            std::fprintf(stderr,
                         "zd_demo_host: --resume-interrupted publishes no new video: "
                         "leave out %s (see --help)\n",
                         qPrintable(videoPath));
            return ExitUsage;
        }
    } else if (videoPath.isEmpty()) {
        videoPath = QDir::temp().filePath(u"zd-demo-sample-clip.avi"_s);
        QString error;
        if (!writeSampleClip(videoPath, &error)) {
            std::fprintf(stderr, "cannot write a sample clip to %s: %s\n", qPrintable(videoPath),
                         qPrintable(error));
            return ExitUsage;
        }
        std::printf("No video given: made a sample clip, %s\n", qPrintable(videoPath));
    } else if (const std::optional<QString> why = notAVideo(videoPath)) {
        std::fprintf(stderr, "zd_demo_host: cannot publish %s: %s\n", qPrintable(videoPath),
                     qPrintable(*why));
        return ExitUsage;
    }

    ZDDevice::setKind(parser.isSet(tablet) ? ZDDeviceKind::Tablet : ZDDeviceKind::Phone);
    // The on-screen keyboard is for fingers: a touch screen, or the scripted
    // user who taps; never over the fields of a desktop that types.
    ZDKeyboard::shared().setEnabled(ZDKeyboard::hasTouchScreen() ||
                                    (scripted && !parser.isSet(keyboardOnly)));

    auto sheet = std::make_unique<HostSheet>(videoPath, uploadOptions);
    const QList<ZDUploadJournalEntry> interrupted = sheet->agent()->interruptedUploads();
    for (const ZDUploadJournalEntry &upload : interrupted)
        std::printf("Interrupted upload: %s\n",
                    qPrintable(HostSheet::describeInterruptedUpload(upload)));
    if (resuming && interrupted.isEmpty()) {
        std::printf("No interrupted uploads to resume.\n");
        return 0;
    }
    // A user at the window is asked; a scripted one only when told how to answer.
    const bool offering = !resuming && !interrupted.isEmpty() && (!scripted || answer);
    if (offering)
        std::printf("(Once signed in, the window asks whether to resume %s.)\n",
                    interrupted.size() == 1 ? "it" : "them");
    else if (!resuming && !interrupted.isEmpty())
        std::printf("(zd_demo_host --resume-interrupted resumes %s.)\n",
                    interrupted.size() == 1 ? "it" : "them");
    std::fflush(stdout);
    sheet->resize(ZDDevice::screenSize(ZDDevice::kind()).toSize());
    ZDAlertView::setDefaultWindow(sheet.get());
    int status = 0;
    QObject::connect(sheet.get(), &HostSheet::finished, &app, [&](HostOutcome outcome) {
        status = int(outcome);
        if (scripted)
            QTimer::singleShot(0, &app, [&app] { app.exit(); });
    });
    QObject::connect(sheet.get(), &HostSheet::done, &app, [&app] { app.exit(); });

    Script script;
    script.wrongPasswordFirst = !parser.isSet(rightFirst);
    script.title = parser.value(title);
    script.description = parser.value(description);
    script.tags = parser.value(tags).split(u',', Qt::SkipEmptyParts);
    script.category = parser.value(category);
    script.access = parser.value(access);
    script.highDefinition = parser.isSet(hd);
    script.cancelSheet = parser.isSet(cancelSheet);
    script.cancelAfterBytes = cancelAfterBytes;
    script.revokeBeforePublish = parser.isSet(revoke);
    script.deleteFileBeforePublish = parser.isSet(deleteFile);
    script.screenshotDir = parser.value(screenshots);
    script.keyboardOnly = parser.isSet(keyboardOnly);
    ScriptedUser user(*sheet, script);

    // A picture of the progress page about half-way.
    bool progressShot = false;
    QObject::connect(sheet.get(), &HostSheet::progressed, &app, [&](qint64 written, qint64 total) {
        if (!progressShot && total > 0 && written * 2 >= total) {
            progressShot = true;
            user.screenshot(u"demo-progress.png"_s);
        }
    });
    QObject::connect(sheet.get(), &HostSheet::finished, &app, [&] {
        user.screenshot(u"demo-result.png"_s);
        if (script.keyboardOnly)
            std::printf("user: reached the result page with %d mouse events\n", user.mouseEvents());
    });

    if (scripted && !parser.isSet(staySignedIn)) {
        // Every run starts signed out, so that the sign-in is part of it.
        DemoAuthenticator::activeAuthenticator()->invalidateAuthentication();
    } else {
        // Read the stored sign-in now, before the sheet appears.
        DemoAuthenticator::activeAuthenticator()->loadCredentials();
    }
    sheet->open(parser.isSet(sheetWindow));
    if (resuming)
        sheet->resumeInterruptedUploads(interrupted);
    else if (offering)
        sheet->offerInterruptedUploads(interrupted);
    if (scripted) {
        QTimer::singleShot(0, &app, [&] {
            const bool followed = resuming   ? user.signInUnlessSignedIn()
                                  : offering ? user.answerResumeAlert(*answer)
                                             : user.fillInAndPublish();
            if (!followed) {
                status = ExitScriptStuck;
                app.exit();
            }
        });
    }
    app.exec();
    sheet.reset();
    return status;
}
