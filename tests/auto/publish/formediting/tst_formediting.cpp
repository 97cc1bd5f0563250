#include "FormFixtures.h"
#include "TestSupport.h"

#include "toolkit/ZDDevice.h"

#include <QAccessible>
#include <QLabel>

#include <cmath>

namespace {

// Empties a tag row the way a user does: select everything, delete it.
void emptyRow(EditableTagCell *cell)
{
    cell->becomeFirstResponder();
    QTest::keyClick(cell->editor(), Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(cell->editor(), Qt::Key_Backspace);
}

// Types any text, right-to-left and emoji included, as one key press.
void typeText(QWidget *editor, const QString &text)
{
    QKeyEvent press(QEvent::KeyPress, Qt::Key_unknown, Qt::NoModifier, text);
    QApplication::sendEvent(editor, &press);
}

// Taps the keys of the on-screen keyboard with these labels.
void press(const QStringList &labels)
{
    for (const QString &label : labels) {
        QWidget *key = ZDKeyboard::shared().keyWithLabel(label);
        QVERIFY2(key, qPrintable(label));
        QTest::mouseClick(key, Qt::LeftButton);
    }
}

QStringList rows(TestForm *form)
{
    QStringList texts;
    for (size_t i = 0; i < form->tagCount(); ++i)
        texts << form->tagCell(i)->textValue();
    return texts;
}

} // namespace

class tst_FormEditing : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { ZDDevice::setKind(ZDDeviceKind::Phone); }
    void cleanup() { ZDDevice::resetKind(); }
    void tagRowsComeAndGoSoThatOneBlankRowStaysLast();
    void tagRowsAreOneListThatSaysEachRowsPlace();
    void returnInTheTitleAndTheEndOfTagCharacterMoveTheFocusOn();
    void descriptionRowGrowsPastItsDeadBand();
    void noBlankTagRowIsAFault();
    void theWheelSlidesUpWhereTheKeyboardWouldStandAndNamesTheCategory();
    void returnEnterOrEscapePutsTheWheelAwayKeepingTheCategory_data();
    void returnEnterOrEscapePutsTheWheelAwayKeepingTheCategory();
    void theWheelSlidesAwayForAnotherRowOrADragButNotForEditing();
    void phoneKeyboardGivesTheTableItsRoom();
    void tabletKeyboardGrowsTheFooter();
    void descriptionHeightRuleAtItsBoundaries();
    void hostileTextHundredsOfTagsAndOddCategories();
    void formMayGoWhileThePickerSlidesOrTheKeyboardIsUp();
};

// Typing into the blank tag row adds one blank row below, sliding in from
// above; emptying a row takes another blank row away, sliding downward.
void tst_FormEditing::tagRowsComeAndGoSoThatOneBlankRowStaysLast()
{
    SignedInSheet sheet;
    const int tags = sheet.row(&ZDSectionIndices::tags).section;
    QCOMPARE(sheet.form->tagCell(0)->placeholder(), L("TAGS"));
    typeInto(sheet.form->tagCell(0), u"a"_s);
    QCOMPARE(sheet.table()->numberOfRowsInSection(tags), 2);
    EditableTagCell *holdingB = sheet.form->tagCell(1);
    QCOMPARE(holdingB->placeholder(), L("NEW_TAG"));
    const QRect frame = sheet.table()->rectForRowAtIndexPath({tags, 1});
    QVERIFY(holdingB->geometry().top() < frame.top());
    QTRY_COMPARE(holdingB->geometry(), frame);
    QTest::keyClicks(sheet.form->tagCell(0)->editor(), u"ea"_s); // the last row is still blank
    QCOMPARE(sheet.form->tagCount(), size_t(2));
    typeInto(holdingB, u"b"_s);
    QCOMPARE(rows(sheet.form.get()), (QStringList{u"aea"_s, u"b"_s, QString()}));

    QPointer<EditableTagCell> emptied = sheet.form->tagCell(0);
    emptyRow(emptied);
    // The last blank row went; the emptied row stays.
    QCOMPARE(rows(sheet.form.get()), (QStringList{QString(), u"b"_s}));
    QCOMPARE(sheet.form->tagCell(0), emptied.data());
    QCOMPARE(sheet.table()->numberOfRowsInSection(tags), 2);
    QCOMPARE(sheet.cell({tags, 1}), holdingB);
    // Now the first row is the other blank one: it slides downward and away.
    const int startY = emptied->y();
    emptyRow(holdingB);
    QCOMPARE(sheet.form->tagCount(), size_t(1));
    QCOMPARE(sheet.form->tagCell(0), holdingB);
    QCOMPARE(holdingB->placeholder(), L("NEW_TAG"));
    QCOMPARE(sheet.table()->numberOfRowsInSection(tags), 1);
    QTest::qWait(100);
    QVERIFY(!emptied || emptied->y() > startY);
    QTRY_VERIFY(!emptied);

    // The tags keep their rows' order, repeats and inner blanks.
    QTest::keyClicks(holdingB->editor(), u"x"_s);
    typeInto(sheet.form->tagCell(1), u" x "_s);
    typeInto(sheet.form->tagCell(2), u"x"_s);
    QCOMPARE(sheet.form->videoTags(), (QStringList{u"x"_s, u" x "_s, u"x"_s}));
    QCOMPARE(sheet.form->tagCount(), size_t(4));
}

