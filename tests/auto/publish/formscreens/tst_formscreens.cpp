// The form as people meet it: every row within reach, the wheel on screen
// after an unload, the focus left where it is on a tablet, and every screen
// fitting its window in English and German, on a phone and on a tablet.

#include "FormFixtures.h"

#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"
#include "toolkit/ZDNavigationController.h"
#include "toolkit/ZDPickerView.h"

#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTest>

namespace {

// The language the form's texts come from, for the length of a test.
struct Language
{
    explicit Language(const QString &name) { QLocale::setDefault(QLocale(name)); }
    ~Language() { QLocale::setDefault(QLocale::c()); }
};

QSize windowSize(ZDDeviceKind kind)
{
    return ZDDevice::screenSize(kind).toSize();
}

// The part of the table's viewport that nothing covers, in viewport
// coordinates: above the on-screen keyboard and the wheel while they are up.
QRect uncovered(const Sheet &sheet)
{
    ZDTableView *table = sheet.table();
    QRect area = table->viewport()->rect();
    const auto cut = [&](const QWidget *cover) {
        if (!cover || !cover->isVisible())
            return;
        const QPoint top = table->viewport()->mapFrom(cover->window(), cover->geometry().topLeft());
        area.setBottom(qMin(area.bottom(), top.y() - 1));
    };
    const ZDKeyboard &keyboard = ZDKeyboard::shared();
    if (keyboard.isAutomaticKeyboardOnScreen())
        cut(keyboard.activeKeyboardView());
    if (sheet.form->isShowingPicker())
        cut(sheet.form->pickerContainer());
    return area;
}

// Whether the content rectangle `rect` lies wholly in the uncovered part.
bool inView(const Sheet &sheet, const QRect &rect)
{
    const int offset = sheet.table()->contentOffset();
    return uncovered(sheet).contains(rect.translated(0, -offset));
}

// Drags the table upwards, as a finger would, until it moves no further.
void dragToTheEnd(Sheet &sheet)
{
    ZDTableView *table = sheet.table();
    for (int i = 0; i < 60; ++i) {
        const int before = table->contentOffset();
        const QPoint start(30, before + uncovered(sheet).center().y());
        sheet.drag(start, -120);
        if (table->contentOffset() == before)
            return;
    }
}

// Every visible text of `window` fits it: nothing runs past the window's
// sides, one-line texts fit their widget or end in an ellipsis, wrapped texts
// have the height their lines need, and button titles fit their buttons.
void checkTextsFit(QWidget *window)
{
    const QRect bounds = window->rect();
    for (QWidget *widget : window->findChildren<QWidget *>()) {
        if (!widget->isVisibleTo(window) || widget->width() == 0)
            continue;
        auto *label = qobject_cast<QLabel *>(widget);
        auto *button = qobject_cast<QPushButton *>(widget);
        if (!label && !button)
            continue;
        const QString text = label ? label->text() : button->text();
        if (text.trimmed().isEmpty())
            continue;
        // Rows scroll up and down; only the sides count for them.
        const QRect frame(widget->mapTo(window, QPoint(0, 0)), widget->size());
        const QString where = u"\"%1\" at %2,%3 %4x%5"_s.arg(text)
                                  .arg(frame.x())
                                  .arg(frame.y())
                                  .arg(frame.width())
                                  .arg(frame.height());
        QVERIFY2(frame.left() >= bounds.left() && frame.right() <= bounds.right(),
                 qPrintable(u"runs past the window's side: "_s + where));
        const QFontMetrics metrics = widget->fontMetrics();
        if (button) {
            QVERIFY2(metrics.horizontalAdvance(text) <= button->width(),
                     qPrintable(u"button title cut: "_s + where));
        } else if (label->wordWrap()) {
            QVERIFY2(label->heightForWidth(label->width()) <= label->height(),
                     qPrintable(u"wrapped text cut: "_s + where));
        } else if (label->pixmap().isNull() && label->textFormat() != Qt::RichText) {
            QVERIFY2(metrics.horizontalAdvance(text) <= label->contentsRect().width() ||
                         text.endsWith(QChar(0x2026)),
                     qPrintable(u"text cut: "_s + where));
        }
    }
}

// The bar's title keeps clear of its buttons.
void checkBar(const Sheet &sheet)
{
    const QRect title = sheet.navigation->titleLabel()->geometry();
    const QPushButton *left = sheet.navigation->leftButton();
    const QPushButton *right = sheet.navigation->rightButton();
    QVERIFY2(title.left() > left->geometry().right(), "the title runs into the left button");
    QVERIFY2(title.right() < right->geometry().left(), "the title runs into the right button");
}

} // namespace

