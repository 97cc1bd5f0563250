#include "HostSheet.h"

#include <DemoAuthenticator.h>
#include <auth/ZDAuthenticator.h>
#include <core/ZDNotificationCenter.h>
#include <host/FileSizeFormatter.h>
#include <publish/ZDPublishPost.h>
#include <toolkit/ZDNavigationController.h>

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QStackedLayout>
#include <QTextDocument>
#include <QTimer>
#include <QVBoxLayout>

#include <cstdio>
#include <utility>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// Every size the demo prints, on the terminal and in its windows, follows the
// form's rule: decimal units (1 MB is 1,000,000 bytes), like the upload rate.
QString sizeText(qint64 bytes)
{
    return FileSizeFormatter(float(bytes), 1);
}

// The file's MD5, read in pieces so that a large video is not held in memory.
QString fileMD5(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!hash.addData(&file))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

// An interrupted upload's title as the user typed it.
QString uploadTitle(const ZDUploadJournalEntry &upload)
{
    const QString title = upload.metadata.value(u"title"_s).toString();
    return title.isEmpty() ? u"Untitled"_s : title;
}

} // namespace

// --- the host's operations --------------------------------------------------------------

qint64 DemoHostAgent::estimatedHDUploadBytes()
{
    // This host sends the file as it is, whichever quality is chosen.
    return m_sheet->videoSize();
}

qint64 DemoHostAgent::estimatedSDUploadBytes()
{
    return m_sheet->videoSize();
}

void DemoHostAgent::setChosenOption(int option)
{
    m_chosenOption = option;
}

void DemoHostAgent::confirmPublishing()
{
    m_sheet->publishingConfirmed();
}

void DemoHostAgent::abandonPublishing()
{
    m_sheet->publishingAbandoned();
}

void DemoHostAgent::publishPostDidUpdateProgress(ZDPublishPost *, const ZDPublishProgress &progress)
{
    m_sheet->phase(progress);
}

void DemoHostAgent::reportBytesWrittenOfTotal(qint64 written, qint64 total)
{
    m_sheet->progress(written, total);
}

// --- the sheet --------------------------------------------------------------------------

HostSheet::HostSheet(const QString &videoPath, const DemoUploadOptions &uploadOptions)
    : m_videoPath(videoPath), m_videoSize(QFileInfo(videoPath).size()),
      m_agent(std::make_unique<DemoHostAgent>(this))
{
    m_onTerminal = isatty(fileno(stdout));
    m_agent->setUploadOptions(uploadOptions);
    m_agent->setHostDelegate(this);
    setWindowTitle(u"Photos \u2014 Publish to Demo Video"_s);
    m_pages = new QStackedLayout(this);
    m_progressPage = makeProgressPage();
    m_resultPage = makeResultPage();
    m_pages->addWidget(m_progressPage);
    m_pages->addWidget(m_resultPage);
}

HostSheet::~HostSheet()
{
    ZDNotificationCenter::defaultCenter().removeObserver(this);
    // The agent owns the form's views, which sit in this widget.
    m_agent.reset();
}

DemoPublishViewController *HostSheet::form() const
{
    return static_cast<DemoPublishViewController *>(m_agent->publishViewController());
}

ZDNavigationController *HostSheet::navigation() const
{
    return m_agent->navigationController();
}

void HostSheet::open(bool ownWindow)
{
    QWidget *sheet = m_agent->navigationController()->view();
    if (ownWindow) {
        m_ownWindowSheet = sheet;
        sheet->setWindowTitle(windowTitle());
        sheet->resize(size().isEmpty() ? QSize(320, 480) : size());
        sheet->show();
        return;
    }
    m_pages->insertWidget(0, sheet);
    m_pages->setCurrentWidget(sheet);
    show();
}

void HostSheet::showPage(QWidget *page)
{
    m_pages->setCurrentWidget(page);
    if (m_ownWindowSheet) {
        m_ownWindowSheet->hide();
        show();
    }
}