void tst_FormEditing::tagRowsAreOneListThatSaysEachRowsPlace()
{
    SignedInSheet sheet;
    QAccessibleInterface *content =
        QAccessible::queryAccessibleInterface(sheet.table()->contentWidget());
    const auto tagList = [&]() -> QAccessibleInterface * {
        for (int i = 0; i < content->childCount(); ++i) {
            if (content->child(i)->role() == QAccessible::List)
                return content->child(i);
        }
        return nullptr;
    };
    // What a screen reader reads for the tag row at `row`: its editor's item,
    // that item's list, and its place there; every link must hold both ways.
    const auto checkPlaces = [&](const QStringList &names) {
        QAccessibleInterface *list = tagList();
        QVERIFY(list);
        QCOMPARE(list->text(QAccessible::Name), L("TAGS"));
        QCOMPARE(list->childCount(), int(names.size()));
        for (int row = 0; row < names.size(); ++row) {
            QAccessibleInterface *editor =
                QAccessible::queryAccessibleInterface(sheet.form->tagCell(size_t(row))->editor());
            QAccessibleInterface *item = editor->parent();
            QCOMPARE(item->role(), QAccessible::ListItem);
            QCOMPARE(item->text(QAccessible::Name), names[row]);
            QCOMPARE(item->parent(), list);
            QCOMPARE(list->indexOfChild(item), row);
            QCOMPARE(list->child(row), item);
            QVERIFY(item->rect().intersects(list->rect()));
            QCOMPARE(editor->text(QAccessible::Description),
                     L("LIST_POSITION_FORMAT").arg(row + 1).arg(names.size()));
        }
    };

    checkPlaces({L("TAGS")});
    typeInto(sheet.form->tagCell(0), u"sea"_s);
    typeInto(sheet.form->tagCell(1), u"sky"_s);
    checkPlaces({u"sea"_s, u"sky"_s, L("NEW_TAG")});
    emptyRow(sheet.form->tagCell(0));
    checkPlaces({L("TAGS"), u"sky"_s});

    // The other rows stay where they were: the title is no list item.
    QAccessibleInterface *title =
        QAccessible::queryAccessibleInterface(sheet.form->titleCell()->editor())->parent();
    QCOMPARE(title->role(), QAccessible::Grouping);
    QCOMPARE(title->parent(), content);
    // The content's children are its own, in reading order: the list after the
    // title row, each child pointing back to the content.
    for (int i = 0; i < content->childCount(); ++i) {
        QCOMPARE(content->child(i)->parent(), content);
        QCOMPARE(content->indexOfChild(content->child(i)), i);
    }
    QVERIFY(content->indexOfChild(title) < content->indexOfChild(tagList()));
    QTest::qWait(500); // the removed row's widget goes after its animation
}

