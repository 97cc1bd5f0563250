#include "FormFixtures.h"
#include "TestSupport.h"

#include "auth/ZDAuthenticator.h"
#include "core/ZDNotificationCenter.h"
#include "host/EditableTextCell.h"
#include "publish/ZDFooterContainerView.h"
#include "publish/ZDPublishViewController.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"
#include "toolkit/ZDNavigationController.h"

#include <QAccessible>
#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPushButton>
#include <QTest>

using namespace Qt::StringLiterals;

Q_DECLARE_METATYPE(ZDSectionIndices)

class tst_PublishForm : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { ZDDevice::setKind(ZDDeviceKind::Phone); }
    void cleanup() { ZDDevice::resetKind(); }
    void sectionsAreNumberedInTheirFixedOrder_data();
    void sectionsAreNumberedInTheirFixedOrder();
    void rowHeightsAndTheLogoHeader();
    void publishFollowsTheSignInStateAndReachesTheDelegate();
    void signInDialogAppearsWhileSignedOutAndReturnSignsIn();
    void signingInHandsTheFocusToTheTitleUnlessARowHasIt();
    void failedSignInShowsItsAlertThenAFreshDialog();
    void cancellingTheDialogOrSigningOutCancelsTheForm();
    void qualityRowsFollowTheEnableFlagAndCarryOneCheckmark();
    void accessRowsCarryOneCheckmarkStartingWithTheFirst();
    void unloadingTheViewKeepsTheQualityAndResetsTheAccessRow();
    void delegateMayDestroyTheFormInsideItsMessages();
    void alertsOutliveTheirFormAndObserversGoWithIt();
    void termsButtonOpensTheServiceTerms();
    void termsTextIsReadBetweenTheAccountRowAndTheTermsButton();
    void abstractOperationsStopTheProgram();
};

void tst_PublishForm::sectionsAreNumberedInTheirFixedOrder_data()
{
    QTest::addColumn<bool>("hd");
    QTest::addColumn<bool>("categories");
    QTest::addColumn<bool>("access");
    QTest::addColumn<ZDSectionIndices>("expected");
    QTest::newRow("all") << true << true << true << ZDSectionIndices{0, 1, 2, 3, 4, 5};
    QTest::newRow("no access") << true << true << false << ZDSectionIndices{0, 1, 2, 3, -1, 4};
    QTest::newRow("no categories") << true << false << true << ZDSectionIndices{0, 1, 2, -1, 3, 4};
    QTest::newRow("hd only") << true << false << false << ZDSectionIndices{0, 1, 2, -1, -1, 3};
    QTest::newRow("no hd") << false << true << true << ZDSectionIndices{0, -1, 1, 2, 3, 4};
    QTest::newRow("categories only")
        << false << true << false << ZDSectionIndices{0, -1, 1, 2, -1, 3};
    QTest::newRow("access only") << false << false << true << ZDSectionIndices{0, -1, 1, -1, 2, 3};
    QTest::newRow("none") << false << false << false << ZDSectionIndices{0, -1, 1, -1, -1, 2};
}

void tst_PublishForm::sectionsAreNumberedInTheirFixedOrder()
{
    QFETCH(bool, hd);
    QFETCH(bool, categories);
    QFETCH(bool, access);
    QFETCH(ZDSectionIndices, expected);
    TestAuthenticator auth;
    Sheet sheet(&auth, {true, categories, access ? std::optional(3) : std::nullopt, hd});
    sheet.form->view();
    QCOMPARE(sheet.form->sectionIndices(), expected);
    QCOMPARE(sheet.table()->numberOfSections(), int(expected.account + 1));
    QCOMPARE(sheet.table()->numberOfRowsInSection(0), 2);
    QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.tags)), 1); // one blank tag row
    QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.account)), 1);
    if (hd)
        QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.hd)), 2);
    if (access)
        QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.access)), 3);
    QCOMPARE(sheet.table()->footerTitleForSection(int(expected.account)),
             u"By publishing you accept the terms."_s);
    // Set after the view was built, the quality flag moves nothing.
    sheet.form->setShowHDSection(!hd);
    sheet.table()->reloadData();
    QCOMPARE(sheet.form->sectionIndices(), expected);
}

