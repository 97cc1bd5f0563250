#include "TestSupport.h"
#include "ToolkitFixtures.h"

#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDNavigationController.h"
#include "toolkit/ZDTableView.h"
#include "toolkit/ZDTableViewCell.h"

#include <QApplication>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// A table of plain cells: sections[s] rows, each cell named "s.r".
class Rows : public ZDTableViewDataSource, public ZDTableViewDelegate
{
public:
    explicit Rows(QList<int> counts)
    {
        for (int s = 0; s < counts.size(); ++s) {
            cells.emplace_back();
            for (int r = 0; r < counts[s]; ++r)
                cells[size_t(s)].push_back(makeCell(s, r));
        }
    }
    static std::unique_ptr<ZDTableViewCell> makeCell(int s, int r)
    {
        auto cell = std::make_unique<ZDTableViewCell>();
        cell->textLabel()->setText(u"%1.%2"_s.arg(s).arg(r));
        return cell;
    }

    int numberOfSectionsInTableView(ZDTableView *) override { return int(cells.size()); }
    int tableViewNumberOfRowsInSection(ZDTableView *, int section) override
    {
        return int(cells[size_t(section)].size());
    }
    ZDTableViewCell *tableViewCellForRowAtIndexPath(ZDTableView *, ZDIndexPath ip) override
    {
        return cells[size_t(ip.section)][size_t(ip.row)].get();
    }
    QString tableViewTitleForFooterInSection(ZDTableView *, int section) override
    {
        return section == 0 ? u"Footer of the first group"_s : QString();
    }
    qreal tableViewHeightForRowAtIndexPath(ZDTableView *, ZDIndexPath ip) override
    {
        return ip.section == 0 && ip.row == 1 ? tallRow : 40.0;
    }
    qreal tableViewHeightForHeaderInSection(ZDTableView *, int section) override
    {
        return section == 0 ? 50.0 : 0.0;
    }
    QWidget *tableViewViewForHeaderInSection(ZDTableView *, int section) override
    {
        return section == 0 ? new QLabel(u"Header"_s) : nullptr;
    }
    void tableViewDidSelectRowAtIndexPath(ZDTableView *table, ZDIndexPath ip) override
    {
        selected.append(ip);
        if (onSelect)
            onSelect(table, ip);
    }
    void scrollViewWillBeginDragging(ZDTableView *) override { ++drags; }

    std::vector<std::vector<std::unique_ptr<ZDTableViewCell>>> cells;
    qreal tallRow = 120.0;
    QList<ZDIndexPath> selected;
    int drags = 0;
    std::function<void(ZDTableView *, ZDIndexPath)> onSelect;
};

struct Window
{
    explicit Window(QSize size = QSize(320, 480))
    {
        widget.resize(size);
        table = new ZDTableView(&widget);
        table->setGeometry(widget.rect());
    }
    // A shown table whose source and delegate are `rows`.
    explicit Window(Rows &rows, QSize size = QSize(320, 480)) : Window(size)
    {
        table->setDataSource(&rows);
        table->setDelegate(&rows);
        table->reloadData();
        show();
    }
    void show()
    {
        widget.show();
        QVERIFY(QTest::qWaitForWindowExposed(&widget));
    }
    QPoint centerOf(ZDIndexPath ip) const { return table->rectForRowAtIndexPath(ip).center(); }
    void click(ZDIndexPath ip)
    {
        QTest::mouseClick(table->contentWidget(), Qt::LeftButton, {}, centerOf(ip));
    }
    QWidget widget;
    ZDTableView *table = nullptr;
};

class CountingController : public ZDViewController
{
public:
    QStringList hooks;
    void viewWillAppear(bool animated) override
    {
        ZDViewController::viewWillAppear(animated);
        hooks << u"willAppear"_s;
    }
    void viewDidAppear(bool animated) override
    {
        ZDViewController::viewDidAppear(animated);
        hooks << u"didAppear"_s;
    }

protected:
    void viewDidLoad() override { hooks << u"didLoad"_s; }
    void viewDidUnload() override { hooks << u"didUnload"_s; }
};

} // namespace

