// The toolkit without a mouse and without sight: Tab chains, row and wheel
// keys, alerts' keys, and what Qt's accessibility layer reports of each widget.

#include "ToolkitFixtures.h"

#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"

#include <QAccessible>
#include <QLabel>
#include <QPushButton>

using namespace Qt::StringLiterals;

namespace {

// Section 0: a row with a text editor and a plain row; section 1: three choice
// rows, the first checked and the last not taking touches; a footer button.
struct Form : CellTable
{
    Form()
    {
        cells.resize(2);
        cells[0].push_back(std::make_unique<ZDTableViewCell>());
        editor = new QLineEdit(cell(0, 0));
        editor->setAccessibleName(u"Title"_s);
        cells[0].push_back(plain(u"Account"_s));
        for (const QString &name : {u"Small"_s, u"Medium"_s, u"Large"_s})
            cells[1].push_back(plain(name));
        cell(1, 0)->setAccessoryType(ZDTableViewCell::Accessory::Checkmark);
        cell(1, 2)->setUserInteractionEnabled(false);
        footer.resize(320, 40);
        terms = new QPushButton(u"Terms"_s, &footer);
    }

    QLineEdit *editor = nullptr;
    QWidget footer;
    QPushButton *terms = nullptr;
};

// The form in an active window, declared after the form so that it goes first.
struct Shown : TableWindow
{
    explicit Shown(Form &form) : TableWindow(&form, &form, QSize(320, 480), &form.footer)
    {
        showActive(&widget);
    }
};

// The widgets Tab visits from `start`, until it comes back.
QList<QWidget *> tabRound(QWidget *start, Qt::Key key = Qt::Key_Tab)
{
    start->setFocus(Qt::OtherFocusReason);
    QList<QWidget *> seen{start};
    for (int i = 0; i < 20; ++i) {
        QTest::keyClick(QApplication::focusWidget(), key);
        if (QApplication::focusWidget() == start)
            break;
        seen << QApplication::focusWidget();
    }
    return seen;
}

QAccessibleInterface *accessible(QObject *object)
{
    return QAccessible::queryAccessibleInterface(object);
}

const QStringList kFruit{u"Apple"_s,    u"Apricot"_s, u"Banana"_s, u"Cherry"_s,
                         u"Chestnut"_s, u"Date"_s,    u"Fig"_s,    u"Grape"_s,
                         u"Kiwi"_s,     u"Lemon"_s,   u"Lime"_s,   u"Mango"_s};

} // namespace

class tst_KeyboardAccess : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QApplication::setKeyboardInputInterval(60 * 60 * 1000); // typed letters always add up
        ZDDevice::setKind(ZDDeviceKind::Phone);
    }

    void tabVisitsRowsInReadingOrderThenTheFooterAndRingsTheFocusedRow();
    void arrowsMoveWithinASectionAndKeysActivateLikeATap_data();
    void arrowsMoveWithinASectionAndKeysActivateLikeATap();
    void wheelTurnsWithKeysAndTellsItsDelegateOnlyWhenItMoves_data();
    void wheelTurnsWithKeysAndTellsItsDelegateOnlyWhenItMoves();
    void alertIsAModalDialogThatKeepsTabInsideAndEscapeIsItsCancelButton();
    void navigationBarButtonsComeAfterTheRootsControls();
    void rowsAreAnnouncedWithRoleNameValueAndState();
    void wheelIsAComboWithItsChoicesAndReportsItsValue();
    void keyboardPanelKeysAreNamedAndNeverTakeTheFocus();
};