void tst_PublishForm::rowHeightsAndTheLogoHeader()
{
    TestAuthenticator auth;
    Sheet sheet(&auth);
    sheet.show();
    ZDTableView *table = sheet.table();
    const ZDSectionIndices s = sheet.form->sectionIndices();
    QCOMPARE(table->rectForRowAtIndexPath({0, 0}).height(), 40);
    QCOMPARE(table->rectForRowAtIndexPath({0, 1}).height(), 120);
    QCOMPARE(sheet.form->descriptionHeight(), 120.0);
    QCOMPARE(table->rectForRowAtIndexPath({int(s.hd), 1}).height(), 40);
    QCOMPARE(table->rectForRowAtIndexPath({int(s.access), 0}).height(), 52);
    QCOMPARE(table->rectForRowAtIndexPath({int(s.account), 0}).height(), 40);

    const int width = table->viewport()->width();
    QWidget *header = table->headerViewForSection(0);
    QCOMPARE(header->geometry(), QRect(0, 0, width, 40 + 30));
    auto *logo = header->findChild<QLabel *>();
    QVERIFY(logo);
    QCOMPARE(logo->geometry(), QRect(int((width - 120) * 0.5), 15, 120, 40));
    QCOMPARE(table->headerViewForSection(1), nullptr);

    // A logo drawn at twice the density takes the same room, in points.
    TestAuthenticator sharp;
    FormOptions highDensity;
    highDensity.logoPixelRatio = 2;
    Sheet dense(&sharp, highDensity);
    dense.show();
    QCOMPARE(dense.table()->headerViewForSection(0)->height(), 40 + 30);
    QCOMPARE(dense.table()->headerViewForSection(0)->findChild<QLabel *>()->geometry(),
             QRect(int((width - 120) * 0.5), 15, 120, 40));

    TestAuthenticator other;
    Sheet plain(&other, {false, false, std::nullopt, false});
    plain.show();
    QWidget *bare = plain.table()->headerViewForSection(0);
    QCOMPARE(bare->height(), 30);
    QCOMPARE(bare->findChild<QLabel *>()->geometry(),
             QRect(plain.table()->viewport()->width() / 2, 15, 0, 0));
}

void tst_PublishForm::publishFollowsTheSignInStateAndReachesTheDelegate()
{
    TestAuthenticator auth;
    auth.setSignedIn(u"Ann"_s);
    Sheet sheet(&auth);
    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData();
    sheet.show();
    QTest::keyClicks(sheet.form->titleCell()->editor(), u"Summer at the sea"_s);
    sheet.save(u"form-phone-signed-in.png"_s);
    QVERIFY(sheet.publishButton()->isEnabled());
    QCOMPARE(sheet.form->accountCell()->textLabel()->text(),
             L("ACCOUNT_NAME_FORMAT").arg(u"Ann"_s));

    auth.setState(7); // any state but 2 is signed out, whatever the account says
    QVERIFY(!sheet.publishButton()->isEnabled());
    QCOMPARE(sheet.form->accountCell()->textLabel()->text(), L("ACCOUNT_BLANK"));
    QVERIFY(!sheet.form->accountCell()->isUserInteractionEnabled());
    QTest::mouseClick(sheet.publishButton(), Qt::LeftButton);
    QVERIFY(sheet.delegate.events.isEmpty());

    auth.setState(ZDAuthenticatorStateSignedIn);
    sheet.form->allowPublish = false;
    QTest::mouseClick(sheet.publishButton(), Qt::LeftButton);
    QVERIFY(sheet.delegate.events.isEmpty());
    sheet.form->allowPublish = true;
    QTest::mouseClick(sheet.publishButton(), Qt::LeftButton);
    QTest::mouseClick(sheet.navigation->leftButton(), Qt::LeftButton);
    QCOMPARE(sheet.delegate.events, (QStringList{u"published"_s, u"cancelled"_s}));

    sheet.form->showAlertWithTitleMessage(u"Title missing"_s, u"Please add a title."_s);
    auto *alert = sheet.window->findChild<ZDAlertView *>();
    QVERIFY(alert && alert->isVisibleAlert());
    QCOMPARE(alert->title(), u"Title missing"_s);
    QCOMPARE(alert->numberOfButtons(), 1);
    QCOMPARE(alert->buttonTitleAtIndex(0), L("OK"));
    QTest::mouseClick(alert->buttonAtIndex(0), Qt::LeftButton);

    sheet.form->setDelegate(nullptr); // a missing delegate swallows both
    QTest::mouseClick(sheet.publishButton(), Qt::LeftButton);
    QTest::mouseClick(sheet.navigation->leftButton(), Qt::LeftButton);
    QCOMPARE(sheet.delegate.events.size(), 2);
}

