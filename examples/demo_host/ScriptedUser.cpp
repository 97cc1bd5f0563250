#include "ScriptedUser.h"

#include "HostSheet.h"

#include <auth/ZDAuthenticator.h>
#include <host/EditableTextCell.h>
#include <net/JSONHTTPRequest.h>
#include <toolkit/ZDAlertView.h>
#include <toolkit/ZDNavigationController.h>
#include <toolkit/ZDPickerView.h>

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QTest>
#include <QTimer>

#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int kPatience = 30000; // ms a user waits for the sheet to react

void say(const QString &text)
{
    std::printf("user: %s\n", qPrintable(text));
    std::fflush(stdout);
}

ZDAlertView *visible(ZDAlertView *alert)
{
    return alert && alert->isVisibleAlert() ? alert : nullptr;
}

// Taps a row of the form's table where a finger would: its left part.
void tap(ZDTableView *table, ZDIndexPath row)
{
    // Rows may still be sliding after a row came or went, for longer than
    // usual on a busy machine: a user's finger lands where the row has come to
    // rest, so the tap waits for that rather than hitting its neighbour.
    const auto resting = [&] {
        table->scrollToRowAtIndexPath(row, ZDTableView::ScrollPosition::Middle, false);
        const ZDTableViewCell *cell = table->cellForRowAtIndexPath(row);
        return cell && cell->geometry() == table->rectForRowAtIndexPath(row);
    };
    // A row that never rests is tapped all the same; the step after the tap
    // then says what did not happen.
    [[maybe_unused]] const bool rested = QTest::qWaitFor(resting, kPatience);
    const QRect rect = table->rectForRowAtIndexPath(row);
    QTest::mouseClick(table->contentWidget(), Qt::LeftButton, {},
                      QPoint(rect.left() + 8, rect.center().y()));
    QTest::qWait(120);
}

// Types `text` key by key. Characters beyond ASCII arrive as key events that
// carry their text, as an input method delivers them.
void type(QWidget *widget, const QString &text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const char16_t c = text[i].unicode();
        if (c >= 0x20 && c < 0x7f) {
            QTest::keyClick(widget, char(c));
            continue;
        }
        const qsizetype length = text[i].isHighSurrogate() && i + 1 < text.size() ? 2 : 1;
        QTest::sendKeyEvent(QTest::Click, widget, Qt::Key_unknown, text.mid(i, length),
                            Qt::NoModifier);
        i += length - 1;
    }
}

QWidget *editorAt(ZDTableView *table, ZDIndexPath row)
{
    auto *cell = dynamic_cast<EditableTextCell *>(table->cellForRowAtIndexPath(row));
    return cell ? cell->editor() : nullptr;
}

// Asks the service to revoke every sign-in, as signing out on another device would.
bool revokeSignIns()
{
    struct Waiter : JSONHTTPRequestDelegate
    {
        void requestDidReceiveObject(JSONHTTPRequest *, const QVariant &) override
        {
            ok = done = true;
        }
        void requestDidFailWithError(JSONHTTPRequest *, const ZDError &) override { done = true; }
        bool done = false;
        bool ok = false;
    } waiter;
    JSONHTTPRequest request(DemoVideo::endpoint(u"admin/revoke"_s), &waiter);
    request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    request.setPostParams(QVariantMap());
    request.start();
    return QTest::qWaitFor([&] { return waiter.done; }, kPatience) && waiter.ok;
}

// Counts the mouse presses and releases the whole application receives.
struct MouseCounter : QObject
{
    int count = 0;
    bool eventFilter(QObject *, QEvent *event) override
    {
        if (event->type() == QEvent::MouseButtonPress ||
            event->type() == QEvent::MouseButtonRelease ||
            event->type() == QEvent::MouseButtonDblClick)
            ++count;
        return false;
    }
};

MouseCounter &mouseCounter()
{
    static MouseCounter counter;
    return counter;
}

// A key pressed where the keyboard focus is (the window when nothing has it).
void press(QWidget *window, Qt::Key key, Qt::KeyboardModifiers modifiers = {})
{
    QWidget *target = QApplication::focusWidget();
    QTest::keyClick(target ? target : window, key, modifiers);
    QTest::qWait(30);
}

} // namespace