void tst_KeyboardAccess::tabVisitsRowsInReadingOrderThenTheFooterAndRingsTheFocusedRow()
{
    Form form;
    Shown shown(form);
    QList<QWidget *> expected{form.editor,     form.cell(0, 1), form.cell(1, 0),
                              form.cell(1, 1), form.cell(1, 2), form.terms};
    QCOMPARE(tabRound(form.editor), expected);
    // Shift+Tab goes the same way back.
    QList<QWidget *> back = tabRound(form.editor, Qt::Key_Backtab);
    std::reverse(back.begin() + 1, back.end());
    QCOMPARE(back, expected);
    QCOMPARE(shown.table->focusPolicy(), Qt::NoFocus);
    // Only the focused row wears the ring.
    const QImage bare = form.cell(0, 1)->grab().toImage();
    form.cell(0, 1)->setFocus(Qt::TabFocusReason);
    QTRY_COMPARE(form.cell(0, 1)->grab().toImage().pixelColor(2, 20),
                 form.cell(0, 1)->palette().color(QPalette::Highlight));
    QTest::keyClick(form.cell(0, 1), Qt::Key_Tab);
    QTRY_COMPARE(form.cell(0, 1)->grab().toImage(), bare);
    // A click on a row selects it and leaves the focus where it was.
    form.editor->setFocus();
    shown.click({1, 1});
    QCOMPARE(QApplication::focusWidget(), form.editor);
    QCOMPARE(form.selected, (QList<ZDIndexPath>{ZDIndexPath{1, 1}}));
    // A row added later takes its place in the chain.
    form.cells[0].insert(form.cells[0].begin() + 1, Form::plain(u"New"_s));
    shown.table->insertRowsAtIndexPaths({{0, 1}}, ZDTableView::RowAnimation::Top);
    QTRY_VERIFY(form.cell(0, 1)->isVisible());
    expected.insert(1, form.cell(0, 1));
    QCOMPARE(tabRound(form.editor), expected);
}

void tst_KeyboardAccess::arrowsMoveWithinASectionAndKeysActivateLikeATap_data()
{
    QTest::addColumn<int>("key");
    QTest::newRow("space") << int(Qt::Key_Space);
    QTest::newRow("return") << int(Qt::Key_Return);
    QTest::newRow("enter") << int(Qt::Key_Enter);
}

void tst_KeyboardAccess::arrowsMoveWithinASectionAndKeysActivateLikeATap()
{
    QFETCH(int, key);
    Form form;
    Shown shown(form);
    form.cell(1, 0)->setFocus(Qt::TabFocusReason);
    QTest::keyClick(form.cell(1, 0), Qt::Key_Up); // the first row of its section: stays
    QCOMPARE(QApplication::focusWidget(), form.cell(1, 0));
    QTest::keyClick(form.cell(1, 0), Qt::Key_Down);
    QCOMPARE(QApplication::focusWidget(), form.cell(1, 1));
    QTest::keyClick(form.cell(1, 1), Qt::Key(key));
    QCOMPARE(form.selected, (QList<ZDIndexPath>{ZDIndexPath{1, 1}}));
    QCOMPARE(shown.table->indexPathForSelectedRow(), (ZDIndexPath{1, 1}));
    QVERIFY(form.cell(1, 1)->isHighlighted());
    // A row that takes no touches takes no keys either, but can be reached.
    QTest::keyClick(form.cell(1, 1), Qt::Key_Down);
    QCOMPARE(QApplication::focusWidget(), form.cell(1, 2));
    QTest::keyClick(form.cell(1, 2), Qt::Key(key));
    QCOMPARE(form.selected.size(), 1);
    // Down from an editor's row reaches the next row; Return in the editor is the editor's.
    form.editor->setFocus();
    QTest::keyClick(form.editor, Qt::Key_Return);
    QCOMPARE(form.selected.size(), 1);
    QTest::keyClick(form.editor, Qt::Key_Down);
    QCOMPARE(QApplication::focusWidget(), form.cell(0, 1));
    QTest::keyClick(form.cell(0, 1), Qt::Key_Up);
    QCOMPARE(QApplication::focusWidget(), form.editor);
}