class tst_Toolkit : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { ZDDevice::setKind(ZDDeviceKind::Phone); } // the offscreen screen is tablet-sized
    void cleanup();
    void viewControllerBuildsAndUnloadsItsView();
    void navigationBarFollowsItsItemAndRunsAppearanceHooks();
    void groupedTableLaysOutSectionsRowsHeadersAndFooters();
    void tappingARowSelectsItAndTellsTheDelegate();
    void rowsThatTakeNoTouchesAreNotSelected();
    void programmaticSelectionAndAnimatedDeselection();
    void insertingAndDeletingRowsKeepsIndexPathsRight();
    void tableMayGoWhileRowsStillSlide();
    void heightsChangeThroughEmptyUpdates();
    void scrollingToAMiddleRowAndTheBottomInset();
    void draggingTheTableIsReported();
    void tableNeverDeletesTheCellsItShows();
    void aChosenRowShowsACheckmarkAndBlueTextUntilUnchosen();
    void theScrollRangeFollowsRowsHeightsAndTheInset();
    void longTitlesElideAndLongAlertTextsWrapWithinTheWindow();
    void alertButtonsReportTheirIndexAndTheAlertGoesAway();
    void alertReturnKeyRunsTheActionWhileItsTargetLives();
    void deviceKindOrientations();
    void rendersAGroupedScreenWithAnAlert();
};

void tst_Toolkit::cleanup()
{
    ZDDevice::resetKind();
}

void tst_Toolkit::viewControllerBuildsAndUnloadsItsView()
{
    CountingController controller;
    QVERIFY(!controller.isViewLoaded());
    QWidget *view = controller.view();
    QVERIFY(controller.isViewLoaded());
    QCOMPARE(controller.view(), view);
    QCOMPARE(controller.hooks, QStringList{u"didLoad"_s});
    controller.didReceiveMemoryWarning(); // not on screen: unloaded
    QVERIFY(!controller.isViewLoaded());
    controller.view();
    QCOMPARE(controller.hooks, (QStringList{u"didLoad"_s, u"didUnload"_s, u"didLoad"_s}));
}

void tst_Toolkit::navigationBarFollowsItsItemAndRunsAppearanceHooks()
{
    CountingController root;
    int published = 0, cancelled = 0;
    root.navigationItem()->setTitle(u"Publish Video"_s);
    root.navigationItem()->setRightBarButtonItem(std::make_unique<ZDBarButtonItem>(
        u"Publish"_s, ZDBarButtonItem::Style::Done, [&] { ++published; }));
    root.navigationItem()->setLeftBarButtonItem(std::make_unique<ZDBarButtonItem>(
        ZDBarButtonItem::SystemItem::Cancel, [&] { ++cancelled; }));
    root.navigationItem()->rightBarButtonItem()->setEnabled(false);

    ZDNavigationController navigation(&root);
    QWidget *view = navigation.view();
    view->resize(320, 480);
    view->show();
    QVERIFY(QTest::qWaitForWindowExposed(view));
    QTRY_COMPARE(root.hooks, (QStringList{u"didLoad"_s, u"willAppear"_s, u"didAppear"_s}));
    QCOMPARE(navigation.titleLabel()->text(), u"Publish Video"_s);
    QVERIFY(!navigation.rightButton()->isEnabled());
    QTest::mouseClick(navigation.rightButton(), Qt::LeftButton);
    QCOMPARE(published, 0);
    root.navigationItem()->rightBarButtonItem()->setEnabled(true);
    QVERIFY(navigation.rightButton()->isEnabled());
    QTest::mouseClick(navigation.rightButton(), Qt::LeftButton);
    QTest::mouseClick(navigation.leftButton(), Qt::LeftButton);
    QCOMPARE(published, 1);
    QCOMPARE(cancelled, 1);
    QCOMPARE(navigation.leftButton()->text(), u"Cancel"_s);
}