void tst_FormEditing::returnInTheTitleAndTheEndOfTagCharacterMoveTheFocusOn()
{
    SignedInSheet sheet;
    typeInto(sheet.form->titleCell(), u"Trip"_s);
    QTest::keyClick(sheet.form->titleCell()->editor(), Qt::Key_Return);
    QTRY_VERIFY(sheet.form->descriptionCell()->isFirstResponder());
    QCOMPARE(sheet.form->videoTitle(), u"Trip"_s);
    // Return in a tag row does nothing; the end-of-tag character moves to the
    // blank row, unless this is the only one.
    EditableTagCell *first = sheet.form->tagCell(0);
    first->becomeFirstResponder();
    QTest::keyClick(first->editor(), Qt::Key_Return);
    QTest::keyClicks(first->editor(), u","_s);
    QVERIFY(first->isFirstResponder());
    QTest::keyClicks(first->editor(), u"sea,"_s);
    QTRY_VERIFY(sheet.form->tagCell(1)->isFirstResponder());
    QTest::keyClicks(sheet.form->tagCell(1)->editor(), u"sun"_s);
    QCOMPARE(sheet.form->videoTags(), (QStringList{u"sea"_s, u"sun"_s}));
}

void tst_FormEditing::descriptionRowGrowsPastItsDeadBand()
{
    SignedInSheet sheet;
    EditableTextCell *description = sheet.form->descriptionCell();
    description->becomeFirstResponder();
    const qreal first = sheet.form->descriptionHeight();
    for (int line = 0; line < 12; ++line) {
        QTest::keyClicks(description->editor(), u"A line of the description"_s);
        QTest::keyClick(description->editor(), Qt::Key_Return);
        const float target = ZDDescriptionRowHeight(float(description->contentSize().height()));
        const qreal now = sheet.form->descriptionHeight();
        // Either the row follows its text, or the change stayed within 5 points.
        QVERIFY2(std::fabs(float(now) - target) <= 5.0f,
                 qPrintable(u"height %1, target %2"_s.arg(now).arg(target)));
        QCOMPARE(qreal(sheet.table()->rectForRowAtIndexPath({0, 1}).height()), qreal(qRound(now)));
    }
    QVERIFY(sheet.form->descriptionHeight() > first);
    QVERIFY(description->isFirstResponder()); // the row kept the focus while it grew
}

void tst_FormEditing::noBlankTagRowIsAFault()
{
    if (inDeathChild()) {
        TestAuthenticator auth;
        auto form = ZDPublishViewController::create<TestForm>(&auth, FormOptions{});
        form->view();
        form->tagCell(0)->setTextValue(u"full"_s); // no callback: no blank row left
        form->tagCellEndOfTagCharacterPressed(form->tagCell(0));
        return;
    }
    const DeathOutcome outcome = runDeathChild("noBlankTagRowIsAFault");
    QVERIFY2(diedSaying(outcome, {"blankCellIndex >= 0", "tagCellEndOfTagCharacterPressed"}),
             outcome.stderrText.constData());
}

void tst_FormEditing::theWheelSlidesUpWhereTheKeyboardWouldStandAndNamesTheCategory()
{
    SignedInSheet sheet;
    QCOMPARE(sheet.form->picker(), nullptr);
    // Before the wheel exists the first category is the answer, yet the row is blank.
    QCOMPARE(sheet.form->videoCategory()->displayName(), u"Travel"_s);
    const ZDIndexPath category = sheet.row(&ZDSectionIndices::category);
    auto *cell = static_cast<ZDCategoryCell *>(sheet.cell(category));
    sheet.tap(category);
    QVERIFY(sheet.form->isShowingPicker());
    QCOMPARE(sheet.table()->contentInsetBottom(), 216.0);
    QCOMPARE(cell->textLabel()->text(), L("CATEGORY"));
    ZDPickerView *wheel = sheet.form->picker();
    QCOMPARE(wheel->selectedRowInComponent(0), 0);
    QCOMPARE(wheel->numberOfRowsInComponent(0), 2);

    // A second tap neither moves the wheel nor scrolls.
    sheet.waitForWheel();
    const QRect resting = sheet.form->pickerContainer()->geometry();
    const int offset = sheet.table()->contentOffset();
    QTest::mouseClick(sheet.table()->contentWidget(), Qt::LeftButton, {},
                      sheet.table()->rectForRowAtIndexPath(category).center());
    QCOMPARE(sheet.form->pickerContainer()->geometry(), resting);
    QCOMPARE(sheet.table()->contentOffset(), offset);
    QCOMPARE(sheet.table()->indexPathForSelectedRow(), category);
    QTest::qWait(400);
    sheet.save(u"form-phone-picker.png"_s);

    // Tap the row below the middle: it comes to the middle and is chosen.
    QTest::mouseClick(wheel, Qt::LeftButton, {},
                      QPoint(wheel->width() / 2, wheel->height() / 2 + 40));
    QCOMPARE(wheel->selectedRowInComponent(0), 1);
    QCOMPARE(cell->detailTextLabel()->text(), u"Music"_s);
    QCOMPARE(sheet.form->videoCategory()->value(), QVariant(10));
    // Dragging the wheel back up chooses the first again.
    dragBy(wheel, QPoint(wheel->width() / 2, wheel->height() / 2), 45);
    QCOMPARE(wheel->selectedRowInComponent(0), 0);
    QCOMPARE(cell->detailTextLabel()->text(), u"Travel"_s);
}