QString HostSheet::describeInterruptedUpload(const ZDUploadJournalEntry &upload)
{
    const qint64 size = upload.file.size;
    const int percent = size > 0 ? int(100 * upload.offset / size) : 0;
    return u"\u201c%1\u201d (%2, %3): %4 of it had arrived (%5%), last on %6"_s.arg(
        uploadTitle(upload), QFileInfo(upload.file.path).fileName(), sizeText(size),
        sizeText(upload.offset), QString::number(percent),
        QLocale().toString(upload.updated.toLocalTime(), QLocale::ShortFormat));
}

void HostSheet::whenSignedIn(std::function<void()> then)
{
    ZDAuthenticator *authenticator = DemoAuthenticator::activeAuthenticator();
    if (authenticator->authenticatorState() == ZDAuthenticatorStateSignedIn) {
        QTimer::singleShot(0, this, std::move(then));
        return;
    }
    // Once the sheet's sign-in succeeded.
    ZDNotificationCenter::defaultCenter().addObserver(
        this, ZDAuthenticatorStateChangeNotification, authenticator,
        [this, then = std::move(then)](const ZDNotification &notification) {
            if (notification.userInfo.value(u"state"_s).toLongLong() !=
                ZDAuthenticatorStateSignedIn)
                return;
            std::function<void()> next = then; // the registration goes, and this lambda with it
            ZDNotificationCenter::defaultCenter().removeObserver(this);
            // After the sign-in's own callbacks have run.
            QTimer::singleShot(0, this, std::move(next));
        });
}

void HostSheet::resumeInterruptedUploads(const QList<ZDUploadJournalEntry> &uploads)
{
    m_toResume = uploads;
    if (m_toResume.isEmpty())
        return;
    if (DemoAuthenticator::activeAuthenticator()->authenticatorState() !=
        ZDAuthenticatorStateSignedIn) {
        std::printf("Sign in to resume %s.\n",
                    m_toResume.size() == 1 ? "the upload" : "the uploads");
        std::fflush(stdout);
    }
    // The uploads go on in the user's name.
    whenSignedIn([this] { resumeNext(); });
}

void HostSheet::offerInterruptedUploads(const QList<ZDUploadJournalEntry> &uploads)
{
    if (uploads.isEmpty())
        return;
    m_offered = uploads;
    whenSignedIn([this] {
        constexpr qsizetype kNamed = 3; // the alert stays smaller than a phone's screen
        const qsizetype count = m_offered.size();
        QStringList lines;
        // Shorter than the terminal's line, and a size never broken across lines.
        const auto size = [](qint64 bytes) { return sizeText(bytes).replace(u' ', u'\u00a0'); };
        for (qsizetype i = 0; i < std::min(count, kNamed); ++i) {
            const ZDUploadJournalEntry &upload = m_offered[i];
            lines << u"\u201c%1\u201d (%2): %3 of %4 had arrived"_s.arg(
                uploadTitle(upload), QFileInfo(upload.file.path).fileName(), size(upload.offset),
                size(upload.file.size));
        }
        if (count > kNamed)
            lines << u"and %1 more"_s.arg(count - kNamed);
        const QString title =
            count == 1 ? u"1 Interrupted Upload"_s : u"%1 Interrupted Uploads"_s.arg(count);
        const QString message = (count == 1 ? u"An earlier run did not finish this upload:"_s
                                            : u"An earlier run did not finish these uploads:"_s) +
                                u"\n\n"_s + lines.join(u"\n\n"_s) + u"\n\n"_s +
                                (count == 1 ? u"Resume it now, or keep it for later?"_s
                                            : u"Resume them now, or keep them for later?"_s);
        auto *alert = new ZDAlertView(title, message, this, u"Not Now"_s, {u"Resume"_s});
        m_resumeAlert = alert;
        alert->show(window());
    });
}

void HostSheet::alertViewWillDismissWithButtonIndex(ZDAlertView *alertView, int buttonIndex)
{
    if (alertView != m_resumeAlert)
        return;
    m_resumeAlert = nullptr;
    const QList<ZDUploadJournalEntry> offered = std::exchange(m_offered, {});
    if (buttonIndex == alertView->cancelButtonIndex()) {
        std::printf("Not resuming %s now: %s in the journal for a later run.\n",
                    offered.size() == 1 ? "the interrupted upload" : "the interrupted uploads",
                    offered.size() == 1 ? "it stays" : "they stay");
        std::fflush(stdout);
        return;
    }
    // After the alert has gone, so that the focus lands on the progress page.
    QTimer::singleShot(0, this, [this, offered] { resumeInterruptedUploads(offered); });
}