void tst_Toolkit::groupedTableLaysOutSectionsRowsHeadersAndFooters()
{
    Rows rows({2, 3, 0});
    Window window(rows);

    QCOMPARE(window.table->numberOfSections(), 3);
    QCOMPARE(window.table->numberOfRowsInSection(1), 3);
    QCOMPARE(window.table->numberOfRowsInSection(2), 0);
    const QRect first = window.table->rectForRowAtIndexPath({0, 0});
    QCOMPARE(first.top(), 50); // under the 50-point header
    QCOMPARE(first.height(), 40);
    QCOMPARE(window.table->rectForRowAtIndexPath({0, 1}).height(), 120);
    QCOMPARE(first.left(), 10);
    QCOMPARE(first.width(), window.table->viewport()->width() - 20);
    QWidget *header = window.table->headerViewForSection(0);
    QVERIFY(header);
    QCOMPARE(header->geometry(), QRect(0, 0, window.table->viewport()->width(), 50));
    QCOMPARE(window.table->footerTitleForSection(0), u"Footer of the first group"_s);
    // The second group starts below the first one's footer text and gap.
    QVERIFY(window.table->rectForRowAtIndexPath({1, 0}).top() > first.top() + 160 + 10);
    QCOMPARE(window.table->cellForRowAtIndexPath({1, 2}), rows.cells[1][2].get());
    QCOMPARE(rows.cells[1][2]->geometry(), window.table->rectForRowAtIndexPath({1, 2}));
    QCOMPARE(window.table->indexPathForCell(rows.cells[1][1].get()), (ZDIndexPath{1, 1}));
    QCOMPARE(window.table->cellForRowAtIndexPath({5, 0}), nullptr);

    // A tablet's groups stand further in.
    ZDDevice::setKind(ZDDeviceKind::Tablet);
    window.table->reloadData();
    QCOMPARE(window.table->rectForRowAtIndexPath({0, 0}).left(), 45);
}

void tst_Toolkit::tappingARowSelectsItAndTellsTheDelegate()
{
    Rows rows({2, 3});
    Window window(rows);
    window.click({1, 2});
    QCOMPARE(rows.selected, QList<ZDIndexPath>{(ZDIndexPath{1, 2})});
    QCOMPARE(window.table->indexPathForSelectedRow(), (ZDIndexPath{1, 2}));
    QVERIFY(rows.cells[1][2]->isHighlighted());
    // A label inside the cell passes the tap on to the row.
    QTest::mouseClick(rows.cells[0][0]->textLabel(), Qt::LeftButton);
    QCOMPARE(rows.selected.last(), (ZDIndexPath{0, 0}));
    QVERIFY(!rows.cells[1][2]->isHighlighted());
    QVERIFY(rows.cells[0][0]->isHighlighted());
}

void tst_Toolkit::rowsThatTakeNoTouchesAreNotSelected()
{
    Rows rows({2});
    rows.cells[0][1]->setUserInteractionEnabled(false);
    Window window(rows);
    window.click({0, 1});
    QVERIFY(rows.selected.isEmpty());
    QVERIFY(!rows.cells[0][1]->isHighlighted());
}

void tst_Toolkit::programmaticSelectionAndAnimatedDeselection()
{
    Rows rows({3});
    Window window(rows);
    window.table->selectRowAtIndexPath({0, 1}, false, ZDTableView::ScrollPosition::None);
    QVERIFY(rows.selected.isEmpty());
    QVERIFY(rows.cells[0][1]->isHighlighted());
    window.table->deselectRowAtIndexPath({0, 1}, true);
    QCOMPARE(window.table->indexPathForSelectedRow(), std::nullopt);
    QVERIFY(rows.cells[0][1]->isHighlighted()); // still fading
    QTRY_VERIFY(!rows.cells[0][1]->isHighlighted());

    // Deselecting from inside the selection callback, as forms do.
    rows.onSelect = [](ZDTableView *table, ZDIndexPath ip) {
        table->deselectRowAtIndexPath(ip, true);
    };
    window.click({0, 2});
    QTRY_VERIFY(!rows.cells[0][2]->isHighlighted());
}

