#pragma once

#include <QString>
#include <QStringList>

#include <optional>

class HostSheet;
class QWidget;

// A user who fills in the publishing sheet with real clicks and keystrokes, for
// the demo without a display and for end-to-end tests: signs in (first with a
// wrong password, when asked to), types title, description and tags, turns the
// category wheel, chooses quality and access and presses publish.
struct Script
{
    QString user = QStringLiteral("demo");
    QString password = QStringLiteral("demo-password");
    bool wrongPasswordFirst = true;
    QString title;
    QString description;
    QStringList tags;
    QString category; // a display name on the wheel; empty leaves the first
    QString access = QStringLiteral("public");
    bool highDefinition = false;

    // What else happens, for demonstrating faults.
    bool cancelSheet = false;               // press Cancel instead of publishing
    std::optional<qint64> cancelAfterBytes; // cancel the upload once this much is sent
    bool revokeBeforePublish = false;       // the service revokes the sign-in first
    bool deleteFileBeforePublish = false;   // the video goes away before it is sent
    QString screenshotDir;                  // where to save pictures of the sheet
    bool keyboardOnly = false;              // Tab, arrows, Space and typing; no mouse
};

class ScriptedUser
{
public:
    ScriptedUser(HostSheet &sheet, Script script) : m_sheet(sheet), m_script(std::move(script)) {}

    // Runs the script up to the press of publish (or cancel). False when the
    // sheet did not do what a user waits for; the reason is printed.
    bool fillInAndPublish();
    // Signs in unless the sheet is signed in already; all a run that resumes
    // interrupted uploads asks of the user (what they publish was filled in
    // when they began).
    bool signInUnlessSignedIn();
    // Signs in unless signed in, waits for the alert that offers to resume
    // interrupted uploads and presses Resume (`resume`) or Not Now; after Not
    // Now it cancels the sheet, as nothing else was to be published.
    bool answerResumeAlert(bool resume);
    // Mouse presses and releases that reached any widget since the script began.
    int mouseEvents() const;
    // Saves a picture of the sheet as `name` in the screenshot folder, if any.
    void screenshot(const QString &name) const;

private:
    bool signIn(const QString &password, bool pressReturn);
    bool signInAsScripted();
    bool readSignInFailure(bool screenshotIt);
    bool fail(const char *what) const;
    bool fillInByKeyboard();
    bool signInByKeyboard(const QString &password);
    bool signInByKeyboardUnlessSignedIn();
    bool tabTo(QWidget *target);

    HostSheet &m_sheet;
    bool m_gaveUp = false;
    Script m_script;
};
