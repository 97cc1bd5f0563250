// The room the form keeps for the keyboard and the category wheel, on a phone
// and on a tablet, apart from the form.

#include "ToolkitFixtures.h"

#include "publish/ZDFooterContainerView.h"
#include "publish/ZDFormKeyboardRoom_p.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"
#include "toolkit/ZDPickerView.h"
#include "toolkit/ZDTableViewCell.h"

#include <QLabel>
#include <QLineEdit>
#include <QTest>
#include <QVBoxLayout>

#include <cmath>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Thirty rows in one section, and a wheel of three rows.
struct Source : CellTable, ZDPickerViewDelegate
{
    Source()
    {
        cells.resize(1);
        for (int i = 0; i < 30; ++i)
            cells[0].push_back(plain(u"Row %1"_s.arg(i)));
    }
    int numberOfComponentsInPickerView(ZDPickerView *) override { return 1; }
    int pickerViewNumberOfRowsInComponent(ZDPickerView *, int) override { return 3; }
};

// A view with a table and its footer, the way the form builds them.
struct Screen
{
    explicit Screen(QSize size)
    {
        window.resize(size);
        auto *layout = new QVBoxLayout(&window);
        layout->setContentsMargins(0, 0, 0, 0);
        table = new ZDTableView(&window);
        layout->addWidget(table);
        table->setDataSource(&source);
        footer = std::make_unique<ZDFooterContainerView>(QRect());
        footer->termsButton()->setFixedHeight(20);
        table->setTableFooterView(footer.get());
        table->reloadData();
        window.show();
    }
    ~Screen() { table->setTableFooterView(nullptr); }

    Source source;
    QWidget window;
    ZDTableView *table = nullptr;
    std::unique_ptr<ZDFooterContainerView> footer;
};

constexpr ZDIndexPath kWheelRow{0, 20};

void addDeviceRows()
{
    QTest::addColumn<ZDDeviceKind>("kind");
    QTest::newRow("phone") << ZDDeviceKind::Phone;
    QTest::newRow("tablet") << ZDDeviceKind::Tablet;
}

} // namespace

class tst_KeyboardRoom : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup()
    {
        ZDKeyboard::shared().orderOutAutomaticKeyboard();
        ZDKeyboard::shared().setEnabled(false);
        ZDDevice::resetKind();
    }

    void shrinkingMakesRoomOnceAndUnshrinkingGivesItBack_data();
    void shrinkingMakesRoomOnceAndUnshrinkingGivesItBack();
    void theKeyboardShrinksAPhoneButGrowsATabletsFooter_data();
    void theKeyboardShrinksAPhoneButGrowsATabletsFooter();
    void theKeyboardLeavingKeepsTheRoomWhileTheWheelIsUp();
    void theWheelSlidesUpWhereTheKeyboardWouldStandAndAwayAgain_data();
    void theWheelSlidesUpWhereTheKeyboardWouldStandAndAwayAgain();
    void aShrinkScrollsTheEditedRowIntoTheMiddle();
    void footerAnnouncesRealFrameChangesUnlessBypassed();
};

void tst_KeyboardRoom::shrinkingMakesRoomOnceAndUnshrinkingGivesItBack_data()
{
    addDeviceRows();
}

void tst_KeyboardRoom::shrinkingMakesRoomOnceAndUnshrinkingGivesItBack()
{
    QFETCH(ZDDeviceKind, kind);
    ZDDevice::setKind(kind);
    Screen screen(ZDDevice::screenSize(kind).toSize());
    ZDFormKeyboardRoom room(&screen.source, {});
    room.unshrink(); // harmless before any shrink
    room.attach(&screen.window, screen.table, screen.footer.get());
    room.shrink();
    room.shrink();
    QVERIFY(room.isShrunk());
    QCOMPARE(screen.table->contentInsetBottom(), 216.0);
    room.unshrink();
    QVERIFY(!room.isShrunk());
    QCOMPARE(screen.table->contentInsetBottom(), 0.0);
}

void tst_KeyboardRoom::theKeyboardShrinksAPhoneButGrowsATabletsFooter_data()
{
    addDeviceRows();
}

void tst_KeyboardRoom::theKeyboardShrinksAPhoneButGrowsATabletsFooter()
{
    QFETCH(ZDDeviceKind, kind);
    ZDDevice::setKind(kind);
    Screen screen(ZDDevice::screenSize(kind).toSize());
    auto *field = new QLineEdit(&screen.window);
    field->setGeometry(0, 0, 100, 20);
    field->show();
    ZDFormKeyboardRoom room(&screen.source, {});
    room.attach(&screen.window, screen.table, screen.footer.get());
    room.sizeFooter(false);
    QCOMPARE(screen.footer->height(), 30); // the button and the padding

    ZDKeyboard &keyboard = ZDKeyboard::shared();
    keyboard.setEnabled(true);
    screen.window.activateWindow();
    field->setFocus();
    QTRY_VERIFY(keyboard.isAutomaticKeyboardOnScreen());
    // Up at the foot of the window once it has slid in.
    QTRY_COMPARE(keyboard.keyboardFrameInWindow().bottom(), screen.window.height() - 1);
    room.keyboardDidShow();
    if (kind == ZDDeviceKind::Phone) {
        QVERIFY(room.isShrunk());
        QCOMPARE(screen.footer->height(), 30);
    } else {
        QVERIFY(!room.isShrunk());
        const int depth = screen.window.height() - keyboard.keyboardFrameInWindow().top();
        QVERIFY(depth > 0);
        QCOMPARE(screen.footer->height(), 30 + depth);
        keyboard.setSplit(true);
        room.keyboardDidHide(true); // a split keyboard leaves the rows reachable
        QCOMPARE(screen.footer->height(), 30);
        keyboard.setSplit(false);
    }
}