void tst_Toolkit::insertingAndDeletingRowsKeepsIndexPathsRight()
{
    Rows rows({2, 1});
    Window window(rows);
    window.table->selectRowAtIndexPath({0, 1}, false, ZDTableView::ScrollPosition::None);

    rows.cells[0].insert(rows.cells[0].begin(), Rows::makeCell(9, 9));
    window.table->beginUpdates();
    window.table->insertRowsAtIndexPaths({{0, 0}}, ZDTableView::RowAnimation::Top);
    window.table->endUpdates();
    QCOMPARE(window.table->numberOfRowsInSection(0), 3);
    QCOMPARE(window.table->indexPathForCell(rows.cells[0][0].get()), (ZDIndexPath{0, 0}));
    QCOMPARE(window.table->indexPathForSelectedRow(), (ZDIndexPath{0, 2}));
    // Rows below moved down; their frames are final at once, their widgets animate there.
    QTRY_COMPARE(rows.cells[1][0]->geometry(), window.table->rectForRowAtIndexPath({1, 0}));

    ZDTableViewCell *leaving = rows.cells[0][1].get();
    auto kept = std::move(rows.cells[0][1]);
    rows.cells[0].erase(rows.cells[0].begin() + 1);
    window.table->deleteRowsAtIndexPaths({{0, 1}}, ZDTableView::RowAnimation::Bottom);
    QCOMPARE(window.table->numberOfRowsInSection(0), 2);
    QCOMPARE(window.table->indexPathForCell(leaving), std::nullopt);
    QCOMPARE(window.table->indexPathForSelectedRow(), (ZDIndexPath{0, 1}));
    QTRY_VERIFY(!leaving->isVisible());
    QCOMPARE(leaving->parent(), nullptr);
}

void tst_Toolkit::tableMayGoWhileRowsStillSlide()
{
    Rows rows({3});
    auto kept = std::move(rows.cells[0][1]);
    rows.cells[0].erase(rows.cells[0].begin() + 1);
    {
        Window window;
        window.table->setDataSource(&rows);
        window.table->setDelegate(&rows);
        rows.cells[0].insert(rows.cells[0].begin() + 1, std::move(kept));
        window.table->reloadData();
        window.show();
        kept = std::move(rows.cells[0][1]);
        rows.cells[0].erase(rows.cells[0].begin() + 1);
        window.table->deleteRowsAtIndexPaths({{0, 1}}, ZDTableView::RowAnimation::Top);
    } // the table goes at once, its row still sliding
    QTest::qWait(int(ZDDevice::kRowAnimationDuration * 1000) + 100);
    QCOMPARE(kept->parent(), nullptr);
}

void tst_Toolkit::heightsChangeThroughEmptyUpdates()
{
    Rows rows({2});
    Window window(rows);
    rows.tallRow = 200;
    window.table->beginUpdates();
    window.table->endUpdates();
    QCOMPARE(window.table->rectForRowAtIndexPath({0, 1}).height(), 200);
    QTRY_COMPARE(rows.cells[0][1]->height(), 200);
}

void tst_Toolkit::scrollingToAMiddleRowAndTheBottomInset()
{
    Rows rows({30});
    Window window(rows, QSize(320, 300));
    const int before = window.table->contentWidget()->height();
    window.table->setContentInsetBottom(216);
    QCOMPARE(window.table->contentWidget()->height(), before + 216);
    window.table->scrollToRowAtIndexPath({0, 15}, ZDTableView::ScrollPosition::Middle, false);
    const QRect row = window.table->rectForRowAtIndexPath({0, 15});
    // The middle of what the inset leaves visible.
    QCOMPARE(window.table->contentOffset(),
             row.center().y() - (window.table->viewport()->height() - 216) / 2);
    window.table->scrollToRowAtIndexPath({0, 0}, ZDTableView::ScrollPosition::Middle, true);
    const QRect first = window.table->rectForRowAtIndexPath({0, 0});
    QTRY_COMPARE(window.table->contentOffset(),
                 qMax(0, first.center().y() - (window.table->viewport()->height() - 216) / 2));
}