void HostSheet::resumeNext()
{
    if (m_toResume.isEmpty())
        return;
    const ZDUploadJournalEntry upload = m_toResume.takeFirst();
    m_resuming = true;
    m_videoPath = upload.file.path;
    m_videoSize = upload.file.size;
    m_phase = ZDPublishPhase::Preparing;
    m_printedPercent = -1;
    m_furthestWritten = upload.offset;
    const QString title = upload.metadata.value(u"title"_s).toString();
    m_progressTitle->setText(u"Resuming \u201c%1\u201d to Demo Video"_s.arg(title));
    m_progressText->setText(u"Asking Demo Video where the upload stopped\u2026"_s);
    m_cancelButton->setEnabled(true);
    // The sign-in's fields are done with: the focus (and with it any
    // on-screen keyboard) goes to the page that is shown now.
    m_agent->resignPublishingSheetResponders();
    showPage(m_progressPage);
    m_cancelButton->setFocus();
    std::printf("Resuming %s\n", qPrintable(describeInterruptedUpload(upload)));
    std::fflush(stdout);
    m_uploadClock.start();
    m_agent->resumeInterruptedUpload(upload);
}

QWidget *HostSheet::makeProgressPage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->addStretch(2);
    m_progressTitle = new QLabel;
    m_progressTitle->setWordWrap(true);
    m_progressTitle->setAlignment(Qt::AlignCenter);
    QFont font = m_progressTitle->font();
    font.setPointSizeF(font.pointSizeF() * 1.25);
    font.setBold(true);
    m_progressTitle->setFont(font);
    layout->addWidget(m_progressTitle);
    layout->addSpacing(16);
    m_progressBar = new QProgressBar;
    m_progressBar->setRange(0, 1000);
    m_progressBar->setTextVisible(false);
    m_progressBar->setAccessibleName(u"Upload progress"_s);
    layout->addWidget(m_progressBar);
    m_progressText = new QLabel;
    m_progressText->setAlignment(Qt::AlignCenter);
    layout->addWidget(m_progressText);
    layout->addSpacing(16);
    m_cancelButton = new QPushButton(u"Cancel"_s);
    connect(m_cancelButton, &QPushButton::clicked, this, [this] {
        m_cancelButton->setEnabled(false);
        m_agent->cancelUpload();
    });
    layout->addWidget(m_cancelButton, 0, Qt::AlignCenter);
    layout->addStretch(3);
    return page;
}

QWidget *HostSheet::makeResultPage()
{
    auto *page = new QWidget;
    auto *layout = new QVBoxLayout(page);
    layout->setContentsMargins(24, 24, 24, 24);
    layout->addStretch(2);
    m_resultTitle = new QLabel;
    m_resultTitle->setAlignment(Qt::AlignCenter);
    QFont font = m_resultTitle->font();
    font.setPointSizeF(font.pointSizeF() * 1.4);
    font.setBold(true);
    m_resultTitle->setFont(font);
    layout->addWidget(m_resultTitle);
    layout->addSpacing(12);
    m_resultMessage = new QLabel;
    m_resultMessage->setWordWrap(true);
    m_resultMessage->setAlignment(Qt::AlignCenter);
    m_resultMessage->setTextFormat(Qt::RichText);
    m_resultMessage->setOpenExternalLinks(true);
    m_resultMessage->setTextInteractionFlags(Qt::TextBrowserInteraction);
    layout->addWidget(m_resultMessage);
    layout->addSpacing(16);
    m_doneButton = new QPushButton(u"Done"_s);
    connect(m_doneButton, &QPushButton::clicked, this, &HostSheet::done);
    layout->addWidget(m_doneButton, 0, Qt::AlignCenter);
    layout->addStretch(3);
    return page;
}

