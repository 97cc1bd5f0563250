// Where the keyboard focus goes when a phone's form acts on a row or closes an
// alert, and how a sheet shown as a window of its own is announced.

#include "FormFixtures.h"

#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"

#include <QAccessible>
#include <QPointer>
#include <QScopeGuard>
#include <QtTest>

class tst_FormFocus : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        ZDDevice::setKind(ZDDeviceKind::Phone);
        ZDKeyboard::shared().setEnabled(true);
    }
    void cleanup()
    {
        ZDDevice::resetKind();
        ZDKeyboard::shared().setEnabled(false);
    }
    void aKeyboardTapOnAChoiceRowKeepsTheFocusOnTheRow_data();
    void aKeyboardTapOnAChoiceRowKeepsTheFocusOnTheRow();
    void theAccountAlertHandsTheFocusBackToTheRowOrToNothing_data();
    void theAccountAlertHandsTheFocusBackToTheRowOrToNothing();
    void aSheetShownAsItsOwnWindowIsAnnouncedAsThatWindow();
};

namespace {

struct ActiveSheet : SignedInSheet
{
    ActiveSheet()
    {
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
    }
    ZDTableViewCell *cell(int section, int row) const
    {
        return table()->cellForRowAtIndexPath({section, row});
    }
};

} // namespace

void tst_FormFocus::aKeyboardTapOnAChoiceRowKeepsTheFocusOnTheRow_data()
{
    QTest::addColumn<bool>("quality");
    QTest::newRow("quality") << true;
    QTest::newRow("access") << false;
}

void tst_FormFocus::aKeyboardTapOnAChoiceRowKeepsTheFocusOnTheRow()
{
    QFETCH(bool, quality);
    ActiveSheet sheet;
    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData();
    const auto &sections = sheet.form->sectionIndices();
    const int section = int(quality ? sections.hd : sections.access);
    ZDTableViewCell *row = sheet.cell(section, 1);
    row->setFocus(Qt::TabFocusReason);
    QTest::keyClick(row, Qt::Key_Space);
    QVERIFY(quality ? sheet.form->optionCell(1)->isChosen()
                    : sheet.form->accessCell(1)->isChosen());
    QCOMPARE(QApplication::focusWidget(), row);
    // And the keyboard user goes on from there.
    QTest::keyClick(row, Qt::Key_Up);
    QCOMPARE(QApplication::focusWidget(), sheet.cell(section, 0));
}

void tst_FormFocus::theAccountAlertHandsTheFocusBackToTheRowOrToNothing_data()
{
    QTest::addColumn<bool>("byKeyboard");
    QTest::newRow("keyboard") << true;
    QTest::newRow("tap from the title") << false;
}

void tst_FormFocus::theAccountAlertHandsTheFocusBackToTheRowOrToNothing()
{
    QFETCH(bool, byKeyboard);
    ActiveSheet sheet;
    const ZDIndexPath account{int(sheet.form->sectionIndices().account), 0};
    ZDTableViewCell *row = sheet.cell(account.section, account.row);
    if (byKeyboard) {
        row->setFocus(Qt::TabFocusReason);
        QTest::keyClick(row, Qt::Key_Space);
    } else {
        sheet.form->titleCell()->becomeFirstResponder();
        QTRY_VERIFY(ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
        sheet.tap(account);
    }
    QPointer<ZDAlertView> alert = sheet.window->findChild<ZDAlertView *>();
    QVERIFY(visibleAlert(alert));
    QTest::mouseClick(alert->buttonAtIndex(alert->cancelButtonIndex()), Qt::LeftButton);
    QTRY_VERIFY(!alert);

    QCOMPARE(QApplication::focusWidget(), byKeyboard ? static_cast<QWidget *>(row) : nullptr);
    QTest::qWait(int(ZDDevice::kKeyboardAnimationDuration * 1000) + 50);
    QVERIFY(!ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
}

void tst_FormFocus::aSheetShownAsItsOwnWindowIsAnnouncedAsThatWindow()
{
    SignedInSheet sheet;
    const QString page = sheet.form->navigationItem()->title();
    QAccessibleInterface *shown = QAccessible::queryAccessibleInterface(sheet.window);
    QVERIFY(shown);
    // Without a title from the host the window goes by the page's.
    QCOMPARE(shown->role(), QAccessible::Window);
    QCOMPARE(shown->text(QAccessible::Name), page);
    sheet.window->setWindowTitle(u"Photos \u2014 Share"_s);
    QCOMPARE(shown->text(QAccessible::Name), u"Photos \u2014 Share"_s);

    // Inside a host's own window the page is a part of it, named after the page.
    QWidget host;
    host.setWindowTitle(u"Photos"_s);
    sheet.window->setParent(&host);
    const auto giveBack = qScopeGuard([&] { sheet.window->setParent(nullptr); });
    QVERIFY(shown->role() != QAccessible::Window);
    QCOMPARE(shown->text(QAccessible::Name), page);
}

QTEST_MAIN(tst_FormFocus)
#include "tst_formfocus.moc"