void tst_Toolkit::draggingTheTableIsReported()
{
    Rows rows({30});
    Window window(rows, QSize(320, 300));
    QWidget *content = window.table->contentWidget();
    const QPoint start = window.centerOf({0, 5});
    QTest::mousePress(content, Qt::LeftButton, {}, start);
    QMouseEvent move(QEvent::MouseMove, start - QPoint(0, 60),
                     content->mapToGlobal(start - QPoint(0, 60)), Qt::NoButton, Qt::LeftButton,
                     Qt::NoModifier);
    QApplication::sendEvent(content, &move);
    QTest::mouseRelease(content, Qt::LeftButton, {}, start - QPoint(0, 60));
    QCOMPARE(rows.drags, 1);
    QVERIFY(rows.selected.isEmpty()); // a drag is not a tap
    QVERIFY(window.table->contentOffset() > 0);
}

void tst_Toolkit::tableNeverDeletesTheCellsItShows()
{
    Rows rows({2});
    {
        Window window;
        window.table->setDataSource(&rows);
        window.table->setDelegate(&rows);
        window.table->reloadData();
        window.show();
        QCOMPARE(rows.cells[0][0]->parentWidget(), window.table->contentWidget());
    }
    // The table is gone; the cells are still ours, unparented.
    QCOMPARE(rows.cells[0][0]->parent(), nullptr);
    rows.cells[0][0]->textLabel()->setText(u"still alive"_s);
}