void HostSheet::publishingConfirmed()
{
    const QString title = m_agent->mediaTitle();
    m_progressTitle->setText(u"Publishing \u201c%1\u201d to Demo Video"_s.arg(title));
    m_progressText->setText(u"Preparing\u2026"_s);
    showPage(m_progressPage);
    std::printf("Publishing \"%s\" (%s, %s quality) to %s\n", qPrintable(title),
                qPrintable(sizeText(m_videoSize)),
                m_agent->chosenOption() == 1 ? "high" : "standard",
                qPrintable(DemoVideo::baseURL().toString()));
    std::fflush(stdout);
    // The host's export of the chosen quality would run here; this host sends
    // the file as it is, once the form's button press has finished.
    QTimer::singleShot(0, this, [this] {
        m_uploadClock.start();
        m_agent->uploadVideoAtPath(m_videoPath);
    });
}

void HostSheet::publishingAbandoned()
{
    m_toResume.clear();
    showResult(HostOutcome::Cancelled, u"Not Published"_s, u"You cancelled publishing."_s);
}

void HostSheet::progress(qint64 written, qint64 total)
{
    if (total > 0)
        m_progressBar->setValue(int(1000 * written / total));
    m_progressText->setText(u"%1 of %2"_s.arg(sizeText(written), sizeText(total)));
    // Reports after a failure go back to what the service confirmed; the
    // furthest one tells where the connection was lost.
    m_furthestWritten = std::max(m_furthestWritten, written);
    // While the upload finds out where to go on, the line tells of the lost
    // connection rather than of a bar going back.
    if (!m_lostLineOpen && m_phase != ZDPublishPhase::WaitingToRetry &&
        m_phase != ZDPublishPhase::Resuming)
        printProgress(written, total);
    Q_EMIT progressed(written, total);
}

void HostSheet::phase(const ZDPublishProgress &progress)
{
    const ZDPublishPhase previous = std::exchange(m_phase, progress.phase);
    if (progress.phase == ZDPublishPhase::WaitingToRetry) {
        // "in 2 s", "now" (the first try after a cut goes at once), or when
        // the system says the network is back.
        const QString when = progress.retryInMsecs < 0 ? u"when the network is back"_s
                             : progress.retryInMsecs < 500
                                 ? u"now"_s
                                 : u"in %1 s"_s.arg(qRound(progress.retryInMsecs / 1000.0));
        if (m_lostLineOpen) {
            std::printf(" no answer, retrying %s ...", qPrintable(when));
        } else {
            // Where sending had got to when the connection went: what went
            // out, of which the service may have kept only a part (the
            // resumption says how much).
            const qint64 lostAt = std::max(m_furthestWritten, progress.written);
            const QString where = lostAt > 0 ? u"at %1"_s.arg(sizeText(lostAt))
                                             : u"before any bytes were confirmed"_s;
            std::printf("%sconnection lost %s, retrying %s ...",
                        m_onTerminal && m_printedPercent >= 0 ? "\n" : "", qPrintable(where),
                        qPrintable(when));
            m_lostLineOpen = true;
            m_lostAt = lostAt;
        }
        std::fflush(stdout);
    } else if (progress.phase == ZDPublishPhase::Resuming) {
        m_resumedAt = progress.written; // the service's offset
        m_furthestWritten = progress.written;
    } else if (previous == ZDPublishPhase::Resuming) {
        // Behind where the connection was lost: what was on its way then had
        // not all reached the service, and goes again.
        if (m_lostLineOpen && m_resumedAt < m_lostAt)
            std::printf(" resumed at %s, where Demo Video's copy ends\n",
                        qPrintable(sizeText(m_resumedAt)));
        else if (m_lostLineOpen)
            std::printf(" resumed at %s\n", qPrintable(sizeText(m_resumedAt)));
        else // an upload taken up from the journal
            std::printf("  resumed at %s, where Demo Video's copy ends\n",
                        qPrintable(sizeText(m_resumedAt)));
        std::fflush(stdout);
        m_lostLineOpen = false;
        m_printedPercent = -1; // the bar starts again below
    } else if (m_lostLineOpen && progress.phase == ZDPublishPhase::ServerProcessing) {
        std::printf(" the service had every byte\n");
        std::fflush(stdout);
        m_lostLineOpen = false;
        m_printedPercent = -1;
    }
    // Otherwise the job went back to the confirmed bytes before a retry: the
    // lost connection's line goes on.
}