int ScriptedUser::mouseEvents() const
{
    return mouseCounter().count;
}

// Presses Tab until `target` holds the focus; a stop is skipped at most twice
// round the whole sheet.
bool ScriptedUser::tabTo(QWidget *target)
{
    for (int i = 0; i < 80 && QApplication::focusWidget() != target; ++i)
        press(m_sheet.window(), Qt::Key_Tab);
    return QApplication::focusWidget() == target;
}

bool ScriptedUser::signInByKeyboard(const QString &password)
{
    DemoPublishViewController *form = m_sheet.form();
    if (!QTest::qWaitFor([&] { return visible(form->authenticationAlert()); }, kPatience))
        return fail("the sign-in dialog did not appear");
    QTest::qWait(300);
    ZDAlertView *dialog = form->authenticationAlert();
    if (QApplication::focusWidget() != dialog->textFieldAtIndex(0))
        return fail("the sign-in dialog did not take the focus");
    type(QApplication::focusWidget(), m_script.user);
    press(m_sheet.window(), Qt::Key_Tab);
    type(QApplication::focusWidget(), password);
    press(m_sheet.window(), Qt::Key_Return);
    return true;
}

bool ScriptedUser::signInByKeyboardUnlessSignedIn()
{
    DemoPublishViewController *form = m_sheet.form();
    QWidget *window = m_sheet.window();
    QPushButton *publish = m_sheet.navigation()->rightButton();
    qApp->installEventFilter(&mouseCounter());

    QTest::qWait(300);
    if (!publish->isEnabled()) {
        if (m_script.wrongPasswordFirst) {
            say(u"signs in as %1 with a wrong password, by keyboard"_s.arg(m_script.user));
            if (!signInByKeyboard(u"not-the-password"_s))
                return false;
            if (!QTest::qWaitFor([&] { return visible(form->authenticationFailedAlert()); },
                                 kPatience))
                return fail("no alert told of the refused sign-in");
            QTest::qWait(300);
            say(u"hears \"%1\" and presses Return"_s.arg(
                form->authenticationFailedAlert()->title()));
            press(window, Qt::Key_Return);
        }
        say(u"signs in as %1, by keyboard"_s.arg(m_script.user));
        if (!signInByKeyboard(m_script.password))
            return false;
        if (!QTest::qWaitFor([&] { return publish->isEnabled(); }, kPatience))
            return fail("the sign-in did not succeed");
    }
    return true;
}

