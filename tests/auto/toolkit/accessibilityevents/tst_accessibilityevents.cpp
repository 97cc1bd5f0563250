// The accessibility events the toolkit sends when what a screen reader shows
// changes. Qt sends events only while its bridge is active, so this test runs
// under tools/with-atspi (a virtual display with the AT-SPI bus); the update
// handler below then takes the events before the bridge does.

#include "ToolkitFixtures.h"

#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDPickerView.h"
#include "toolkit/ZDTableView.h"
#include "toolkit/ZDTableViewCell.h"

#include <QAccessible>
#include <QApplication>
#include <QLabel>
#include <QTest>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

struct Seen
{
    QAccessible::Event type;
    QObject *object;
    QAccessible::State changed;
};
QList<Seen> &seen()
{
    static QList<Seen> list;
    return list;
}
void record(QAccessibleEvent *event)
{
    QAccessible::State changed;
    if (event->type() == QAccessible::StateChanged)
        changed = static_cast<QAccessibleStateChangeEvent *>(event)->changedStates();
    seen().append({event->type(), event->object(), changed});
}
bool saw(QAccessible::Event type, const QObject *object)
{
    return std::any_of(seen().begin(), seen().end(),
                       [&](const Seen &s) { return s.type == type && s.object == object; });
}

} // namespace

class tst_AccessibilityEvents : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QAccessible::installUpdateHandler(&record);
        // The bridge switches itself on once it has reached the AT-SPI bus.
        QVERIFY2(QTest::qWaitFor([] { return QAccessible::isActive(); }, 30000),
                 "Qt's accessibility bridge is off: run this test under tools/with-atspi "
                 "(Xvfb, D-Bus and the AT-SPI bus; tools/install-deps installs them)");
    }
    void init() { seen().clear(); }

    void rowsSayWhenTheyComeAndWhenTheirCheckmarkMoves();
    void wheelSaysItsNewValue();
    void alertSaysWhenItOpensAndCloses();
};

void tst_AccessibilityEvents::rowsSayWhenTheyComeAndWhenTheirCheckmarkMoves()
{
    CellTable rows;
    rows.cells.resize(1);
    rows.cells[0].push_back(std::make_unique<ZDTableViewCell>());
    TableWindow window(&rows, &rows);
    rows.cells[0].push_back(std::make_unique<ZDTableViewCell>());
    window.table->insertRowsAtIndexPaths({{0, 1}}, ZDTableView::RowAnimation::Fade);
    QVERIFY(saw(QAccessible::ObjectCreated, rows.cell(0, 1)));

    seen().clear();
    rows.cell(0, 1)->setAccessoryType(ZDTableViewCell::Accessory::Checkmark);
    const auto checked = std::find_if(seen().begin(), seen().end(), [&](const Seen &s) {
        return s.type == QAccessible::StateChanged && s.object == rows.cell(0, 1);
    });
    QVERIFY(checked != seen().end());
    QVERIFY(checked->changed.checked);
}

void tst_AccessibilityEvents::wheelSaysItsNewValue()
{
    NamedWheel names({u"One"_s, u"Two"_s, u"Three"_s});
    ZDPickerView wheel;
    wheel.setDelegate(&names);
    wheel.show();
    QVERIFY(QTest::qWaitForWindowExposed(&wheel));
    wheel.selectRowInComponent(2, 0, false);
    QVERIFY(saw(QAccessible::ValueChanged, &wheel));
}

void tst_AccessibilityEvents::alertSaysWhenItOpensAndCloses()
{
    QWidget window;
    window.resize(320, 480);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    QPointer<ZDAlertView> alert =
        new ZDAlertView(u"Sign in"_s, u"to Demo Video"_s, nullptr, u"Cancel"_s, {u"OK"_s});
    alert->show(&window);
    QVERIFY(saw(QAccessible::DialogStart, alert));
    QObject *const shown = alert;
    alert->dismissWithClickedButtonIndex(0, false);
    QVERIFY(saw(QAccessible::DialogEnd, shown));
}

QTEST_MAIN(tst_AccessibilityEvents)
#include "tst_accessibilityevents.moc"