void tst_PublishForm::signInDialogAppearsWhileSignedOutAndReturnSignsIn()
{
    TestAuthenticator auth;
    Sheet sheet(&auth);
    sheet.show();
    QCOMPARE(auth.loads, 1); // stored credentials are tried first
    QTRY_VERIFY(visibleAlert(sheet.form->authenticationAlert()));
    QTest::qWait(250); // let the dialog fade in
    sheet.save(u"form-phone-signed-out.png"_s);
    ZDAlertView *dialog = sheet.form->authenticationAlert();
    QTest::keyClicks(dialog->textFieldAtIndex(0), u"ann"_s);
    QTest::keyClicks(dialog->textFieldAtIndex(1), u"secret"_s);
    QTest::keyClick(dialog->textFieldAtIndex(1), Qt::Key_Return);
    QCOMPARE(auth.attempts, QStringList{u"ann/secret"_s});
    QVERIFY(sheet.publishButton()->isEnabled());
    QCOMPARE(sheet.form->authenticationAlert(), nullptr);

    // Stored credentials that sign in silently: no dialog.
    TestAuthenticator stored;
    stored.storedSignIn = true;
    Sheet silent(&stored);
    silent.show();
    QTest::qWait(50);
    QCOMPARE(stored.dialogs, 0);
    QVERIFY(silent.publishButton()->isEnabled());
}

void tst_PublishForm::signingInHandsTheFocusToTheTitleUnlessARowHasIt()
{
    TestAuthenticator auth;
    Sheet sheet(&auth);
    sheet.show();
    sheet.window->activateWindow();
    QVERIFY(QTest::qWaitForWindowActive(sheet.window));
    QTRY_VERIFY(visibleAlert(sheet.form->authenticationAlert()));
    ZDAlertView *dialog = sheet.form->authenticationAlert();
    QTest::keyClicks(dialog->textFieldAtIndex(0), u"ann"_s);
    QTest::keyClicks(dialog->textFieldAtIndex(1), u"secret"_s);
    QTest::keyClick(dialog->textFieldAtIndex(1), Qt::Key_Return);
    QWidget *title = sheet.form->titleCell()->editor();
    QTRY_COMPARE(QApplication::focusWidget(), title);
    // The first Tab goes on through the form, not back to the bar's Cancel.
    QTest::keyClick(title, Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget(), sheet.form->descriptionCell()->editor());

    // Signed in again later, with the focus on a row: the row keeps it.
    auth.setState(ZDAuthenticatorStateSignedOut);
    auth.setSignedIn(u"Ann"_s);
    QTest::qWait(50);
    QCOMPARE(QApplication::focusWidget(), sheet.form->descriptionCell()->editor());
}

void tst_PublishForm::failedSignInShowsItsAlertThenAFreshDialog()
{
    TestAuthenticator auth;
    Sheet sheet(&auth);
    sheet.show();
    QTRY_VERIFY(visibleAlert(sheet.form->authenticationAlert()));
    ZDAlertView *dialog = sheet.form->authenticationAlert();
    QTest::keyClicks(dialog->textFieldAtIndex(0), u"ann"_s);
    QTest::keyClicks(dialog->textFieldAtIndex(1), u"wrong"_s);
    QTest::mouseClick(dialog->buttonAtIndex(dialog->firstOtherButtonIndex()), Qt::LeftButton);
    QCOMPARE(auth.attempts, QStringList{u"ann/wrong"_s});
    ZDAlertView *failed = visibleAlert(sheet.form->authenticationFailedAlert());
    QVERIFY(failed);
    QCOMPARE(failed->title(), L("AUTHENTICATION_FAILED_TITLE"));
    QCOMPARE(failed->numberOfButtons(), 1);
    QCOMPARE(failed->buttonTitleAtIndex(0), L("OK_BUTTON"));
    QVERIFY(!sheet.publishButton()->isEnabled());
    QTest::qWait(250); // let the alert fade in
    sheet.save(u"form-phone-signin-failed.png"_s);
    QTest::mouseClick(failed->buttonAtIndex(0), Qt::LeftButton);
    QCOMPARE(sheet.form->authenticationFailedAlert(), nullptr);
    QCOMPARE(auth.dialogs, 2);
    QVERIFY(visibleAlert(sheet.form->authenticationAlert()));
    QVERIFY(sheet.delegate.events.isEmpty());
}

