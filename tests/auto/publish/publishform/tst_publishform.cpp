#include "FormFixtures.h"
#include "TestSupport.h"

#include "core/ZDNotificationCenter.h"
#include "toolkit/ZDDevice.h"

#include <QAccessible>
#include <QLabel>
#include <QScopeGuard>

Q_DECLARE_METATYPE(ZDSectionIndices)

class tst_PublishForm : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { ZDDevice::setKind(ZDDeviceKind::Phone); }
    void cleanup() { ZDDevice::resetKind(); }
    void sectionsAreNumberedInTheirFixedOrder_data();
    void sectionsAreNumberedInTheirFixedOrder();
    void rowHeightsAndTheLogoHeader_data();
    void rowHeightsAndTheLogoHeader();
    void publishFollowsTheSignInStateAndReachesTheDelegate();
    void signInFailsWithAnAlertThenReturnSignsInAndFocusesTheTitle();
    void cancellingTheDialogOrSigningOutCancelsTheForm();
    void qualityRowsFollowTheEnableFlagAndCarryOneCheckmark();
    void unloadingTheViewKeepsTheQualityAndResetsTheAccessRow();
    void delegateMayDestroyTheFormInsideItsMessages();
    void alertsOutliveTheirFormAndObserversGoWithIt();
    void termsButtonOpensTheServiceTermsAndIsReadAfterTheirText();
    void aSheetShownAsItsOwnWindowIsAnnouncedAsThatWindow();
    void abstractOperationsStopTheProgram();
};

void tst_PublishForm::sectionsAreNumberedInTheirFixedOrder_data()
{
    QTest::addColumn<bool>("hd");
    QTest::addColumn<bool>("categories");
    QTest::addColumn<int>("access"); // rows; -1: no access part
    QTest::addColumn<ZDSectionIndices>("expected");
    QTest::newRow("all") << true << true << 3 << ZDSectionIndices{0, 1, 2, 3, 4, 5};
    QTest::newRow("no access") << true << true << -1 << ZDSectionIndices{0, 1, 2, 3, -1, 4};
    QTest::newRow("no categories") << true << false << 3 << ZDSectionIndices{0, 1, 2, -1, 3, 4};
    QTest::newRow("hd only") << true << false << -1 << ZDSectionIndices{0, 1, 2, -1, -1, 3};
    QTest::newRow("no hd") << false << true << 3 << ZDSectionIndices{0, -1, 1, 2, 3, 4};
    QTest::newRow("categories only") << false << true << -1 << ZDSectionIndices{0, -1, 1, 2, -1, 3};
    QTest::newRow("access only, none to choose")
        << false << false << 0 << ZDSectionIndices{0, -1, 1, -1, 2, 3};
    QTest::newRow("none") << false << false << -1 << ZDSectionIndices{0, -1, 1, -1, -1, 2};
}

void tst_PublishForm::sectionsAreNumberedInTheirFixedOrder()
{
    QFETCH(bool, hd);
    QFETCH(bool, categories);
    QFETCH(int, access);
    QFETCH(ZDSectionIndices, expected);
    TestAuthenticator auth;
    Sheet sheet(&auth, {true, categories, access < 0 ? std::nullopt : std::optional(access), hd});
    sheet.form->view();
    QCOMPARE(sheet.form->sectionIndices(), expected);
    QCOMPARE(sheet.table()->numberOfSections(), int(expected.account + 1));
    QCOMPARE(sheet.table()->numberOfRowsInSection(0), 2);
    QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.tags)), 1); // one blank tag row
    QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.account)), 1);
    if (hd)
        QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.hd)), 2);
    if (access >= 0)
        QCOMPARE(sheet.table()->numberOfRowsInSection(int(expected.access)), access);
    QCOMPARE(sheet.form->accessRow(), quintptr(0));
    // Set after the view was built, the quality flag moves nothing.
    sheet.form->setShowHDSection(!hd);
    sheet.table()->reloadData();
    QCOMPARE(sheet.form->sectionIndices(), expected);
}