void HostSheet::printProgress(qint64 written, qint64 total)
{
    if (total <= 0)
        return;
    const int percent = int(100 * written / total);
    // A step back (bytes the service never confirmed) is told by the lost
    // connection's line.
    if (percent < m_printedPercent)
        return;
    // On a terminal the bar is redrawn in place; into a file or a pipe it is
    // written every tenth of the way.
    const int step = m_onTerminal ? 1 : 10;
    if (m_printedPercent >= 0 && percent / step == m_printedPercent / step)
        return;
    m_printedPercent = percent;
    constexpr int kWidth = 30;
    const int filled = percent * kWidth / 100;
    std::printf("%s  [%s%s] %3d%%  %s of %s%s", m_onTerminal ? "\r" : "",
                std::string(size_t(filled), '#').c_str(),
                std::string(size_t(kWidth - filled), '.').c_str(), percent,
                qPrintable(sizeText(written)), qPrintable(sizeText(total)),
                m_onTerminal ? "" : "\n");
    std::fflush(stdout);
}

void HostSheet::agentDidFinishPublishingError(PublishingAgentBase *,
                                              const std::optional<ZDError> &error)
{
    const double seconds = double(m_uploadClock.nsecsElapsed()) / 1e9;
    if (std::exchange(m_lostLineOpen, false))
        std::printf("\n"); // below the lost connection's line
    else if (m_printedPercent >= 0 && m_onTerminal)
        std::printf("\n"); // below the bar
    if (error) {
        const bool cancelled = isCancellation(*error);
        showResult(cancelled ? HostOutcome::Cancelled : HostOutcome::Failed, u"Not Published"_s,
                   error->localizedDescription().toHtmlEscaped());
        return;
    }
    const std::optional<DemoPublishedVideo> video = m_agent->publishedVideo();
    std::printf("Uploaded %lld bytes in %.3f s (%.1f MB/s)\n", static_cast<long long>(m_videoSize),
                seconds, seconds > 0 ? double(m_videoSize) / 1e6 / seconds : 0.0);
    const QString localMD5 = fileMD5(m_videoPath);
    if (!video || video->md5 != localMD5 || video->bytes != m_videoSize) {
        showResult(HostOutcome::NotIntact, u"Damaged in Transit"_s,
                   u"The service stored %1 bytes with MD5 %2; the file has %3 bytes with MD5 %4."_s
                       .arg(video ? video->bytes : 0)
                       .arg(video ? video->md5 : u"?"_s, QString::number(m_videoSize), localMD5));
        return;
    }
    const QString link = video->url.toString(QUrl::FullyEncoded);
    showResult(HostOutcome::Published, u"Published"_s,
               u"Your video is on Demo Video at<br><a href=\"%1\">%1</a><br>"
               u"<small>(this address answers while the demo service runs)</small><br><br>"
               u"<small>MD5 %2 matches the file.</small>"_s.arg(link.toHtmlEscaped(), localMD5));
}

void HostSheet::showResult(HostOutcome outcome, const QString &title, const QString &message)
{
    m_resultTitle->setText(title);
    m_resultMessage->setText(message);
    showPage(m_resultPage);
    std::printf("%s: %s\n", qPrintable(title), qPrintable(resultText()));
    std::fflush(stdout);
    if (int(outcome) > int(m_worstOutcome))
        m_worstOutcome = outcome;
    if (m_resuming && !m_toResume.isEmpty()) {
        QTimer::singleShot(0, this, [this] { resumeNext(); });
        return;
    }
    Q_EMIT finished(m_resuming ? m_worstOutcome : outcome);
}

QString HostSheet::resultText() const
{
    QTextDocument document;
    document.setHtml(m_resultMessage->text());
    return document.toPlainText().replace(u'\n', u' ');
}