void tst_Toolkit::aChosenRowShowsACheckmarkAndBlueTextUntilUnchosen()
{
    ZDTableViewCell cell;
    cell.resize(300, 44);
    cell.textLabel()->setText(u"Public"_s);
    const auto textColour = [&cell] {
        return cell.textLabel()->palette().color(QPalette::Active, QPalette::WindowText);
    };
    const auto paintedBlue = [&cell] {
        const QImage image = cell.grab().toImage();
        for (int y = 0; y < image.height(); ++y)
            for (int x = image.width() - 40; x < image.width(); ++x)
                if (image.pixelColor(x, y).blue() > 100 && image.pixelColor(x, y).red() < 120)
                    return true;
        return false;
    };
    QVERIFY(!paintedBlue());
    cell.setChosen(true);
    QVERIFY(cell.isChosen());
    QCOMPARE(cell.accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QCOMPARE(textColour(), QColor(0x38, 0x54, 0x87));
    QVERIFY(paintedBlue()); // the checkmark at the right
    // The highlight turns the text white and gives the blue back after.
    cell.setHighlighted(true);
    QCOMPARE(textColour(), QColor(Qt::white));
    cell.setHighlighted(false);
    QCOMPARE(textColour(), QColor(0x38, 0x54, 0x87));
    cell.setChosen(false);
    QCOMPARE(cell.accessoryType(), ZDTableViewCell::Accessory::None);
    QCOMPARE(textColour(), QColor(Qt::black));
    QVERIFY(!paintedBlue());
}

void tst_Toolkit::theScrollRangeFollowsRowsHeightsAndTheInset()
{
    Rows rows({3});
    Window window(rows, QSize(320, 300));
    QScrollBar *bar = window.table->verticalScrollBar();
    const auto reachesTheEnd = [&] {
        return bar->maximum() == qMax(0, window.table->contentWidget()->height() -
                                             window.table->viewport()->height());
    };
    QVERIFY(reachesTheEnd());
    const int before = bar->maximum();
    for (int r = 3; r < 20; ++r)
        rows.cells[0].push_back(Rows::makeCell(0, r));
    QList<ZDIndexPath> added;
    for (int r = 3; r < 20; ++r)
        added << ZDIndexPath{0, r};
    window.table->insertRowsAtIndexPaths(added, ZDTableView::RowAnimation::None);
    QVERIFY(bar->maximum() > before);
    QVERIFY(reachesTheEnd());
    rows.tallRow = 600;
    window.table->beginUpdates();
    window.table->endUpdates();
    QVERIFY(reachesTheEnd());
    window.table->setContentInsetBottom(216);
    QVERIFY(reachesTheEnd());
    window.table->scrollToRowAtIndexPath({0, 19}, ZDTableView::ScrollPosition::Bottom, false);
    QCOMPARE(window.table->contentOffset(), window.table->rectForRowAtIndexPath({0, 19}).bottom() -
                                                (window.table->viewport()->height() - 216));
    window.table->setContentInsetBottom(0);
    rows.cells[0].resize(3);
    window.table->deleteRowsAtIndexPaths(added, ZDTableView::RowAnimation::None);
    QVERIFY(reachesTheEnd());
}

void tst_Toolkit::longTitlesElideAndLongAlertTextsWrapWithinTheWindow()
{
    CountingController root;
    const QString title = u"Ein Video ver\u00f6ffentlichen und mit allen teilen"_s;
    root.navigationItem()->setTitle(title);
    root.navigationItem()->setRightBarButtonItem(std::make_unique<ZDBarButtonItem>(
        u"Ver\u00f6ffentlichen"_s, ZDBarButtonItem::Style::Done, [] {}));
    root.navigationItem()->setLeftBarButtonItem(
        std::make_unique<ZDBarButtonItem>(ZDBarButtonItem::SystemItem::Cancel, [] {}));
    ZDNavigationController navigation(&root);
    QWidget *window = navigation.view();
    window->resize(320, 480);
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window));
    // The texts do not set the window's size.
    QCOMPARE(window->width(), 320);
    QVERIFY(window->minimumSizeHint().width() <= 320);
    QLabel *label = navigation.titleLabel();
    QVERIFY(label->text().endsWith(QChar(0x2026)));
    QVERIFY(label->fontMetrics().horizontalAdvance(label->text()) <= label->width());
    QVERIFY(label->geometry().left() > navigation.leftButton()->geometry().right());
    QVERIFY(label->geometry().right() < navigation.rightButton()->geometry().left());
    QCOMPARE(label->accessibleName(), title);
    // Wider, the whole title shows.
    window->resize(700, 480);
    QTRY_COMPARE(label->text(), title);

    window->resize(320, 480);
    auto *alert =
        new ZDAlertView(u"Anmeldung fehlgeschlagen \u2014 bitte noch einmal versuchen"_s,
                        u"Benutzername oder Passwort sind falsch, oder der Dienst ist gerade nicht "
                        u"erreichbar. Bitte pr\u00fcfen Sie beides und versuchen Sie es erneut."_s,
                        nullptr, u"OK"_s);
    alert->show(window);
    QCOMPARE(window->width(), 320);
    const QWidget *box = alert->findChild<QWidget *>(u"alertBox"_s);
    QVERIFY(box);
    QVERIFY(QRect(QPoint(0, 0), window->size())
                .contains(QRect(box->mapTo(window, QPoint(0, 0)), box->size())));
    for (const QLabel *text : box->findChildren<QLabel *>()) {
        QVERIFY(text->heightForWidth(text->width()) <= text->height());
        QVERIFY(box->rect().contains(text->geometry()));
    }
    const QPushButton *ok = alert->buttonAtIndex(0);
    QVERIFY(box->rect().contains(ok->geometry()));
    alert->dismissWithClickedButtonIndex(0, false);
}