void tst_PublishForm::rowHeightsAndTheLogoHeader_data()
{
    QTest::addColumn<bool>("logo");
    QTest::addColumn<qreal>("pixelRatio");
    QTest::newRow("logo") << true << 1.0;
    QTest::newRow("logo drawn for a dense screen") << true << 2.0;
    QTest::newRow("no logo") << false << 1.0;
}

void tst_PublishForm::rowHeightsAndTheLogoHeader()
{
    QFETCH(bool, logo);
    QFETCH(qreal, pixelRatio);
    FormOptions options;
    options.logo = logo;
    options.logoPixelRatio = pixelRatio;
    TestAuthenticator auth;
    Sheet sheet(&auth, options);
    sheet.show();
    ZDTableView *table = sheet.table();
    QCOMPARE(table->rectForRowAtIndexPath({0, 0}).height(), 40);
    QCOMPARE(table->rectForRowAtIndexPath({0, 1}).height(), 120);
    QCOMPARE(table->rectForRowAtIndexPath(sheet.row(&ZDSectionIndices::hd, 1)).height(), 40);
    QCOMPARE(table->rectForRowAtIndexPath(sheet.row(&ZDSectionIndices::access)).height(), 52);
    QCOMPARE(table->rectForRowAtIndexPath(sheet.row(&ZDSectionIndices::account)).height(), 40);
    // A logo takes the same room in points at any density.
    const int width = table->viewport()->width();
    const QSize room = logo ? QSize(120, 40) : QSize(0, 0);
    QWidget *header = table->headerViewForSection(0);
    QCOMPARE(header->geometry(), QRect(0, 0, width, room.height() + 30));
    QCOMPARE(header->findChild<QLabel *>()->geometry(),
             QRect(QPoint((width - room.width()) / 2, 15), room));
    QCOMPARE(table->headerViewForSection(1), nullptr);
}