class tst_FormScreens : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { QLocale::setDefault(QLocale::c()); }
    void cleanup() { ZDDevice::resetKind(); }
    void everyRowStaysReachable_data();
    void everyRowStaysReachable();
    void theWheelIsOnScreenAfterAnUnloadAndReload();
    void aRowTapLeavesTheFocusOnATabletAndSendsItAwayOnAPhone_data();
    void aRowTapLeavesTheFocusOnATabletAndSendsItAwayOnAPhone();
    void everyScreenFitsItsWindowInEitherLanguage_data();
    void everyScreenFitsItsWindowInEitherLanguage();
};

void tst_FormScreens::everyRowStaysReachable_data()
{
    QTest::addColumn<ZDDeviceKind>("kind");
    QTest::addColumn<bool>("tags");
    QTest::newRow("phone, 15 tags") << ZDDeviceKind::Phone << true;
    QTest::newRow("phone, long description") << ZDDeviceKind::Phone << false;
    QTest::newRow("tablet, 30 tags") << ZDDeviceKind::Tablet << true;
    QTest::newRow("tablet, long description") << ZDDeviceKind::Tablet << false;
}

// Tags typed on the keyboard one after another, each ended with the end-of-tag
// character, and a description that grows far past the screen: the new blank
// tag row comes into view above the keyboard each time, and dragging reaches
// the account row and the terms button below.
void tst_FormScreens::everyRowStaysReachable()
{
    QFETCH(ZDDeviceKind, kind);
    QFETCH(bool, tags);
    ZDDevice::setKind(kind);
    KeyboardOn keyboard;
    SignedInSheet sheet({}, windowSize(kind));
    const int count = kind == ZDDeviceKind::Phone ? 15 : 30;
    if (tags) {
        sheet.form->tagCell(0)->becomeFirstResponder();
        QTRY_VERIFY(ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
        QTRY_COMPARE(sheet.form->isViewShrunk(), kind == ZDDeviceKind::Phone);
        for (int i = 0; i < count; ++i) {
            EditableTagCell *cell = sheet.form->tagCell(size_t(i));
            QTRY_VERIFY(cell->isFirstResponder());
            QTest::keyClicks(cell->editor(), u"tag%1,"_s.arg(i));
            // The focus moves to the new blank row, which scrolls into view.
            EditableTagCell *blank = sheet.form->tagCell(size_t(i) + 1);
            QTRY_VERIFY(blank->isFirstResponder());
            const QRect row =
                sheet.table()->rectForRowAtIndexPath(*sheet.table()->indexPathForCell(blank));
            QTRY_VERIFY2(inView(sheet, row),
                         qPrintable(u"blank row %1 at %2..%3 out of view: offset %4, uncovered "
                                    u"%5..%6"_s.arg(i + 1)
                                        .arg(row.top())
                                        .arg(row.bottom())
                                        .arg(sheet.table()->contentOffset())
                                        .arg(uncovered(sheet).top())
                                        .arg(uncovered(sheet).bottom())));
        }
        QCOMPARE(sheet.form->videoTags().size(), count);
    } else {
        sheet.form->descriptionCell()->becomeFirstResponder();
        QWidget *editor = sheet.form->descriptionCell()->editor();
        for (int i = 0; i < 40; ++i) {
            QTest::keyClicks(editor, u"line %1"_s.arg(i));
            QTest::keyClick(editor, Qt::Key_Return);
        }
        QVERIFY(sheet.form->descriptionHeight() > 600);
    }
    QTest::qWait(500); // rows and the keyboard settle
    dragToTheEnd(sheet);
    QVERIFY2(
        inView(sheet, sheet.table()->rectForRowAtIndexPath(sheet.row(&ZDSectionIndices::account))),
        "the account row cannot be reached");
    const QPushButton *terms = sheet.table()->findChild<QPushButton *>();
    QVERIFY(terms);
    const QRect button(terms->mapTo(sheet.table()->contentWidget(), QPoint(0, 0)), terms->size());
    QVERIFY2(inView(sheet, button), "the terms button cannot be reached");
}

void tst_FormScreens::theWheelIsOnScreenAfterAnUnloadAndReload()
{
    ZDDevice::setKind(ZDDeviceKind::Phone);
    SignedInSheet sheet;
    const ZDIndexPath category = sheet.row(&ZDSectionIndices::category);
    sheet.tap(category);
    QTRY_VERIFY(sheet.form->pickerContainer() && sheet.form->pickerContainer()->isVisible());
    sheet.tap(sheet.row(&ZDSectionIndices::title));
    QVERIFY(!sheet.form->isShowingPicker());

    sheet.window->hide();
    sheet.form->didReceiveMemoryWarning();
    QVERIFY(!sheet.form->isViewLoaded());
    sheet.window->show(); // builds the form's view again
    QVERIFY(QTest::qWaitForWindowExposed(sheet.window));
    QTRY_VERIFY(sheet.form->view()->isVisible());
    sheet.tap(category);
    QVERIFY(sheet.form->isShowingPicker());
    QVERIFY(sheet.form->picker()->isVisible());
    sheet.waitForWheel();
    // Drawn over the table: the window shows the wheel's own pixels there.
    const QImage image = sheet.window->grab().toImage();
    ZDPickerView *wheel = sheet.form->picker();
    const QImage alone = wheel->grab().toImage();
    for (const QPoint at : {QPoint(wheel->width() / 2, wheel->height() / 2), QPoint(4, 4),
                            QPoint(wheel->width() - 5, wheel->height() - 5)})
        QCOMPARE(image.pixelColor(wheel->mapTo(sheet.window, at)), alone.pixelColor(at));
}

void tst_FormScreens::aRowTapLeavesTheFocusOnATabletAndSendsItAwayOnAPhone_data()
{
    QTest::addColumn<ZDDeviceKind>("kind");
    QTest::addColumn<QString>("row");
    QTest::addColumn<bool>("byKeyboard"); // else tapped while the title has the focus
    for (const ZDDeviceKind kind : {ZDDeviceKind::Tablet, ZDDeviceKind::Phone}) {
        const char *device = kind == ZDDeviceKind::Tablet ? "tablet" : "phone";
        for (const char *row : {"quality", "access", "account"})
            QTest::addRow("%s, %s", device, row) << kind << QString::fromLatin1(row) << false;
    }
    for (const char *row : {"quality", "access", "account"})
        QTest::addRow("phone, %s, by keyboard", row)
            << ZDDeviceKind::Phone << QString::fromLatin1(row) << true;
}

// A keyboard user's tap keeps the focus on the row, and an alert the row
// opened hands it back there; a tap takes it from the title on a phone (and
// the on-screen keyboard with it), but leaves it there on a tablet.
void tst_FormScreens::aRowTapLeavesTheFocusOnATabletAndSendsItAwayOnAPhone()
{
    QFETCH(ZDDeviceKind, kind);
    QFETCH(QString, row);
    QFETCH(bool, byKeyboard);
    ZDDevice::setKind(kind);
    KeyboardOn keyboard;
    SignedInSheet sheet({}, windowSize(kind));
    sheet.activate();
    sheet.form->setEnableHDSection(true);
    sheet.table()->reloadData();
    const ZDIndexPath tapped = row == u"quality"  ? sheet.row(&ZDSectionIndices::hd, 1)
                               : row == u"access" ? sheet.row(&ZDSectionIndices::access, 1)
                                                  : sheet.row(&ZDSectionIndices::account);
    ZDTableViewCell *cell = sheet.cell(tapped);
    QWidget *title = sheet.form->titleCell()->editor();
    if (byKeyboard) {
        cell->setFocus(Qt::TabFocusReason);
        QTest::keyClick(cell, Qt::Key_Space);
    } else {
        sheet.form->titleCell()->becomeFirstResponder();
        QTRY_COMPARE(QApplication::focusWidget(), title);
        QTRY_VERIFY(ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
        sheet.tap(tapped);
    }
    QTest::qWait(50);
    QVERIFY(!sheet.table()->hasFocus());
    QPointer<ZDAlertView> alert = visibleAlert(sheet.form->shownAccountAlert());
    QCOMPARE(bool(alert), row == u"account");
    if (alert) {
        // The account row's alert is a dialog: the focus is in it while it is up.
        QVERIFY(alert->isAncestorOf(QApplication::focusWidget()));
        QTest::mouseClick(alert->buttonAtIndex(alert->cancelButtonIndex()), Qt::LeftButton);
        QTRY_VERIFY(!alert);
    } else {
        QVERIFY(cell->isChosen());
    }
    if (byKeyboard) {
        QCOMPARE(QApplication::focusWidget(), cell);
    } else if (kind == ZDDeviceKind::Tablet) {
        QTRY_COMPARE(QApplication::focusWidget(), title);
    } else {
        QVERIFY(!title->hasFocus());
        if (row == u"account")
            QCOMPARE(QApplication::focusWidget(), nullptr);
        QTest::qWait(int(ZDDevice::kKeyboardAnimationDuration * 1000) + 50);
        QVERIFY(!ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
    }
}

void tst_FormScreens::everyScreenFitsItsWindowInEitherLanguage_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<ZDDeviceKind>("kind");
    for (const char *language : {"en", "de"}) {
        QTest::addRow("%s, phone", language)
            << QString::fromLatin1(language) << ZDDeviceKind::Phone;
        QTest::addRow("%s, tablet", language)
            << QString::fromLatin1(language) << ZDDeviceKind::Tablet;
    }
}

// The screens: signed out with the sign-in dialog and its keyboard, the
// failed sign-in, signed in with the keyboard, with the wheel, the account
// alert, and scrolled to the end. At each the window keeps its size and every
// text fits; each is saved as a screenshot to be looked at.
void tst_FormScreens::everyScreenFitsItsWindowInEitherLanguage()
{
    QFETCH(QString, language);
    QFETCH(ZDDeviceKind, kind);
    ZDDevice::setKind(kind);
    Language texts(language);
    KeyboardOn keyboard;
    const QSize size = windowSize(kind);
    const QString device = kind == ZDDeviceKind::Phone ? u"phone"_s : u"tablet"_s;
    TestAuthenticator auth;
    Sheet sheet(&auth, {}, size);
    sheet.form->setEnableHDSection(true);
    const auto check = [&](const QString &screen) {
        QTest::qWait(400); // alerts fade in, the keyboard and the wheel slide
        QCOMPARE(sheet.window->size(), size);
        QVERIFY2(sheet.window->minimumSizeHint().width() <= size.width(),
                 qPrintable(screen + u": the texts ask for a wider window"_s));
        checkBar(sheet);
        checkTextsFit(sheet.window);
        if (QTest::currentTestFailed())
            qWarning("on the screen %s", qPrintable(screen));
        sheet.save(u"form-%1-%2-%3.png"_s.arg(language, device, screen));
    };

    sheet.show();
    QTRY_VERIFY(ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
    check(u"sign-in"_s);
    ZDAlertView *dialog = sheet.fillSignIn(u"wrong"_s);
    QVERIFY(dialog);
    // The keyboard leaves the dialog's fields and buttons uncovered.
    const QRect keys = ZDKeyboard::shared().keyboardFrameInWindow();
    const QPushButton *signIn = dialog->buttonAtIndex(dialog->firstOtherButtonIndex());
    QVERIFY2(signIn->mapTo(sheet.window, QPoint(0, signIn->height())).y() <= keys.top(),
             "the keyboard covers the sign-in button");
    QTest::mouseClick(const_cast<QPushButton *>(signIn), Qt::LeftButton);
    QTRY_VERIFY(visibleAlert(sheet.form->authenticationFailedAlert()));
    check(u"sign-in-failed"_s);
    QTest::mouseClick(sheet.form->authenticationFailedAlert()->buttonAtIndex(0), Qt::LeftButton);
    dialog = sheet.fillSignIn(u"secret"_s);
    QVERIFY(dialog);
    QTest::keyClick(dialog->textFieldAtIndex(1), Qt::Key_Return);
    QTRY_VERIFY(sheet.publishButton()->isEnabled());
    sheet.table()->reloadData();

    sheet.form->titleCell()->becomeFirstResponder();
    QTest::keyClicks(sheet.form->titleCell()->editor(), u"Sommer am Meer"_s);
    QTRY_VERIFY(ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
    check(u"keyboard"_s);

    sheet.tap(sheet.row(&ZDSectionIndices::category));
    QTRY_VERIFY(sheet.form->isShowingPicker());
    check(u"picker"_s);

    sheet.tap(sheet.row(&ZDSectionIndices::account));
    QTRY_VERIFY(visibleAlert(sheet.form->shownAccountAlert()));
    check(u"account"_s);
    sheet.form->shownAccountAlert()->dismissWithClickedButtonIndex(0, false);

    sheet.form->resignResponder();
    QTRY_VERIFY(!ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
    check(u"signed-in"_s);

    // Many tags, then the end of the form.
    sheet.form->tagCell(0)->becomeFirstResponder();
    for (int i = 0; i < 12; ++i) {
        QTRY_VERIFY(sheet.form->tagCell(size_t(i))->isFirstResponder());
        QTest::keyClicks(sheet.form->tagCell(size_t(i))->editor(), u"Schlagwort %1,"_s.arg(i));
    }
    sheet.form->resignResponder();
    QTRY_VERIFY(!ZDKeyboard::shared().isAutomaticKeyboardOnScreen());
    QTest::qWait(400);
    dragToTheEnd(sheet);
    check(u"end"_s);
}

QTEST_MAIN(tst_FormScreens)
#include "tst_formscreens.moc"