bool ScriptedUser::fillInByKeyboard()
{
    DemoPublishViewController *form = m_sheet.form();
    ZDTableView *table = form->tableView();
    const ZDSectionIndices sections = form->sectionIndices();
    QWidget *window = m_sheet.window();
    QPushButton *publish = m_sheet.navigation()->rightButton();
    if (!signInByKeyboardUnlessSignedIn())
        return false;
    QTest::qWait(300);

    say(u"tabs to the title and types it, then the description"_s);
    if (!tabTo(editorAt(table, {int(sections.title), 0})))
        return fail("Tab never reached the title");
    type(QApplication::focusWidget(), m_script.title);
    press(window, Qt::Key_Tab);
    if (QApplication::focusWidget() != editorAt(table, {int(sections.title), 1}))
        return fail("Tab from the title did not reach the description");
    type(QApplication::focusWidget(), m_script.description);

    if (!m_script.tags.isEmpty()) {
        say(u"tabs to the tags and types %1"_s.arg(m_script.tags.join(u", ")));
        if (!tabTo(editorAt(table, {int(sections.tags), 0})))
            return fail("Tab never reached the tags");
        for (qsizetype i = 0; i < m_script.tags.size(); ++i) {
            const bool last = i + 1 == m_script.tags.size();
            type(QApplication::focusWidget(), m_script.tags[i] + (last ? u""_s : u","_s));
            QTest::qWait(350);
        }
    }

    if (sections.category >= 0 && !m_script.category.isEmpty()) {
        say(u"opens the category wheel with Space and types the start of %1"_s.arg(
            m_script.category));
        if (!tabTo(table->cellForRowAtIndexPath({int(sections.category), 0})))
            return fail("Tab never reached the category row");
        press(window, Qt::Key_Space);
        ZDPickerView *wheel = form->picker();
        if (!wheel || QApplication::focusWidget() != wheel)
            return fail("the category wheel did not take the focus");
        QTest::qWait(400);
        // Its first letter, again and again, steps through the names that start so.
        const QString wanted = m_script.category;
        for (int i = 0;
             i < 40 && wheel->titleForRowInComponent(wheel->selectedRowInComponent(0), 0) != wanted;
             ++i) {
            type(wheel, wanted.left(1));
            QTest::qWait(500); // each press is a search of its own
        }
        if (wheel->titleForRowInComponent(wheel->selectedRowInComponent(0), 0) != wanted)
            return fail("typing the category's first letter did not turn the wheel to it");
        QTest::qWait(300);
        press(window, Qt::Key_Escape); // the wheel goes away, the focus returns to the row
        QTest::qWait(400);
    }
    if (sections.hd >= 0) {
        say(m_script.highDefinition ? u"chooses high definition with Space"_s
                                    : u"keeps standard definition"_s);
        if (!tabTo(
                table->cellForRowAtIndexPath({int(sections.hd), m_script.highDefinition ? 1 : 0})))
            return fail("Tab never reached the quality row");
        press(window, Qt::Key_Space);
    }
    if (sections.access >= 0) {
        const qsizetype row = DemoPublishViewController::accessValues().indexOf(m_script.access);
        if (row < 0)
            return fail("no such access row");
        say(u"makes the video %1 with Space"_s.arg(m_script.access));
        if (!tabTo(table->cellForRowAtIndexPath({int(sections.access), int(row)})))
            return fail("Tab never reached the access row");
        press(window, Qt::Key_Space);
    }
    screenshot(u"demo-form-keyboard-only.png"_s);

    say(u"tabs to Publish and presses Space"_s);
    if (!tabTo(publish))
        return fail("Tab never reached Publish");
    press(window, Qt::Key_Space);
    return true;
}

bool ScriptedUser::fail(const char *what) const
{
    std::fprintf(stderr, "scripted user: %s\n", what);
    return false;
}

void ScriptedUser::screenshot(const QString &name) const
{
    if (m_script.screenshotDir.isEmpty())
        return;
    QDir().mkpath(m_script.screenshotDir);
    m_sheet.grab().save(m_script.screenshotDir + u'/' + name);
}

bool ScriptedUser::signIn(const QString &password, bool pressReturn)
{
    DemoPublishViewController *form = m_sheet.form();
    if (!QTest::qWaitFor([&] { return visible(form->authenticationAlert()); }, kPatience))
        return fail("the sign-in dialog did not appear");
    QTest::qWait(300); // the dialog fades in
    ZDAlertView *dialog = form->authenticationAlert();
    type(dialog->textFieldAtIndex(0), m_script.user);
    type(dialog->textFieldAtIndex(1), password);
    if (pressReturn)
        QTest::keyClick(dialog->textFieldAtIndex(1), Qt::Key_Return);
    else
        QTest::mouseClick(dialog->buttonAtIndex(dialog->firstOtherButtonIndex()), Qt::LeftButton);
    return true;
}

// Reads the failed-sign-in alert, presses OK and reads the dialog that follows.
bool ScriptedUser::readSignInFailure(bool screenshotIt)
{
    DemoPublishViewController *form = m_sheet.form();
    QTest::qWait(300);
    if (screenshotIt)
        screenshot(u"demo-sign-in-failed.png"_s);
    say(u"reads \"%1\" and presses OK"_s.arg(form->authenticationFailedAlert()->title()));
    QTest::mouseClick(form->authenticationFailedAlert()->buttonAtIndex(0), Qt::LeftButton);
    if (!QTest::qWaitFor([&] { return visible(form->authenticationAlert()); }, kPatience))
        return fail("the sign-in dialog did not come back");
    say(u"reads \"%1\""_s.arg(form->authenticationAlert()->message()));
    return true;
}