void tst_FormEditing::returnEnterOrEscapePutsTheWheelAwayKeepingTheCategory_data()
{
    QTest::addColumn<int>("key");
    QTest::newRow("Return") << int(Qt::Key_Return);
    QTest::newRow("Enter") << int(Qt::Key_Enter);
    QTest::newRow("Escape") << int(Qt::Key_Escape);
}

void tst_FormEditing::returnEnterOrEscapePutsTheWheelAwayKeepingTheCategory()
{
    QFETCH(int, key);
    SignedInSheet sheet;
    sheet.activate();
    auto *cell = static_cast<ZDCategoryCell *>(sheet.cell(sheet.row(&ZDSectionIndices::category)));
    cell->setFocus(Qt::TabFocusReason);
    QTest::keyClick(cell, Qt::Key_Space);
    ZDPickerView *wheel = sheet.form->picker();
    QVERIFY(wheel);
    QTRY_COMPARE(QApplication::focusWidget(), wheel);
    QTest::keyClick(wheel, Qt::Key_Down);
    QCOMPARE(cell->detailTextLabel()->text(), u"Music"_s);

    QTest::keyClick(wheel, Qt::Key(key));
    QVERIFY(!sheet.form->isShowingPicker());
    QTRY_COMPARE(QApplication::focusWidget(), cell);
    QTRY_COMPARE(sheet.form->pickerContainer()->y(), sheet.form->view()->height());
    QCOMPARE(cell->detailTextLabel()->text(), u"Music"_s);
    QCOMPARE(sheet.form->videoCategory()->value(), QVariant(10));
    // The form is still there: the key did not reach the sheet's Cancel.
    QVERIFY(sheet.delegate.events.isEmpty());
}

void tst_FormEditing::theWheelSlidesAwayForAnotherRowOrADragButNotForEditing()
{
    SignedInSheet sheet;
    const ZDIndexPath category = sheet.row(&ZDSectionIndices::category);
    sheet.tap(category);
    sheet.tap(sheet.row(&ZDSectionIndices::title));
    QVERIFY(!sheet.form->isShowingPicker());
    QCOMPARE(sheet.table()->contentInsetBottom(), 0.0);
    QTRY_VERIFY(sheet.form->titleCell()->isFirstResponder());
    QTRY_VERIFY(!sheet.cell(category)->isHighlighted());

    sheet.tap(category);
    QVERIFY(sheet.form->isShowingPicker());
    sheet.drag(sheet.table()->rectForRowAtIndexPath({0, 0}).center(), 30);
    QVERIFY(!sheet.form->isShowingPicker());
    QCOMPARE(sheet.table()->contentInsetBottom(), 0.0);

    // Beginning to edit selects its row without the selection handling, which
    // would put the wheel away.
    sheet.tap(category);
    sheet.form->tagCell(0)->becomeFirstResponder();
    QTRY_COMPARE(sheet.table()->indexPathForSelectedRow(), sheet.row(&ZDSectionIndices::tags));
    QCOMPARE(sheet.table()->contentInsetBottom(), 216.0);
}