void tst_KeyboardAccess::wheelTurnsWithKeysAndTellsItsDelegateOnlyWhenItMoves_data()
{
    QTest::addColumn<int>("from");
    QTest::addColumn<QString>("keys"); // d/u: Down/Up, n/p: Page Down/Up, h/e: Home/End
    QTest::addColumn<int>("to");       // upper-case letters are typed
    QTest::addColumn<int>("calls");
    QTest::newRow("down") << 0 << u"d"_s << 1 << 1;
    QTest::newRow("up at the top stays") << 0 << u"u"_s << 0 << 0;
    QTest::newRow("end then home") << 3 << u"eh"_s << 0 << 2;
    QTest::newRow("page down then up") << 0 << u"np"_s << 0 << 2;
    QTest::newRow("typed start") << 0 << u"C"_s << 3 << 1;
    QTest::newRow("typed longer start") << 0 << u"CHES"_s << 4 << 2;
    QTest::newRow("same letter steps on") << 0 << u"LL"_s << 10 << 2;
    QTest::newRow("nothing starts so") << 2 << u"Z"_s << 2 << 0;
}

void tst_KeyboardAccess::wheelTurnsWithKeysAndTellsItsDelegateOnlyWhenItMoves()
{
    QFETCH(int, from);
    QFETCH(QString, keys);
    QFETCH(int, to);
    QFETCH(int, calls);
    NamedWheel fruit(kFruit);
    ZDPickerView wheel;
    wheel.resize(320, 216);
    wheel.setDelegate(&fruit);
    wheel.selectRowInComponent(from, 0, false);
    showActive(&wheel);
    wheel.setFocus(Qt::TabFocusReason);
    const QHash<QChar, Qt::Key> named{{u'd', Qt::Key_Down},     {u'u', Qt::Key_Up},
                                      {u'n', Qt::Key_PageDown}, {u'p', Qt::Key_PageUp},
                                      {u'h', Qt::Key_Home},     {u'e', Qt::Key_End}};
    for (const QChar c : keys) {
        if (named.contains(c))
            QTest::keyClick(&wheel, named[c]);
        else
            QTest::keyClick(&wheel, c.toLower().toLatin1());
    }
    QCOMPARE(wheel.selectedRowInComponent(0), to);
    QCOMPARE(fruit.picked.size(), calls);
    if (calls > 0)
        QCOMPARE(fruit.picked.last(), to);
}

void tst_KeyboardAccess::alertIsAModalDialogThatKeepsTabInsideAndEscapeIsItsCancelButton()
{
    QWidget window;
    window.resize(320, 480);
    auto *under = new QPushButton(u"Under"_s, &window);
    showActive(&window);
    AlertRecorder recorder;

    QPointer<ZDAlertView> login =
        new ZDAlertView(u"Sign in"_s, u"to Demo Video"_s, &recorder, u"Cancel"_s, {u"Sign In"_s});
    login->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    login->show(&window);
    QAccessibleInterface *dialog = accessible(login);
    QCOMPARE(dialog->role(), QAccessible::Dialog);
    QCOMPARE(dialog->text(QAccessible::Name), u"Sign in"_s);
    QCOMPARE(dialog->text(QAccessible::Description), u"to Demo Video"_s);
    QVERIFY(dialog->state().modal);
    const QString user = accessible(login->textFieldAtIndex(0))->text(QAccessible::Name);
    const QString password = accessible(login->textFieldAtIndex(1))->text(QAccessible::Name);
    QVERIFY(!user.isEmpty() && !password.isEmpty() && user != password);
    QCOMPARE(accessible(login->buttonAtIndex(1))->text(QAccessible::Name), u"Sign In"_s);

    QCOMPARE(QApplication::focusWidget(), login->textFieldAtIndex(0));
    const QList<QWidget *> round = tabRound(login->textFieldAtIndex(0));
    QCOMPARE(round, (QList<QWidget *>{login->textFieldAtIndex(0), login->textFieldAtIndex(1),
                                      login->buttonAtIndex(0), login->buttonAtIndex(1)}));
    QVERIFY(!round.contains(under));
    QTest::keyClick(login->textFieldAtIndex(1), Qt::Key_Escape);
    QCOMPARE(recorder.dismissed, QList<int>{0});
    QTRY_VERIFY(!login);

    // Without fields the focus starts on the first other button; Return presses it.
    QPointer<ZDAlertView> question = new ZDAlertView(u"Sign out?"_s, u"You will be asked again."_s,
                                                     &recorder, u"Cancel"_s, {u"Sign Out"_s});
    question->show(&window);
    QCOMPARE(QApplication::focusWidget(), question->buttonAtIndex(1));
    QTest::keyClick(question->buttonAtIndex(1), Qt::Key_Return);
    QCOMPARE(recorder.dismissed, (QList<int>{0, 1}));
    QTRY_VERIFY(!question);

    // Escape on an alert without a cancel button stays in the alert.
    struct EscapeWatch : QObject
    {
        bool heard = false;
        bool eventFilter(QObject *, QEvent *e) override
        {
            heard |= e->type() == QEvent::KeyPress &&
                     static_cast<QKeyEvent *>(e)->key() == Qt::Key_Escape;
            return false;
        }
    } watch;
    window.installEventFilter(&watch);
    QPointer<ZDAlertView> notice =
        new ZDAlertView(u"Done"_s, QString(), &recorder, QString(), {u"OK"_s});
    notice->show(&window);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Escape);
    QVERIFY(notice && notice->isVisibleAlert());
    QVERIFY(!watch.heard);
    QTest::keyClick(QApplication::focusWidget(), Qt::Key_Space);
    QCOMPARE(recorder.dismissed, (QList<int>{0, 1, 0}));
}