void tst_PublishForm::cancellingTheDialogOrSigningOutCancelsTheForm()
{
    TestAuthenticator auth;
    {
        Sheet sheet(&auth);
        sheet.show();
        QTRY_VERIFY(visibleAlert(sheet.form->authenticationAlert()));
        ZDAlertView *dialog = sheet.form->authenticationAlert();
        QTest::mouseClick(dialog->buttonAtIndex(dialog->cancelButtonIndex()), Qt::LeftButton);
        QCOMPARE(sheet.delegate.events, QStringList{u"cancelled"_s});
        QVERIFY(auth.attempts.isEmpty());
    }
    auth.setSignedIn(u"Ann"_s);
    Sheet sheet(&auth);
    sheet.show();
    const int account = int(sheet.form->sectionIndices().account);
    sheet.tap({account, 0});
    QPointer<ZDAlertView> alert = sheet.form->shownAccountAlert();
    QVERIFY(visibleAlert(alert));
    QTest::mouseClick(alert->buttonAtIndex(alert->cancelButtonIndex()), Qt::LeftButton);
    QVERIFY(sheet.delegate.events.isEmpty());
    QCOMPARE(auth.authenticatorState(), ZDAuthenticatorStateSignedIn);
    sheet.tap({account, 0});
    alert = sheet.form->shownAccountAlert();
    QTest::mouseClick(alert->buttonAtIndex(alert->firstOtherButtonIndex()), Qt::LeftButton);
    QCOMPARE(auth.authenticatorState(), ZDAuthenticatorStateSignedOut);
    QCOMPARE(sheet.delegate.events, QStringList{u"cancelled"_s});
    QCOMPARE(sheet.form->shownAccountAlert(), nullptr);
}