void tst_FormEditing::phoneKeyboardGivesTheTableItsRoom()
{
    KeyboardOn keyboard;
    SignedInSheet sheet;
    const auto onScreen = [] { return ZDKeyboard::shared().isAutomaticKeyboardOnScreen(); };
    sheet.form->titleCell()->becomeFirstResponder();
    QTRY_COMPARE(sheet.table()->contentInsetBottom(), 216.0); // once it has slid in
    QVERIFY(onScreen());
    // Typing on the keyboard panel goes into the focused row.
    press({u"t"_s, u"r"_s, u"i"_s, u"p"_s});
    QCOMPARE(sheet.form->videoTitle(), u"trip"_s);
    press({u"return"_s}); // on to the description: the keyboard stays
    QTRY_VERIFY(sheet.form->descriptionCell()->isFirstResponder());
    QTest::qWait(100);
    QVERIFY(onScreen());

    // The wheel orders the keyboard out.
    sheet.tap(sheet.row(&ZDSectionIndices::category));
    QTRY_VERIFY(!onScreen());

    // A tag row: the keyboard comes back; the first tag row scrolls into view.
    sheet.form->tagCell(0)->becomeFirstResponder();
    QTRY_VERIFY(onScreen());
    press({u"s"_s, u"e"_s, u"a"_s, u","_s});
    QTRY_VERIFY(sheet.form->tagCell(1)->isFirstResponder());
    QTest::qWait(400); // rows and scrolling come to rest
    sheet.save(u"form-phone-keyboard.png"_s);
    // Off the text rows, the keyboard goes and so does the room.
    sheet.form->resignResponder();
    QTRY_VERIFY(!onScreen());
    QTRY_COMPARE(sheet.table()->contentInsetBottom(), 0.0);
}

// On a tablet the keyboard grows the footer instead of the inset; the room's
// own tests measure by how much.
void tst_FormEditing::tabletKeyboardGrowsTheFooter()
{
    KeyboardOn keyboard;
    ZDDevice::setKind(ZDDeviceKind::Tablet);
    {
        TestAuthenticator signedOut;
        Sheet sheet(&signedOut, {}, QSize(540, 620));
        sheet.show();
        QTRY_VERIFY(visibleAlert(sheet.form->authenticationAlert()));
        QTest::qWait(250); // let the dialog fade in
        sheet.save(u"form-tablet-signed-out.png"_s);
    }
    SignedInSheet sheet({}, QSize(540, 620));
    sheet.save(u"form-tablet-signed-in.png"_s);
    sheet.window->resize(540, 700); // the keyboard picture in the docs is taller
    ZDFooterContainerView *footer = sheet.footer();
    const int bare = footer->height();
    sheet.form->titleCell()->becomeFirstResponder();
    QTRY_VERIFY(footer->height() > bare);
    QCOMPARE(sheet.table()->contentInsetBottom(), 0.0);
    QTest::keyClicks(sheet.form->titleCell()->editor(), u"Summer at the sea"_s);
    QTest::qWait(300);
    sheet.save(u"form-tablet-keyboard.png"_s);
    press({u"split"_s}); // the tablet keyboard splits in two halves
    QVERIFY(ZDKeyboard::shared().isSplit());
    press({u"split"_s});
    QVERIFY(!ZDKeyboard::shared().isSplit());
    sheet.form->resignResponder();
    QTRY_COMPARE(footer->height(), bare);
}

void tst_FormEditing::descriptionHeightRuleAtItsBoundaries()
{
    QCOMPARE(ZDDescriptionRowHeight(99.0f), 120.0f);
    QCOMPARE(ZDDescriptionRowHeight(104.0f), 124.0f);
    QVERIFY(!ZDDescriptionRowShouldResize(120.0f, 124.0f));
    QCOMPARE(ZDDescriptionRowHeight(110.0f), 130.0f);
    QVERIFY(ZDDescriptionRowShouldResize(120.0f, 130.0f));
    QVERIFY(!ZDDescriptionRowShouldResize(120.0f, 125.0f)); // exactly 5 points: no change
    QVERIFY(ZDDescriptionRowShouldResize(130.0f, 120.0f));  // it shrinks too, to 120 at least
    QCOMPARE(ZDDescriptionRowHeight(5000.0f), 5020.0f);     // no upper limit
}