void tst_KeyboardAccess::navigationBarButtonsComeAfterTheRootsControls()
{
    NavigationScreen screen(u"Publish"_s);
    auto *field = new QLineEdit(screen.root.view());
    screen.show();
    QCOMPARE(tabRound(field), (QList<QWidget *>{field, screen.navigation.leftButton(),
                                                screen.navigation.rightButton()}));
    QCOMPARE(screen.navigation.view()->accessibleName(), u"Publish"_s);
    screen.navigation.rightButton()->setFocus();
    QTest::keyClick(screen.navigation.rightButton(), Qt::Key_Space);
    QCOMPARE(screen.done, 1);
}

void tst_KeyboardAccess::rowsAreAnnouncedWithRoleNameValueAndState()
{
    Form form;
    auto valueRow = std::make_unique<ZDTableViewCell>(ZDTableViewCell::Style::Value1);
    valueRow->textLabel()->setText(u"Category"_s);
    valueRow->detailTextLabel()->setText(u"Music"_s);
    new QLabel(u"(286.1 MB)"_s, form.cell(1, 0));
    form.cells[0].push_back(std::move(valueRow));
    Shown shown(form);

    struct Expected
    {
        ZDTableViewCell *cell;
        QAccessible::Role role;
        QString name;
        QString value;
        bool checked, disabled, focusable;
    };
    const Expected rows[] = {
        {form.cell(0, 0), QAccessible::Grouping, QString(), QString(), false, false, false},
        {form.cell(0, 1), QAccessible::Button, u"Account"_s, QString(), false, false, true},
        {form.cell(0, 2), QAccessible::ComboBox, u"Category"_s, u"Music"_s, false, false, true},
        {form.cell(1, 0), QAccessible::RadioButton, u"Small, 286.1 MB"_s, QString(), true, false,
         true},
        {form.cell(1, 1), QAccessible::RadioButton, u"Medium"_s, QString(), false, false, true},
        {form.cell(1, 2), QAccessible::RadioButton, u"Large"_s, QString(), false, true, true},
    };
    for (const Expected &row : rows) {
        QAccessibleInterface *iface = accessible(row.cell);
        QVERIFY2(iface->role() == row.role, qPrintable(row.name));
        QCOMPARE(iface->text(QAccessible::Name), row.name);
        QCOMPARE(iface->text(QAccessible::Value), row.value);
        QCOMPARE(bool(iface->state().checked), row.checked);
        QCOMPARE(bool(iface->state().disabled), row.disabled);
        QCOMPARE(bool(iface->state().focusable), row.focusable);
    }
    // The editor's row shows its editor and nothing of its own text.
    QAccessibleInterface *editorRow = accessible(form.cell(0, 0));
    QCOMPARE(editorRow->childCount(), 1);
    QCOMPARE(editorRow->child(0)->role(), QAccessible::EditableText);
    QCOMPARE(editorRow->child(0)->text(QAccessible::Name), u"Title"_s);
    // The labels fold into the row: no child repeats them.
    QCOMPARE(accessible(form.cell(1, 0))->childCount(), 0);

    // Pressing through the accessible action is a tap; the focus is announced.
    const QString press = QAccessibleActionInterface::pressAction();
    QAccessibleActionInterface *actions = accessible(form.cell(1, 1))->actionInterface();
    QVERIFY(actions->actionNames().contains(press));
    actions->doAction(press);
    QCOMPARE(form.selected, (QList<ZDIndexPath>{ZDIndexPath{1, 1}}));
    QVERIFY(!accessible(form.cell(1, 2))->actionInterface()->actionNames().contains(press));
    form.cell(1, 1)->setFocus(Qt::TabFocusReason);
    QVERIFY(accessible(form.cell(1, 1))->state().focused);
}