void tst_Toolkit::alertButtonsReportTheirIndexAndTheAlertGoesAway()
{
    QWidget window;
    window.resize(320, 480);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    AlertRecorder delegate;
    QPointer<ZDAlertView> alert = new ZDAlertView(u"Sign In"_s, u"Your account"_s, &delegate,
                                                  u"Cancel"_s, {u"Sign In"_s, u"Help"_s});
    alert->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    alert->show(&window);
    QCOMPARE(alert->cancelButtonIndex(), 0);
    QCOMPARE(alert->firstOtherButtonIndex(), 1);
    QCOMPARE(alert->numberOfButtons(), 3);
    QCOMPARE(alert->textFieldAtIndex(1)->echoMode(), QLineEdit::Password);
    QCOMPARE(alert->textFieldAtIndex(0)->echoMode(), QLineEdit::Normal);
    QCOMPARE(alert->textFieldAtIndex(2), nullptr);
    QTest::keyClicks(alert->textFieldAtIndex(0), u"ann"_s);
    QTest::mouseClick(alert->buttonAtIndex(2), Qt::LeftButton);
    QCOMPARE(delegate.dismissed, QList<int>{2});
    QCOMPARE(delegate.firstField, u"ann"_s);
    QTRY_VERIFY(!alert);

    // Without a cancel button the others count from 0; a gone delegate hears nothing.
    auto gone = std::make_unique<AlertRecorder>();
    QPointer<ZDAlertView> plain = new ZDAlertView(u"Note"_s, {}, gone.get(), QString(), {u"OK"_s});
    plain->show(&window);
    QCOMPARE(plain->cancelButtonIndex(), -1);
    QCOMPARE(plain->firstOtherButtonIndex(), 0);
    gone.reset();
    QTest::mouseClick(plain->buttonAtIndex(0), Qt::LeftButton);
    QTRY_VERIFY(!plain);
}

void tst_Toolkit::alertReturnKeyRunsTheActionWhileItsTargetLives()
{
    QWidget window;
    window.resize(320, 480);
    window.show();
    QVERIFY(QTest::qWaitForWindowExposed(&window));
    AlertRecorder delegate;
    auto *alert = new ZDAlertView(u"Sign In"_s, {}, &delegate, u"Cancel"_s, {u"Sign In"_s});
    alert->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    int returns = 0;
    auto target = std::make_unique<QObject>();
    alert->setReturnKeyAction(target.get(), [&] {
        ++returns;
        alert->dismissWithClickedButtonIndex(alert->firstOtherButtonIndex(), true);
    });
    alert->show(&window);
    QTest::keyClicks(alert->textFieldAtIndex(1), u"secret"_s);
    QTest::keyClick(alert->textFieldAtIndex(1), Qt::Key_Return);
    QCOMPARE(returns, 1);
    QCOMPARE(delegate.dismissed, QList<int>{1});

    auto *second = new ZDAlertView(u"Sign In"_s, {}, &delegate, u"Cancel"_s, {u"Sign In"_s});
    second->setAlertViewStyle(ZDAlertView::Style::PlainTextInput);
    second->setReturnKeyAction(target.get(), [&] { ++returns; });
    second->show(&window);
    target.reset();
    QTest::keyClick(second->textFieldAtIndex(0), Qt::Key_Return);
    QCOMPARE(returns, 1);
    second->dismissWithClickedButtonIndex(0, false);
}

void tst_Toolkit::deviceKindOrientations()
{
    QCOMPARE(ZDDevice::supportedOrientations(ZDDeviceKind::Phone),
             ZDInterfaceOrientations(ZDInterfaceOrientation::Portrait));
    QVERIFY(ZDDevice::supportedOrientations(ZDDeviceKind::Tablet)
                .testFlag(ZDInterfaceOrientation::LandscapeLeft));
}