void tst_FormEditing::hostileTextHundredsOfTagsAndOddCategories()
{
    SignedInSheet sheet;
    // Long right-to-left text with emoji in every text row.
    QString hostile;
    for (int i = 0; i < 4000; ++i)
        hostile += u"שלום 🎥 "_s;
    sheet.form->titleCell()->becomeFirstResponder();
    typeText(sheet.form->titleCell()->editor(), hostile);
    QCOMPARE(sheet.form->videoTitle(), hostile);
    sheet.form->descriptionCell()->setTextValue(hostile.chopped(1));
    typeText(sheet.form->descriptionCell()->editor(), hostile.right(1) + u"x"_s);
    QVERIFY(sheet.form->descriptionHeight() > 120);
    QCOMPARE(sheet.form->videoDescription().size(), hostile.size() + 1);

    // Three hundred tags, each typed into the blank row.
    for (int i = 0; i < 300; ++i) {
        EditableTagCell *blank = sheet.form->tagCell(sheet.form->tagCount() - 1);
        blank->becomeFirstResponder();
        typeText(blank->editor(), i == 7 ? hostile.left(60) : u"t%1"_s.arg(i));
    }
    QCOMPARE(sheet.table()->numberOfRowsInSection(sheet.row(&ZDSectionIndices::tags).section), 301);
    const QStringList tags = sheet.form->videoTags();
    QCOMPARE(tags.size(), 300);
    QCOMPARE(tags[7], hostile.left(60));
    QCOMPARE(tags.last(), u"t299"_s);

    // No categories, an empty list and a nameless category.
    TestAuthenticator other;
    Sheet none(&other, {true, false, std::nullopt, true});
    none.show();
    QCOMPARE(none.form->videoCategory(), std::nullopt);
    QCOMPARE(none.form->pickerViewNumberOfRowsInComponent(nullptr, 0), 0);
    QCOMPARE(none.form->pickerViewTitleForRowForComponent(nullptr, 3, 0), std::nullopt);

    class Odd : public TestForm
    {
    public:
        using TestForm::TestForm;
        std::optional<QList<ZDCategory>> categories() override { return list; }
        QList<ZDCategory> list;
    };
    auto odd = ZDPublishViewController::create<Odd>(&other, FormOptions{});
    odd->view()->resize(320, 480);
    QCOMPARE(odd->videoCategory(), std::nullopt); // an empty list has no first category
    odd->list = {ZDCategory::categoryWithDisplayNameValue(QString(), 1),
                 ZDCategory::categoryWithDisplayNameValue(u"Named"_s, 2)};
    odd->view()->show();
    QVERIFY(QTest::qWaitForWindowExposed(odd->view()));
    const ZDIndexPath category{int(odd->sectionIndices().category), 0};
    odd->tableView()->selectRowAtIndexPath(category, false, ZDTableView::ScrollPosition::None);
    odd->tableViewDidSelectRowAtIndexPath(odd->tableView(), category);
    odd->pickerViewDidSelectRowInComponent(odd->picker(), 0, 0);
    auto *cell = static_cast<ZDCategoryCell *>(odd->tableView()->cellForRowAtIndexPath(category));
    QCOMPARE(cell->detailTextLabel()->text(), u" "_s); // a nameless category shows as a space
}

void tst_FormEditing::formMayGoWhileThePickerSlidesOrTheKeyboardIsUp()
{
    KeyboardOn keyboard;
    {
        SignedInSheet sheet;
        sheet.tap(sheet.row(&ZDSectionIndices::category));
    } // the wheel still slides up
    {
        SignedInSheet sheet;
        typeInto(sheet.form->titleCell(), u"kept"_s);
        QCOMPARE(sheet.form->videoTitle(), u"kept"_s);
    } // the keyboard still slides up
    QTest::qWait(int(ZDDevice::kNavigationTransitionDuration * 1000) + 100);
    QVERIFY(!ZDKeyboard::shared().activeKeyboardView() ||
            ZDKeyboard::shared().activeKeyboardView()->window());
}

QTEST_MAIN(tst_FormEditing)
#include "tst_formediting.moc"