bool ScriptedUser::signInAsScripted()
{
    DemoPublishViewController *form = m_sheet.form();
    if (m_script.wrongPasswordFirst) {
        say(u"signs in as %1 with a wrong password"_s.arg(m_script.user));
        if (!signIn(u"not-the-password"_s, false))
            return false;
        if (!QTest::qWaitFor([&] { return visible(form->authenticationFailedAlert()); }, kPatience))
            return fail("no alert told of the refused sign-in");
        if (!readSignInFailure(true))
            return false;
    }

    say(u"signs in as %1"_s.arg(m_script.user));
    if (!signIn(m_script.password, true))
        return false;
    QPushButton *publish = m_sheet.navigation()->rightButton();
    if (!QTest::qWaitFor(
            [&] { return publish->isEnabled() || visible(form->authenticationFailedAlert()); },
            kPatience))
        return fail("the sign-in did not succeed");
    if (!publish->isEnabled()) {
        // The right password failed too (the service cannot be reached): give up.
        if (!readSignInFailure(false))
            return false;
        say(u"gives up and cancels"_s);
        ZDAlertView *dialog = form->authenticationAlert();
        QTest::mouseClick(dialog->buttonAtIndex(dialog->cancelButtonIndex()), Qt::LeftButton);
        m_gaveUp = true;
        return true;
    }
    say(u"is signed in as %1"_s.arg(form->authenticator()->account()));
    return true;
}

bool ScriptedUser::signInUnlessSignedIn()
{
    if (m_script.keyboardOnly)
        return signInByKeyboardUnlessSignedIn();
    QTest::qWait(300); // the sheet appears
    if (m_sheet.navigation()->rightButton()->isEnabled()) {
        say(u"is already signed in as %1"_s.arg(m_sheet.form()->authenticator()->account()));
        return true;
    }
    return signInAsScripted();
}

bool ScriptedUser::answerResumeAlert(bool resume)
{
    if (!signInUnlessSignedIn())
        return false;
    if (m_gaveUp)
        return true; // the sheet is cancelled
    if (!QTest::qWaitFor([&] { return visible(m_sheet.interruptedUploadsAlert()); }, kPatience))
        return fail("no alert offered to resume the interrupted uploads");
    QTest::qWait(300); // the alert fades in
    screenshot(u"demo-interrupted-uploads.png"_s);
    ZDAlertView *alert = m_sheet.interruptedUploadsAlert();
    QPushButton *button =
        alert->buttonAtIndex(resume ? alert->firstOtherButtonIndex() : alert->cancelButtonIndex());
    if (m_script.keyboardOnly) {
        // Return presses the button that has the focus; Tab moves it along.
        say(u"hears \"%1\", moves to %2 and presses Return"_s.arg(alert->title(), button->text()));
        if (!tabTo(button))
            return fail("Tab never reached the alert's button");
        press(m_sheet.window(), Qt::Key_Return);
    } else {
        say(u"reads \"%1\" and presses %2"_s.arg(alert->title(), button->text()));
        QTest::mouseClick(button, Qt::LeftButton);
    }
    if (resume)
        return true;
    QTest::qWait(300);
    // Only the old uploads were what this user came for.
    QPushButton *cancel = m_sheet.navigation()->leftButton();
    if (m_script.keyboardOnly) {
        say(u"tabs to Cancel and presses Space"_s);
        if (!tabTo(cancel))
            return fail("Tab never reached Cancel");
        press(m_sheet.window(), Qt::Key_Space);
    } else {
        say(u"presses Cancel"_s);
        QTest::mouseClick(cancel, Qt::LeftButton);
    }
    return true;
}