void tst_KeyboardAccess::wheelIsAComboWithItsChoicesAndReportsItsValue()
{
    NamedWheel fruit(kFruit);
    ZDPickerView wheel;
    wheel.setAccessibleName(u"Fruit"_s);
    wheel.setDelegate(&fruit);
    wheel.selectRowInComponent(2, 0, false);
    QAccessibleInterface *iface = accessible(&wheel);
    QCOMPARE(iface->role(), QAccessible::ComboBox);
    QCOMPARE(iface->text(QAccessible::Name), u"Fruit"_s);
    QCOMPARE(iface->text(QAccessible::Value), u"Banana"_s);
    QCOMPARE(iface->childCount(), 12);
    QCOMPARE(iface->child(3)->text(QAccessible::Name), u"Cherry"_s);
    QVERIFY(iface->child(2)->state().selected);
    QVERIFY(!iface->child(3)->state().selected);
    QCOMPARE(iface->indexOfChild(iface->child(5)), 5);
    QCOMPARE(iface->child(5)->parent(), iface);
    QAccessibleValueInterface *value = iface->valueInterface();
    QCOMPARE(value->currentValue().toInt(), 2);
    QCOMPARE(value->maximumValue().toInt(), 11);
    value->setCurrentValue(7);
    QCOMPARE(wheel.selectedRowInComponent(0), 7);
    QCOMPARE(iface->text(QAccessible::Value), u"Grape"_s);
    QVERIFY(fruit.picked.isEmpty()); // set from outside, like selectRowInComponent()
}

void tst_KeyboardAccess::keyboardPanelKeysAreNamedAndNeverTakeTheFocus()
{
    QWidget window;
    window.resize(320, 480);
    auto *field = new QLineEdit(&window);
    showActive(&window);
    ZDKeyboard &keyboard = ZDKeyboard::shared();
    keyboard.setEnabled(true);
    field->clearFocus();
    field->setFocus();
    QTRY_VERIFY(keyboard.keyWithLabel(u"space"_s));
    for (const QString &label : {u"\u21e7"_s, u"\u232b"_s, u","_s, u"space"_s, u"return"_s}) {
        QWidget *key = keyboard.keyWithLabel(label);
        QCOMPARE(key->focusPolicy(), Qt::NoFocus);
        // Symbols are said as words.
        const QString name = accessible(key)->text(QAccessible::Name);
        QVERIFY2(!name.isEmpty() && (label.size() > 1 || name != label), qPrintable(label));
    }
    QCOMPARE(accessible(keyboard.keyWithLabel(u"q"_s))->text(QAccessible::Name), u"q"_s);
    QTest::mouseClick(keyboard.keyWithLabel(u"q"_s), Qt::LeftButton);
    QCOMPARE(QApplication::focusWidget(), field);
    QCOMPARE(field->text(), u"q"_s);
    keyboard.setEnabled(false);
}

QTEST_MAIN(tst_KeyboardAccess)
#include "tst_keyboardaccess.moc"
