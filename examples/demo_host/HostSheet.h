#pragma once

// The demo host's publishing sheet: what a photo application shows while it
// publishes one video through a service plug-in's agent.

#include <DemoPublishAgent.h>
#include <DemoPublishViewController.h>
#include <DemoVideo.h>
#include <toolkit/ZDAlertView.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QWidget>

#include <functional>

class HostSheet;
class QLabel;
class QProgressBar;
class QPushButton;
class QStackedLayout;

// The photo application's side of the agent: its estimates and its publishing
// operations, which land on the sheet.
class DemoHostAgent : public DemoPublishAgent
{
public:
    explicit DemoHostAgent(HostSheet *sheet) : m_sheet(sheet) {}

    qint64 estimatedHDUploadBytes() override;
    qint64 estimatedSDUploadBytes() override;
    void setChosenOption(int option) override;
    void confirmPublishing() override;
    void abandonPublishing() override;
    void reportBytesWrittenOfTotal(qint64 written, qint64 total) override;
    void publishPostDidUpdateProgress(ZDPublishPost *post,
                                      const ZDPublishProgress &progress) override;

    int chosenOption() const { return m_chosenOption; }

private:
    HostSheet *m_sheet;
    int m_chosenOption = 0;
};

// How the sheet ended; the demo host's exit status.
enum class HostOutcome : int {
    Published = 0, // arrived, and the service's MD5 and size match the file
    Failed = 2,    // the plug-in reported an error
    Cancelled = 3, // the user cancelled the sheet or the upload
    NotIntact = 4, // the service stored something other than the file
};

class HostSheet : public QWidget, public PublishingAgentHostDelegate, public ZDAlertViewDelegate
{
    Q_OBJECT

public:
    HostSheet(const QString &videoPath, const DemoUploadOptions &uploadOptions);
    ~HostSheet() override;

    // Asks the agent for its navigation controller and shows the form: inside
    // this window, or with `ownWindow` as a window of its own with this
    // window's title (as a host may show a sheet), until the progress page.
    void open(bool ownWindow = false);
    // Resumes the interrupted uploads one after the other once the user is
    // signed in (at once when already signed in), each on the progress page
    // with a line on the terminal; finished() follows the last, with the worst
    // outcome of them all.
    void resumeInterruptedUploads(const QList<ZDUploadJournalEntry> &uploads);
    // Asks the user, once signed in (at once when already signed in), whether
    // to resume `uploads`: an alert over the sheet counts and names them (the
    // first three; how many more after that). "Resume" (Return) does what
    // resumeInterruptedUploads() does; "Not Now" (Escape) leaves them in the
    // journal for a later run and the sheet as it was. Nothing when `uploads`
    // is empty.
    void offerInterruptedUploads(const QList<ZDUploadJournalEntry> &uploads);
    // That alert while it is up (or fading in), else null.
    ZDAlertView *interruptedUploadsAlert() const { return m_resumeAlert; }
    // One line about an interrupted upload: what, how large, how far it got
    // and when it was last heard of.
    static QString describeInterruptedUpload(const ZDUploadJournalEntry &upload);

    QString videoPath() const { return m_videoPath; }
    qint64 videoSize() const { return m_videoSize; }
    DemoHostAgent *agent() const { return m_agent.get(); }
    DemoPublishViewController *form() const;
    ZDNavigationController *navigation() const;
    QPushButton *cancelUploadButton() const { return m_cancelButton; }
    QString resultText() const;

    // --- the host operations the agent calls -----------------------------------------
    void publishingConfirmed();
    void publishingAbandoned();
    void progress(qint64 written, qint64 total);
    // A resumable upload's phase: the terminal tells of lost connections and
    // where sending resumed.
    void phase(const ZDPublishProgress &progress);

    void agentDidFinishPublishingError(PublishingAgentBase *agent,
                                       const std::optional<ZDError> &error) override;
    void alertViewWillDismissWithButtonIndex(ZDAlertView *alertView, int buttonIndex) override;

Q_SIGNALS:
    void progressed(qint64 written, qint64 total);
    // Publishing ended (or was abandoned) with this outcome.
    void finished(HostOutcome outcome);
    // The user closed the result.
    void done();

private:
    QWidget *makeProgressPage();
    QWidget *makeResultPage();
    void showResult(HostOutcome outcome, const QString &title, const QString &message);
    void printProgress(qint64 written, qint64 total);
    void resumeNext();
    // Runs `then` on a later turn of the event loop once the user is signed in.
    void whenSignedIn(std::function<void()> then);

    QString m_videoPath;
    qint64 m_videoSize = 0;
    std::unique_ptr<DemoHostAgent> m_agent;
    QStackedLayout *m_pages = nullptr;
    QWidget *m_progressPage = nullptr;
    QWidget *m_resultPage = nullptr;
    QLabel *m_progressTitle = nullptr;
    QProgressBar *m_progressBar = nullptr;
    QLabel *m_progressText = nullptr;
    QPushButton *m_cancelButton = nullptr;
    QLabel *m_resultTitle = nullptr;
    QLabel *m_resultMessage = nullptr;
    QPushButton *m_doneButton = nullptr;
    QElapsedTimer m_uploadClock;
    bool m_onTerminal = false;
    QPointer<QWidget> m_ownWindowSheet; // the form's window, when it has one
    void showPage(QWidget *page);
    int m_printedPercent = -1;
    ZDPublishPhase m_phase = ZDPublishPhase::Preparing;
    qint64 m_resumedAt = 0;
    qint64 m_lostAt = 0;          // how far sending had got when the connection was last lost
    qint64 m_furthestWritten = 0; // since sending last (re)started
    bool m_lostLineOpen = false;  // a lost connection's line waits for its end
    QList<ZDUploadJournalEntry> m_toResume;
    QList<ZDUploadJournalEntry> m_offered; // what the alert asks about
    QPointer<ZDAlertView> m_resumeAlert;
    bool m_resuming = false;
    HostOutcome m_worstOutcome = HostOutcome::Published;
};