void tst_PublishForm::publishFollowsTheSignInStateAndReachesTheDelegate()
{
    SignedInAuthenticator ann;
    Sheet sheet(&ann.auth);
    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData();
    sheet.show();
    QTest::keyClicks(sheet.form->titleCell()->editor(), u"Summer at the sea"_s);
    sheet.save(u"form-phone-signed-in.png"_s);
    QVERIFY(sheet.publishButton()->isEnabled());
    QCOMPARE(sheet.form->accountCell()->textLabel()->text(),
             L("ACCOUNT_NAME_FORMAT").arg(u"Ann"_s));

    ann.auth.setState(7); // any state but 2 is signed out, whatever the account says
    QVERIFY(!sheet.publishButton()->isEnabled());
    QCOMPARE(sheet.form->accountCell()->textLabel()->text(), L("ACCOUNT_BLANK"));
    QVERIFY(!sheet.form->accountCell()->isUserInteractionEnabled());
    QTest::mouseClick(sheet.publishButton(), Qt::LeftButton);
    QVERIFY(sheet.delegate.events.isEmpty());

    ann.auth.setState(ZDAuthenticatorStateSignedIn);
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

// A failed sign-in shows its alert, then a fresh dialog; Return there signs in
// and hands the focus to the title.
void tst_PublishForm::signInFailsWithAnAlertThenReturnSignsInAndFocusesTheTitle()
{
    TestAuthenticator auth;
    Sheet sheet(&auth);
    sheet.show();
    sheet.activate();
    QCOMPARE(auth.loads, 1); // stored credentials are tried first
    QTRY_VERIFY(visibleAlert(sheet.form->authenticationAlert()));
    QTest::qWait(250); // let the dialog fade in
    sheet.save(u"form-phone-signed-out.png"_s);
    ZDAlertView *dialog = sheet.fillSignIn(u"wrong"_s);
    QVERIFY(dialog);
    QTest::mouseClick(dialog->buttonAtIndex(dialog->firstOtherButtonIndex()), Qt::LeftButton);
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

    dialog = sheet.fillSignIn(u"secret"_s);
    QVERIFY(dialog);
    QTest::keyClick(dialog->textFieldAtIndex(1), Qt::Key_Return);
    QCOMPARE(auth.attempts, (QStringList{u"ann/wrong"_s, u"ann/secret"_s}));
    QVERIFY(sheet.publishButton()->isEnabled());
    QCOMPARE(sheet.form->authenticationAlert(), nullptr);
    QVERIFY(sheet.delegate.events.isEmpty());
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

    // Stored credentials that sign in silently: no dialog.
    TestAuthenticator stored;
    stored.storedSignIn = true;
    Sheet silent(&stored);
    silent.show();
    QTest::qWait(50);
    QCOMPARE(stored.dialogs, 0);
    QVERIFY(silent.publishButton()->isEnabled());
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
    const auto answerAccountAlert = [&](bool signOut) {
        sheet.tap(sheet.row(&ZDSectionIndices::account));
        ZDAlertView *alert = visibleAlert(sheet.form->shownAccountAlert());
        QVERIFY(alert);
        QTest::mouseClick(alert->buttonAtIndex(signOut ? alert->firstOtherButtonIndex()
                                                       : alert->cancelButtonIndex()),
                          Qt::LeftButton);
    };
    answerAccountAlert(false);
    QVERIFY(sheet.delegate.events.isEmpty());
    QCOMPARE(auth.authenticatorState(), ZDAuthenticatorStateSignedIn);
    answerAccountAlert(true);
    QCOMPARE(auth.authenticatorState(), ZDAuthenticatorStateSignedOut);
    QCOMPARE(sheet.delegate.events, QStringList{u"cancelled"_s});
    QCOMPARE(sheet.form->shownAccountAlert(), nullptr);
}

void tst_PublishForm::qualityRowsFollowTheEnableFlagAndCarryOneCheckmark()
{
    SignedInSheet sheet;
    const ZDIndexPath hdRow = sheet.row(&ZDSectionIndices::hd, 1);
    EditableTextCell *sd = sheet.form->optionCell(0);
    EditableTextCell *hd = sheet.form->optionCell(1);
    QCOMPARE(hd->sizeLabel()->text(), u"REQUIRES_WIFI"_s);
    QCOMPARE(hd->mainLabel()->text(), L("HD"));
    QCOMPARE(hd->textColor(), QColor::fromRgbF(0.7f, 0.7f, 0.7f, 1.0f));
    QVERIFY(!hd->isUserInteractionEnabled());
    QCOMPARE(sd->sizeLabel()->text(), L("SIZE_FORMAT_PARENS").arg(u"12.6 MB"_s));
    QCOMPARE(sd->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    sheet.tap(hdRow);
    QCOMPARE(sheet.form->selectedOption(), 0);

    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData();
    QCOMPARE(hd->sizeLabel()->text(), L("SIZE_FORMAT_PARENS").arg(u"50.3 MB"_s));
    sheet.tap(hdRow);
    QCOMPARE(sheet.form->selectedOption(), 1);
    QCOMPARE(hd->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QCOMPARE(sd->accessoryType(), ZDTableViewCell::Accessory::None);
    QCOMPARE(sd->textColor(), QColor(Qt::black));
    sheet.tap(hdRow); // the chosen row again: still chosen, only deselected
    QCOMPARE(sheet.form->selectedOption(), 1);
    QCOMPARE(hd->accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QTRY_VERIFY(!hd->isHighlighted());
}

// The access rows carry one checkmark, on the first row until another is
// chosen; an unload keeps the chosen quality but starts the access over.
void tst_PublishForm::unloadingTheViewKeepsTheQualityAndResetsTheAccessRow()
{
    SignedInAuthenticator ann;
    Sheet sheet(&ann.auth, {true, true, 3, true});
    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData(); // the rows read the flag when the table asks for them
    sheet.show();
    const auto marked = [&] {
        QList<size_t> rows;
        for (size_t i = 0; i < 3; ++i) {
            if (sheet.form->accessCell(i)->accessoryType() == ZDTableViewCell::Accessory::Checkmark)
                rows << i;
        }
        return rows;
    };
    QCOMPARE(marked(), QList<size_t>{0});
    sheet.tap(sheet.row(&ZDSectionIndices::hd, 1));
    sheet.tap(sheet.row(&ZDSectionIndices::access, 2));
    QCOMPARE(sheet.form->accessRow(), quintptr(2));
    QCOMPARE(marked(), QList<size_t>{2});
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
    QCOMPARE(marked(), QList<size_t>{0});
}

void tst_PublishForm::delegateMayDestroyTheFormInsideItsMessages()
{
    SignedInAuthenticator ann;
    for (const bool publish : {true, false}) {
        auto sheet = std::make_unique<Sheet>(&ann.auth);
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
    }
}

void tst_PublishForm::alertsOutliveTheirFormAndObserversGoWithIt()
{
    SignedInAuthenticator ann;
    auto sheet = std::make_unique<Sheet>(&ann.auth);
    sheet->show();
    const int observers = ZDNotificationCenter::defaultCenter().observerCount();
    sheet->tap(sheet->row(&ZDSectionIndices::account));
    QPointer<ZDAlertView> alert = sheet->form->shownAccountAlert();
    QVERIFY(visibleAlert(alert));
    alert->setParent(nullptr); // keep it while its window goes
    sheet.reset();
    QCOMPARE(ZDNotificationCenter::defaultCenter().observerCount(), observers - 4);
    // Signing out through an alert whose form is gone reaches nobody.
    alert->dismissWithClickedButtonIndex(alert->firstOtherButtonIndex(), false);
    QCOMPARE(ann.auth.authenticatorState(), ZDAuthenticatorStateSignedIn);
    QTRY_VERIFY(!alert);
    // The authenticator goes on announcing to nobody.
    ann.auth.invalidateAuthentication();
    ann.auth.authenticateWithUsernamePassword(u"ann"_s, u"wrong"_s);
}

// The terms' text is read between the account row and the terms button, where
// it is painted; the button carries it for a keyboard user, and opens the terms.
void tst_PublishForm::termsButtonOpensTheServiceTermsAndIsReadAfterTheirText()
{
    SignedInSheet sheet;
    const QString terms = sheet.form->termsOfUseString();
    QAccessibleInterface *content =
        QAccessible::queryAccessibleInterface(sheet.table()->contentWidget());
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
    QVERIFY(!text->state().focusable);
    const ZDIndexPath account = sheet.row(&ZDSectionIndices::account);
    const QRect painted = sheet.table()->rectForFooterInSection(account.section);
    QCOMPARE(text->rect(),
             QRect(sheet.table()->contentWidget()->mapToGlobal(painted.topLeft()), painted.size()));
    ZDFooterContainerView *footer = sheet.footer();
    QCOMPARE(content->indexOfChild(QAccessible::queryAccessibleInterface(sheet.cell(account))),
             textAt - 1);
    QCOMPARE(content->indexOfChild(QAccessible::queryAccessibleInterface(footer)), textAt + 1);
    QPushButton *button = footer->termsButton();
    QCOMPARE(QAccessible::queryAccessibleInterface(button)->text(QAccessible::Description), terms);
    sheet.cell(account)->setFocus(Qt::TabFocusReason);
    QTest::keyClick(sheet.cell(account), Qt::Key_Tab);
    QCOMPARE(QApplication::focusWidget(), button);

    QCOMPARE(button->text(), L("TERMS_OF_USE"));
    QCOMPARE(footer->height(), button->height() + 10);
    QList<QUrl> opened;
    ZDDevice::setURLOpener([&](const QUrl &url) {
        opened << url;
        return true;
    });
    const auto forget = qScopeGuard([] { ZDDevice::setURLOpener({}); });
    sheet.table()->scrollToRowAtIndexPath(account, ZDTableView::ScrollPosition::Top, false);
    QTest::mouseClick(button, Qt::LeftButton);
    QCOMPARE(opened, QList<QUrl>{QUrl(u"https://video.example/terms"_s)});
}

void tst_PublishForm::aSheetShownAsItsOwnWindowIsAnnouncedAsThatWindow()
{
    SignedInSheet sheet;
    const QString page = sheet.form->navigationItem()->title();
    QAccessibleInterface *shown = QAccessible::queryAccessibleInterface(sheet.window);
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