// Renders a screen the way a form uses the toolkit and saves it as
// toolkit-phone.png next to the test binary, to be looked at.
void tst_Toolkit::rendersAGroupedScreenWithAnAlert()
{
    class Screen : public ZDViewController
    {
    public:
        Rows rows{{2, 2, 1}};
        ZDTableView *table = nullptr;

    protected:
        QWidget *loadView() override
        {
            QWidget *view = ZDViewController::loadView();
            table = new ZDTableView(view);
            table->setDataSource(&rows);
            table->setDelegate(&rows);
            return view;
        }
    } screen;
    screen.navigationItem()->setTitle(u"Publish Video"_s);
    screen.navigationItem()->setRightBarButtonItem(
        std::make_unique<ZDBarButtonItem>(u"Publish"_s, ZDBarButtonItem::Style::Done, [] {}));
    screen.navigationItem()->setLeftBarButtonItem(
        std::make_unique<ZDBarButtonItem>(ZDBarButtonItem::SystemItem::Cancel, [] {}));
    auto value = std::make_unique<ZDTableViewCell>(ZDTableViewCell::Style::Value1);
    value->textLabel()->setText(u"Category"_s);
    value->detailTextLabel()->setText(u"Travel"_s);
    screen.rows.cells[1][0] = std::move(value);
    screen.rows.cells[1][1]->setAccessoryType(ZDTableViewCell::Accessory::Checkmark);
    screen.rows.cells[1][1]->setTextColor(QColor(0x38, 0x54, 0x87));
    ZDNavigationController navigation(&screen);
    QWidget *window = navigation.view();
    window->resize(320, 480);
    window->show();
    QVERIFY(QTest::qWaitForWindowExposed(window));
    screen.table->setGeometry(screen.view()->rect());
    screen.table->reloadData();
    screen.table->selectRowAtIndexPath({2, 0}, false, ZDTableView::ScrollPosition::None);
    auto *alert = new ZDAlertView(u"Sign In"_s, u"Enter your account"_s, nullptr, u"Cancel"_s,
                                  {u"Sign In"_s});
    alert->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    alert->show(window);
    QTest::qWait(300);
    const QImage image = window->grab().toImage();
    const QString path = QCoreApplication::applicationDirPath() + u"/toolkit-phone.png"_s;
    QVERIFY(image.save(path));
    // What the picture must show, read back from its pixels.
    const auto at = [&](const QWidget *widget, QPoint point) {
        return image.pixelColor(widget->mapTo(window, point));
    };
    const auto near = [](QColor a, QColor b) {
        return qAbs(a.red() - b.red()) + qAbs(a.green() - b.green()) + qAbs(a.blue() - b.blue()) <
               24;
    };
    // Under the alert's veil (black at 110 of 255) every colour is darker.
    const auto dimmed = [](QColor c) {
        return QColor(c.red() * 145 / 255, c.green() * 145 / 255, c.blue() * 145 / 255);
    };
    const QWidget *bar = window->findChild<QWidget *>(u"navigationBar"_s);
    QVERIFY(bar);
    QVERIFY2(near(at(bar, QPoint(bar->width() / 2, 3)), dimmed(QColor(0x6d, 0x84, 0xa2))),
             "the bar's colour");
    const QWidget *rowsView = screen.table->contentWidget();
    const auto rowRect = [&](ZDIndexPath ip) { return screen.table->rectForRowAtIndexPath(ip); };
    // The grey background beside the groups, a white row, the selected row's blue.
    QVERIFY2(near(at(rowsView, QPoint(3, rowRect({0, 0}).center().y())),
                  dimmed(QColor(0xd8, 0xdc, 0xe3))),
             "the grouped background");
    QVERIFY2(near(at(rowsView, QPoint(rowRect({1, 1}).center().x(), rowRect({1, 1}).top() + 4)),
                  dimmed(Qt::white)),
             "a plain row");
    const QColor selected =
        at(rowsView, QPoint(rowRect({2, 0}).right() - 20, rowRect({2, 0}).center().y()));
    QVERIFY2(selected.blue() > selected.red() + 60, "the selected row's blue");
    // The checkmark of the chosen row, at its right.
    const QRect chosen = rowRect({1, 1});
    bool checkmark = false;
    for (int x = chosen.right() - 30; x < chosen.right(); ++x)
        for (int y = chosen.top(); y < chosen.bottom(); ++y)
            checkmark |= near(at(rowsView, QPoint(x, y)), dimmed(QColor(0x38, 0x54, 0x87)));
    QVERIFY2(checkmark, "the checkmark");
    // The alert's dark blue box with its two fields in white.
    const QWidget *box = alert->findChild<QWidget *>(u"alertBox"_s);
    QVERIFY(box);
    const QColor boxColour = at(box, QPoint(box->width() / 2, 4));
    QVERIFY2(boxColour.blue() > 60 && boxColour.red() < 80, "the alert's box");
    QCOMPARE(at(alert->textFieldAtIndex(1), QPoint(20, 10)), QColor(Qt::white));
    alert->dismissWithClickedButtonIndex(0, false);
}

QTEST_MAIN(tst_Toolkit)
#include "tst_toolkit.moc"