void tst_PublishForm::qualityRowsFollowTheEnableFlagAndCarryOneCheckmark()
{
    SignedInSheet sheet;
    const int hd = int(sheet.form->sectionIndices().hd);
    EditableTextCell *sd = sheet.form->optionCell(0);
    EditableTextCell *hdCell = sheet.form->optionCell(1);
    QCOMPARE(hdCell->sizeLabel()->text(), u"REQUIRES_WIFI"_s);
    QCOMPARE(hdCell->mainLabel()->text(), L("HD"));
    QCOMPARE(hdCell->textColor(), QColor::fromRgbF(0.7f, 0.7f, 0.7f, 1.0f));
    QVERIFY(!hdCell->isUserInteractionEnabled());
    QCOMPARE(sd->sizeLabel()->text(), L("SIZE_FORMAT_PARENS").arg(u"12.6 MB"_s));
    QCOMPARE(sd->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    sheet.tap({hd, 1});
    QCOMPARE(sheet.form->selectedOption(), 0);

    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData();
    QCOMPARE(hdCell->sizeLabel()->text(), L("SIZE_FORMAT_PARENS").arg(u"50.3 MB"_s));
    sheet.tap({hd, 1});
    QCOMPARE(sheet.form->selectedOption(), 1);
    QCOMPARE(hdCell->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QCOMPARE(sd->accessoryType(), ZDTableViewCell::Accessory::None);
    QCOMPARE(sd->textColor(), QColor(Qt::black));
    sheet.tap({hd, 1}); // the chosen row again: still chosen, only deselected
    QCOMPARE(sheet.form->selectedOption(), 1);
    QCOMPARE(hdCell->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QTRY_VERIFY(!hdCell->isHighlighted());
}

void tst_PublishForm::accessRowsCarryOneCheckmarkStartingWithTheFirst()
{
    TestAuthenticator auth;
    Sheet sheet(&auth, {true, true, 3, true});
    sheet.show();
    const int access = int(sheet.form->sectionIndices().access);
    QCOMPARE(sheet.form->accessRow(), quintptr(0));
    QCOMPARE(sheet.form->accessCell(0)->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    sheet.tap({access, 2});
    QCOMPARE(sheet.form->accessRow(), quintptr(2));
    int marked = 0;
    for (size_t i = 0; i < 3; ++i)
        marked +=
            sheet.form->accessCell(i)->accessoryType() == ZDTableViewCell::Accessory::Checkmark;
    QCOMPARE(marked, 1);
    QCOMPARE(sheet.form->accessCell(2)->accessoryType(), ZDTableViewCell::Accessory::Checkmark);

    TestAuthenticator other;
    Sheet empty(&other, {true, true, 0, true});
    empty.show();
    QCOMPARE(empty.table()->numberOfRowsInSection(int(empty.form->sectionIndices().access)), 0);
    QCOMPARE(empty.form->accessRow(), quintptr(0));
}

void tst_PublishForm::unloadingTheViewKeepsTheQualityAndResetsTheAccessRow()
{
    TestAuthenticator auth;
    auth.setSignedIn(u"Ann"_s);
    Sheet sheet(&auth, {true, true, 3, true});
    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData(); // the rows read the flag when the table asks for them
    sheet.show();
    const ZDSectionIndices s = sheet.form->sectionIndices();
    sheet.tap({int(s.hd), 1});
    QCOMPARE(sheet.form->selectedOption(), 1);
    sheet.tap({int(s.access), 1});
    QCOMPARE(sheet.form->accessRow(), quintptr(1));
    QTest::keyClicks(sheet.form->titleCell()->editor(), u"Lost"_s);
    sheet.window->hide();
    sheet.form->didReceiveMemoryWarning();
    QVERIFY(!sheet.form->isViewLoaded());
    QCOMPARE(sheet.form->videoTitle(), QString());
    sheet.window->show(); // builds the form's view again
    QVERIFY(QTest::qWaitForWindowExposed(sheet.window));
    QCOMPARE(sheet.form->selectedOption(), 1);
    QCOMPARE(sheet.form->optionCell(1)->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QCOMPARE(sheet.form->accessRow(), quintptr(0));
    QCOMPARE(sheet.form->accessCell(0)->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
}

void tst_PublishForm::delegateMayDestroyTheFormInsideItsMessages()
{
    TestAuthenticator auth;
    auth.setSignedIn(u"Ann"_s);
    for (const bool publish : {true, false}) {
        auto sheet = std::make_unique<Sheet>(&auth);
        sheet->show();
        QPointer<QPushButton> button =
            publish ? sheet->publishButton() : sheet->navigation->leftButton();
        sheet->delegate.destroyOnMessage = [&sheet] {
            // What a host does: drop the sheet, form and all, right away.
            sheet->navigation.reset();
            sheet->form.reset();
        };
        QTest::mouseClick(button, Qt::LeftButton);
        QVERIFY(!sheet->form);
        sheet.reset();
    }
}

void tst_PublishForm::alertsOutliveTheirFormAndObserversGoWithIt()
{
    TestAuthenticator auth;
    auth.setSignedIn(u"Ann"_s);
    auto sheet = std::make_unique<Sheet>(&auth);
    sheet->show();
    const int observers = ZDNotificationCenter::defaultCenter().observerCount();
    sheet->tap({int(sheet->form->sectionIndices().account), 0});
    QPointer<ZDAlertView> alert = sheet->form->shownAccountAlert();
    QVERIFY(visibleAlert(alert));
    alert->setParent(nullptr); // keep it while its window goes
    sheet.reset();
    QCOMPARE(ZDNotificationCenter::defaultCenter().observerCount(), observers - 4);
    // Signing out through an alert whose form is gone reaches nobody.
    alert->dismissWithClickedButtonIndex(alert->firstOtherButtonIndex(), false);
    QCOMPARE(auth.authenticatorState(), ZDAuthenticatorStateSignedIn);
    QTRY_VERIFY(!alert);
    // The authenticator goes on announcing to nobody.
    auth.invalidateAuthentication();
    auth.authenticateWithUsernamePassword(u"ann"_s, u"wrong"_s);
}

void tst_PublishForm::termsButtonOpensTheServiceTerms()
{
    SignedInSheet sheet;
    QList<QUrl> opened;
    ZDDevice::setURLOpener([&](const QUrl &url) {
        opened << url;
        return true;
    });
    auto *footer = qobject_cast<ZDFooterContainerView *>(sheet.table()->tableFooterView());
    QVERIFY(footer);
    QCOMPARE(footer->termsButton()->text(), L("TERMS_OF_USE"));
    QCOMPARE(footer->height(), footer->termsButton()->height() + 10);
    sheet.table()->scrollToRowAtIndexPath({int(sheet.form->sectionIndices().account), 0},
                                          ZDTableView::ScrollPosition::Top, false);
    QTest::mouseClick(footer->termsButton(), Qt::LeftButton);
    QCOMPARE(opened, QList<QUrl>{QUrl(u"https://video.example/terms"_s)});
    ZDDevice::setURLOpener({});
}

void tst_PublishForm::termsTextIsReadBetweenTheAccountRowAndTheTermsButton()
{
    SignedInSheet sheet;
    const QString terms = sheet.form->termsOfUseString();
    QAccessibleInterface *content =
        QAccessible::queryAccessibleInterface(sheet.table()->contentWidget());
    QVERIFY(content);
    int textAt = -1;
    for (int i = 0; i < content->childCount(); ++i) {
        if (content->child(i)->role() == QAccessible::StaticText)
            textAt = i;
    }
    QVERIFY(textAt >= 0);
    QAccessibleInterface *text = content->child(textAt);
    QCOMPARE(text->text(QAccessible::Name), terms);
    QCOMPARE(text->parent(), content);
    QCOMPARE(content->indexOfChild(text), textAt);
    // Where it is painted, so that a reader that follows the screen finds it.
    const QRect painted =
        sheet.table()->rectForFooterInSection(int(sheet.form->sectionIndices().account));
    QCOMPARE(text->rect(),
             QRect(sheet.table()->contentWidget()->mapToGlobal(painted.topLeft()), painted.size()));

    // Read in order: the account row, the terms text, the terms button.
    auto *footer = qobject_cast<ZDFooterContainerView *>(sheet.table()->tableFooterView());
    QAccessibleInterface *account = QAccessible::queryAccessibleInterface(
        sheet.table()->cellForRowAtIndexPath({int(sheet.form->sectionIndices().account), 0}));
    QAccessibleInterface *footerView = QAccessible::queryAccessibleInterface(footer);
    QCOMPARE(content->indexOfChild(account), textAt - 1);
    QCOMPARE(content->indexOfChild(footerView), textAt + 1);

    // The text takes no focus; the button Tab reaches after the account row
    // carries it, so a keyboard user hears it on the way to the terms.
    QAccessibleInterface *button = QAccessible::queryAccessibleInterface(footer->termsButton());
    QCOMPARE(button->text(QAccessible::Description), terms);
    QVERIFY(!text->state().focusable);
    ZDTableViewCell *accountCell =
        sheet.table()->cellForRowAtIndexPath({int(sheet.form->sectionIndices().account), 0});
    accountCell->setFocus(Qt::TabFocusReason);
    QTest::keyClick(accountCell, Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget(), footer->termsButton());
}

void tst_PublishForm::abstractOperationsStopTheProgram()
{
    if (inDeathChild()) {
        ZDPublishViewController base;
        base.authenticator();
        return;
    }
    const DeathOutcome outcome = runDeathChild("abstractOperationsStopTheProgram");
    QVERIFY2(diedSaying(outcome, {"ZDPublishViewController::authenticator", "(0)"}),
             outcome.stderrText.constData());
}

QTEST_MAIN(tst_PublishForm)
#include "tst_publishform.moc"