bool ScriptedUser::fillInAndPublish()
{
    if (m_script.keyboardOnly)
        return fillInByKeyboard();
    DemoPublishViewController *form = m_sheet.form();
    ZDTableView *table = form->tableView();
    const ZDSectionIndices sections = form->sectionIndices();

    QPushButton *publish = m_sheet.navigation()->rightButton();
    if (!signInUnlessSignedIn())
        return false;
    if (m_gaveUp)
        return true; // the sheet is cancelled

    if (m_script.cancelSheet) {
        say(u"changes their mind and presses Cancel"_s);
        QTest::mouseClick(m_sheet.navigation()->leftButton(), Qt::LeftButton);
        return true;
    }

    // --- the video's details --------------------------------------------------------------
    say(u"types the title and the description"_s);
    tap(table, {int(sections.title), 0});
    type(editorAt(table, {int(sections.title), 0}), m_script.title);
    QTest::keyClick(editorAt(table, {int(sections.title), 0}), Qt::Key_Return);
    QTest::qWait(100);
    type(editorAt(table, {int(sections.title), 1}), m_script.description);

    if (!m_script.tags.isEmpty()) {
        say(u"types the tags %1"_s.arg(m_script.tags.join(u", ")));
        tap(table, {int(sections.tags), 0});
        for (qsizetype i = 0; i < m_script.tags.size(); ++i) {
            // The end-of-tag comma moves on to the blank row.
            const bool last = i + 1 == m_script.tags.size();
            type(QApplication::focusWidget(), m_script.tags[i] + (last ? u""_s : u","_s));
            QTest::qWait(350); // the new row slides in
        }
    }
    screenshot(u"demo-form-keyboard.png"_s);

    if (sections.category >= 0 && !m_script.category.isEmpty()) {
        const QList<ZDCategory> categories = form->categories().value_or(QList<ZDCategory>());
        qsizetype wanted = -1;
        for (qsizetype i = 0; i < categories.size(); ++i) {
            if (categories[i].displayName() == m_script.category)
                wanted = i;
        }
        if (wanted < 0)
            return fail("the category is not on the wheel");
        say(u"turns the category wheel to %1"_s.arg(m_script.category));
        tap(table, {int(sections.category), 0});
        if (!QTest::qWaitFor([&] { return form->picker() && form->picker()->isVisible(); },
                             kPatience))
            return fail("the category wheel did not come up");
        QTest::qWait(500);
        ZDPickerView *wheel = form->picker();
        // A tap one row below the middle brings that row to the middle.
        while (wheel->selectedRowInComponent(0) < wanted) {
            const QPoint below(wheel->width() / 2, wheel->height() / 2 + 40);
            QTest::mouseClick(wheel, Qt::LeftButton, {}, below);
            QTest::qWait(120);
        }
        QTest::qWait(300);
        screenshot(u"demo-form-category.png"_s);
    }

    if (sections.hd >= 0) {
        say(m_script.highDefinition ? u"chooses high definition"_s
                                    : u"keeps standard definition"_s);
        tap(table, {int(sections.hd), m_script.highDefinition ? 1 : 0});
    }
    if (sections.access >= 0) {
        const qsizetype row = DemoPublishViewController::accessValues().indexOf(m_script.access);
        if (row < 0)
            return fail("no such access row");
        say(u"makes the video %1"_s.arg(m_script.access));
        tap(table, {int(sections.access), int(row)});
    }
    form->resignResponder();
    QTest::qWait(400);
    table->verticalScrollBar()->setValue(0); // back up to the logo
    QTest::qWait(50);
    screenshot(u"demo-form.png"_s);

    // --- faults the demo can show -----------------------------------------------------------
    if (m_script.revokeBeforePublish) {
        say(u"signs out of Demo Video on another device"_s);
        if (!revokeSignIns())
            return fail("the service did not revoke the sign-in");
    }
    if (m_script.deleteFileBeforePublish) {
        say(u"deletes the video file"_s);
        QFile::remove(m_sheet.videoPath());
    }
    if (m_script.cancelAfterBytes) {
        const qint64 limit = *m_script.cancelAfterBytes;
        auto connection = std::make_shared<QMetaObject::Connection>();
        *connection = QObject::connect(&m_sheet, &HostSheet::progressed, &m_sheet,
                                       [this, limit, connection](qint64 written, qint64) {
                                           if (written < limit)
                                               return;
                                           QObject::disconnect(*connection);
                                           say(u"presses Cancel while uploading"_s);
                                           // After this progress report has been delivered, as a
                                           // real tap would be.
                                           QTimer::singleShot(0, &m_sheet, [this] {
                                               QTest::mouseClick(m_sheet.cancelUploadButton(),
                                                                 Qt::LeftButton);
                                           });
                                       });
    }

    say(u"presses Publish"_s);
    QTest::mouseClick(publish, Qt::LeftButton);
    return true;
}