void tst_KeyboardRoom::theKeyboardLeavingKeepsTheRoomWhileTheWheelIsUp()
{
    ZDDevice::setKind(ZDDeviceKind::Phone);
    Screen screen(QSize(320, 480));
    ZDFormKeyboardRoom room(&screen.source, {});
    room.attach(&screen.window, screen.table, screen.footer.get());
    room.keyboardDidShow();
    room.showPicker(kWheelRow);
    room.keyboardDidHide(false);
    QVERIFY(room.isShrunk());
    room.hidePicker(kWheelRow);
    QVERIFY(!room.isShrunk());
    room.keyboardDidShow();
    room.keyboardDidHide(false);
    QVERIFY(!room.isShrunk());
}

void tst_KeyboardRoom::theWheelSlidesUpWhereTheKeyboardWouldStandAndAwayAgain_data()
{
    addDeviceRows();
}

void tst_KeyboardRoom::theWheelSlidesUpWhereTheKeyboardWouldStandAndAwayAgain()
{
    QFETCH(ZDDeviceKind, kind);
    ZDDevice::setKind(kind);
    const QSize size = ZDDevice::screenSize(kind).toSize();
    Screen screen(size);
    ZDFormKeyboardRoom room(&screen.source, {});
    room.attach(&screen.window, screen.table, screen.footer.get());
    screen.table->selectRowAtIndexPath(kWheelRow, false, ZDTableView::ScrollPosition::None);
    room.showPicker(kWheelRow);
    QVERIFY(room.isShowingPicker());
    QVERIFY(room.isShrunk());
    QWidget *container = room.pickerContainer();
    QVERIFY(container);
    QCOMPARE(room.picker()->parentWidget(), container);
    const QRect resting(0, size.height() - 216, size.width(), 216);
    QTRY_COMPARE(container->geometry(), resting);
    QVERIFY(container->isVisible());
    QCOMPARE(room.picker()->size(), resting.size());
    // The wheel's row is scrolled into the space above the wheel.
    const QRect row = screen.table->rectForRowAtIndexPath(kWheelRow);
    QTRY_VERIFY(row.bottom() - screen.table->contentOffset() < resting.top());

    room.showPicker(kWheelRow); // already up: nothing more
    QCOMPARE(container->geometry(), resting);
    room.hidePicker(kWheelRow);
    QVERIFY(!room.isShowingPicker());
    QVERIFY(!room.isShrunk());
    QVERIFY(!screen.table->indexPathForSelectedRow());
    QTRY_COMPARE(container->geometry(), resting.translated(0, 216));
}

void tst_KeyboardRoom::aShrinkScrollsTheEditedRowIntoTheMiddle()
{
    ZDDevice::setKind(ZDDeviceKind::Phone);
    Screen screen(QSize(320, 480));
    std::optional<ZDIndexPath> edited;
    ZDFormKeyboardRoom room(&screen.source, [&edited] { return edited; });
    room.attach(&screen.window, screen.table, screen.footer.get());
    room.shrink();
    QCOMPARE(screen.table->contentOffset(), 0);
    room.unshrink();
    edited = ZDIndexPath{0, 25};
    room.shrink();
    const QRect row = screen.table->rectForRowAtIndexPath(*edited);
    // The middle of the part above the room.
    QTRY_VERIFY(qAbs(row.center().y() - screen.table->contentOffset() -
                     (screen.table->viewport()->height() - 216) / 2) <= row.height());
}

void tst_KeyboardRoom::footerAnnouncesRealFrameChangesUnlessBypassed()
{
    struct Listener : ZDFooterContainerViewDelegate
    {
        int calls = 0;
        void _footerContainerFrameDidChangeWithSplitKeyboard(bool split) override
        {
            QVERIFY(!split);
            ++calls;
        }
    } listener;
    ZDFooterContainerView footer(QRect(0, 0, 300, 40));
    footer.setDelegate(&listener);
    footer.setFrame(QRect(0, 0, 300, 40)); // unchanged
    QCOMPARE(listener.calls, 0);
    footer.setFrame(QRect(0, 0, 300, 60));
    QCOMPARE(listener.calls, 1);
    footer.setFrameBypassDelegate(QRect(0, 0, 300, 80), true);
    QCOMPARE(listener.calls, 1);
    QCOMPARE(footer.termsButton()->x(),
             int(std::floor(float(300 - footer.termsButton()->width()) * 0.5f)));
}

QTEST_MAIN(tst_KeyboardRoom)
#include "tst_keyboardroom.moc"
