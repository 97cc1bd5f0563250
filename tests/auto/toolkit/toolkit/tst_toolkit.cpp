#include "ToolkitFixtures.h"

#include "toolkit/ZDDevice.h"

#include <QLabel>
#include <QPushButton>
#include <QScrollBar>

using namespace Qt::StringLiterals;

namespace {

// Plain cells named "s.r", a header over the first group and a footer under
// it, and a tall second row.
class Rows : public CellTable
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
        return plain(u"%1.%2"_s.arg(s).arg(r));
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
    void scrollViewWillBeginDragging(ZDTableView *) override { ++drags; }

    qreal tallRow = 120.0;
    int drags = 0;
};

} // namespace

class tst_Toolkit : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init() { ZDDevice::setKind(ZDDeviceKind::Phone); } // the offscreen screen is tablet-sized
    void cleanup() { ZDDevice::resetKind(); }
    void viewControllerBuildsAndUnloadsItsView();
    void navigationBarFollowsItsItemAndRunsAppearanceHooks();
    void longTitlesElideAndLongAlertTextsWrapWithinTheWindow();
    void groupedTableLaysOutSectionsRowsHeadersAndFooters();
    void tappingARowThatTakesTouchesSelectsItAndTellsTheDelegate();
    void programmaticSelectionAndAnimatedDeselection();
    void insertingAndDeletingRowsKeepsIndexPathsRight();
    void theTableNeverDeletesItsCellsNotEvenWhileTheySlide();
    void theScrollRangeFollowsRowsHeightsAndTheInset();
    void draggingTheTableIsReportedAndIsNoTap();
    void aChosenRowShowsACheckmarkAndBlueTextUntilUnchosen();
    void alertButtonsAndTheReturnKeyReportToTheirListeners();
    void rendersAGroupedScreenWithAnAlert();
};

void tst_Toolkit::viewControllerBuildsAndUnloadsItsView()
{
    CountingController controller;
    QVERIFY(!controller.isViewLoaded());
    QWidget *view = controller.view();
    QCOMPARE(controller.view(), view);
    controller.didReceiveMemoryWarning(); // not on screen: unloaded
    QVERIFY(!controller.isViewLoaded());
    controller.view();
    QCOMPARE(controller.hooks, (QStringList{u"didLoad"_s, u"didUnload"_s, u"didLoad"_s}));
}

void tst_Toolkit::navigationBarFollowsItsItemAndRunsAppearanceHooks()
{
    NavigationScreen screen(u"Publish Video"_s);
    ZDBarButtonItem *publish = screen.root.navigationItem()->rightBarButtonItem();
    publish->setEnabled(false);
    screen.show();
    QTRY_COMPARE(screen.root.hooks, (QStringList{u"didLoad"_s, u"willAppear"_s, u"didAppear"_s}));
    QCOMPARE(screen.navigation.titleLabel()->text(), u"Publish Video"_s);
    QCOMPARE(screen.navigation.leftButton()->text(), u"Cancel"_s);
    QTest::mouseClick(screen.navigation.rightButton(), Qt::LeftButton);
    QCOMPARE(screen.done, 0);
    publish->setEnabled(true);
    QTest::mouseClick(screen.navigation.rightButton(), Qt::LeftButton);
    QTest::mouseClick(screen.navigation.leftButton(), Qt::LeftButton);
    QCOMPARE(screen.done, 1);
    QCOMPARE(screen.cancelled, 1);
}

void tst_Toolkit::longTitlesElideAndLongAlertTextsWrapWithinTheWindow()
{
    const QString title = u"Ein Video ver\u00f6ffentlichen und mit allen teilen"_s;
    NavigationScreen screen(title, u"Ver\u00f6ffentlichen"_s);
    screen.show();
    QWidget *window = screen.navigation.view();
    // The texts do not set the window's size.
    QCOMPARE(window->width(), 320);
    QVERIFY(window->minimumSizeHint().width() <= 320);
    QLabel *label = screen.navigation.titleLabel();
    QVERIFY(label->text().endsWith(QChar(0x2026)));
    QVERIFY(label->fontMetrics().horizontalAdvance(label->text()) <= label->width());
    QVERIFY(label->geometry().left() > screen.navigation.leftButton()->geometry().right());
    QVERIFY(label->geometry().right() < screen.navigation.rightButton()->geometry().left());
    QCOMPARE(label->accessibleName(), title);
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
    QVERIFY(QRect(QPoint(0, 0), window->size())
                .contains(QRect(box->mapTo(window, QPoint(0, 0)), box->size())));
    for (const QLabel *text : box->findChildren<QLabel *>()) {
        QVERIFY(text->heightForWidth(text->width()) <= text->height());
        QVERIFY(box->rect().contains(text->geometry()));
    }
    QVERIFY(box->rect().contains(alert->buttonAtIndex(0)->geometry()));
    alert->dismissWithClickedButtonIndex(0, false);
}

void tst_Toolkit::groupedTableLaysOutSectionsRowsHeadersAndFooters()
{
    Rows rows({2, 3, 0});
    TableWindow window(&rows, &rows);
    ZDTableView *table = window.table;
    QCOMPARE(table->numberOfSections(), 3);
    QCOMPARE(table->numberOfRowsInSection(1), 3);
    QCOMPARE(table->numberOfRowsInSection(2), 0);
    const QRect first = table->rectForRowAtIndexPath({0, 0});
    QCOMPARE(first, QRect(10, 50, table->viewport()->width() - 20, 40)); // under the header
    QCOMPARE(table->rectForRowAtIndexPath({0, 1}).height(), 120);
    QCOMPARE(table->headerViewForSection(0)->geometry(),
             QRect(0, 0, table->viewport()->width(), 50));
    QCOMPARE(table->footerTitleForSection(0), u"Footer of the first group"_s);
    // The second group starts below the first one's footer text and gap.
    QVERIFY(table->rectForRowAtIndexPath({1, 0}).top() > first.top() + 160 + 10);
    QCOMPARE(table->cellForRowAtIndexPath({1, 2}), rows.cells[1][2].get());
    QCOMPARE(rows.cells[1][2]->geometry(), table->rectForRowAtIndexPath({1, 2}));
    QCOMPARE(table->indexPathForCell(rows.cells[1][1].get()), (ZDIndexPath{1, 1}));
    QCOMPARE(table->cellForRowAtIndexPath({5, 0}), nullptr);

    // A tablet's groups stand further in; only a tablet turns sideways.
    ZDDevice::setKind(ZDDeviceKind::Tablet);
    table->reloadData();
    QCOMPARE(table->rectForRowAtIndexPath({0, 0}).left(), 45);
    QCOMPARE(ZDDevice::supportedOrientations(ZDDeviceKind::Phone),
             ZDInterfaceOrientations(ZDInterfaceOrientation::Portrait));
    QVERIFY(ZDDevice::supportedOrientations(ZDDeviceKind::Tablet)
                .testFlag(ZDInterfaceOrientation::LandscapeLeft));
}

void tst_Toolkit::tappingARowThatTakesTouchesSelectsItAndTellsTheDelegate()
{
    Rows rows({2, 3});
    rows.cells[0][1]->setUserInteractionEnabled(false);
    TableWindow window(&rows, &rows);
    window.click({0, 1});
    QVERIFY(rows.selected.isEmpty());
    QVERIFY(!rows.cells[0][1]->isHighlighted());
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

void tst_Toolkit::programmaticSelectionAndAnimatedDeselection()
{
    Rows rows({3});
    TableWindow window(&rows, &rows);
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
    TableWindow window(&rows, &rows);
    ZDTableView *table = window.table;
    table->selectRowAtIndexPath({0, 1}, false, ZDTableView::ScrollPosition::None);

    rows.cells[0].insert(rows.cells[0].begin(), Rows::makeCell(9, 9));
    table->beginUpdates();
    table->insertRowsAtIndexPaths({{0, 0}}, ZDTableView::RowAnimation::Top);
    table->endUpdates();
    QCOMPARE(table->numberOfRowsInSection(0), 3);
    QCOMPARE(table->indexPathForCell(rows.cells[0][0].get()), (ZDIndexPath{0, 0}));
    QCOMPARE(table->indexPathForSelectedRow(), (ZDIndexPath{0, 2}));
    // Rows below moved down; their frames are final at once, their widgets animate there.
    QTRY_COMPARE(rows.cells[1][0]->geometry(), table->rectForRowAtIndexPath({1, 0}));

    auto leaving = std::move(rows.cells[0][1]);
    rows.cells[0].erase(rows.cells[0].begin() + 1);
    table->deleteRowsAtIndexPaths({{0, 1}}, ZDTableView::RowAnimation::Bottom);
    QCOMPARE(table->numberOfRowsInSection(0), 2);
    QCOMPARE(table->indexPathForCell(leaving.get()), std::nullopt);
    QCOMPARE(table->indexPathForSelectedRow(), (ZDIndexPath{0, 1}));
    QTRY_VERIFY(!leaving->isVisible());
    QCOMPARE(leaving->parent(), nullptr);
}

void tst_Toolkit::theTableNeverDeletesItsCellsNotEvenWhileTheySlide()
{
    Rows rows({3});
    std::unique_ptr<ZDTableViewCell> sliding;
    {
        TableWindow window(&rows, &rows);
        QCOMPARE(rows.cells[0][0]->parentWidget(), window.table->contentWidget());
        sliding = std::move(rows.cells[0][1]);
        rows.cells[0].erase(rows.cells[0].begin() + 1);
        window.table->deleteRowsAtIndexPaths({{0, 1}}, ZDTableView::RowAnimation::Top);
    } // the table goes at once, a row still sliding
    QCOMPARE(rows.cells[0][0]->parent(), nullptr);
    QTest::qWait(int(ZDDevice::kRowAnimationDuration * 1000) + 100);
    QCOMPARE(sliding->parent(), nullptr);
}

void tst_Toolkit::theScrollRangeFollowsRowsHeightsAndTheInset()
{
    Rows rows({3});
    TableWindow window(&rows, &rows, QSize(320, 300));
    ZDTableView *table = window.table;
    QScrollBar *bar = table->verticalScrollBar();
    const auto reachesTheEnd = [&] {
        return bar->maximum() ==
               qMax(0, table->contentWidget()->height() - table->viewport()->height());
    };
    QVERIFY(reachesTheEnd());
    const int before = bar->maximum();
    QList<ZDIndexPath> added;
    for (int r = 3; r < 30; ++r) {
        rows.cells[0].push_back(Rows::makeCell(0, r));
        added << ZDIndexPath{0, r};
    }
    table->insertRowsAtIndexPaths(added, ZDTableView::RowAnimation::None);
    QVERIFY(bar->maximum() > before);
    QVERIFY(reachesTheEnd());
    // Heights change through an empty update.
    rows.tallRow = 600;
    table->beginUpdates();
    table->endUpdates();
    QCOMPARE(table->rectForRowAtIndexPath({0, 1}).height(), 600);
    QTRY_COMPARE(rows.cells[0][1]->height(), 600);
    QVERIFY(reachesTheEnd());

    const int height = table->contentWidget()->height();
    table->setContentInsetBottom(216);
    QCOMPARE(table->contentWidget()->height(), height + 216);
    QVERIFY(reachesTheEnd());
    // Rows scroll into what the inset leaves visible.
    const int visible = table->viewport()->height() - 216;
    table->scrollToRowAtIndexPath({0, 15}, ZDTableView::ScrollPosition::Middle, false);
    QCOMPARE(table->contentOffset(),
             table->rectForRowAtIndexPath({0, 15}).center().y() - visible / 2);
    table->scrollToRowAtIndexPath({0, 29}, ZDTableView::ScrollPosition::Bottom, false);
    QCOMPARE(table->contentOffset(), table->rectForRowAtIndexPath({0, 29}).bottom() - visible);
    table->scrollToRowAtIndexPath({0, 0}, ZDTableView::ScrollPosition::Middle, true);
    QTRY_COMPARE(table->contentOffset(),
                 qMax(0, table->rectForRowAtIndexPath({0, 0}).center().y() - visible / 2));

    table->setContentInsetBottom(0);
    rows.cells[0].resize(3);
    table->deleteRowsAtIndexPaths(added, ZDTableView::RowAnimation::None);
    QVERIFY(reachesTheEnd());
}

void tst_Toolkit::draggingTheTableIsReportedAndIsNoTap()
{
    Rows rows({30});
    TableWindow window(&rows, &rows, QSize(320, 300));
    dragBy(window.table->contentWidget(), window.table->rectForRowAtIndexPath({0, 5}).center(),
           -60);
    QCOMPARE(rows.drags, 1);
    QVERIFY(rows.selected.isEmpty());
    QVERIFY(window.table->contentOffset() > 0);
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
    const QColor blue(0x38, 0x54, 0x87);
    QVERIFY(!paintedBlue());
    cell.setChosen(true);
    QCOMPARE(cell.accessoryType(), ZDTableViewCell::Accessory::Checkmark);
    QCOMPARE(textColour(), blue);
    QVERIFY(paintedBlue()); // the checkmark at the right
    // The highlight turns the text white and gives the blue back after.
    cell.setHighlighted(true);
    QCOMPARE(textColour(), QColor(Qt::white));
    cell.setHighlighted(false);
    QCOMPARE(textColour(), blue);
    cell.setChosen(false);
    QCOMPARE(cell.accessoryType(), ZDTableViewCell::Accessory::None);
    QCOMPARE(textColour(), QColor(Qt::black));
    QVERIFY(!paintedBlue());
}

void tst_Toolkit::alertButtonsAndTheReturnKeyReportToTheirListeners()
{
    QWidget window;
    window.resize(320, 480);
    showActive(&window);
    AlertRecorder delegate;
    QPointer<ZDAlertView> alert = new ZDAlertView(u"Sign In"_s, u"Your account"_s, &delegate,
                                                  u"Cancel"_s, {u"Sign In"_s, u"Help"_s});
    alert->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    alert->show(&window);
    QCOMPARE(alert->cancelButtonIndex(), 0);
    QCOMPARE(alert->firstOtherButtonIndex(), 1);
    QCOMPARE(alert->numberOfButtons(), 3);
    QCOMPARE(alert->textFieldAtIndex(0)->echoMode(), QLineEdit::Normal);
    QCOMPARE(alert->textFieldAtIndex(1)->echoMode(), QLineEdit::Password);
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

    // The return key runs its action while the action's target lives.
    int returns = 0;
    auto target = std::make_unique<QObject>();
    const auto shown = [&](ZDAlertView::Style style) {
        auto *made = new ZDAlertView(u"Sign In"_s, {}, nullptr, u"Cancel"_s, {u"Sign In"_s});
        made->setAlertViewStyle(style);
        made->setReturnKeyAction(target.get(), [&returns] { ++returns; });
        made->show(&window);
        return made;
    };
    ZDAlertView *login = shown(ZDAlertView::Style::LoginAndPasswordInput);
    QTest::keyClick(login->textFieldAtIndex(1), Qt::Key_Return);
    QCOMPARE(returns, 1);
    login->dismissWithClickedButtonIndex(0, false);

    ZDAlertView *orphan = shown(ZDAlertView::Style::PlainTextInput);
    target.reset();
    QTest::keyClick(orphan->textFieldAtIndex(0), Qt::Key_Return);
    QCOMPARE(returns, 1);
    orphan->dismissWithClickedButtonIndex(0, false);
}

// Renders a screen the way a form uses the toolkit and saves it as
// toolkit-phone.png next to the test binary, to be looked at; the checks read
// what it must show back from its pixels.
void tst_Toolkit::rendersAGroupedScreenWithAnAlert()
{
    NavigationScreen screen(u"Publish Video"_s);
    Rows rows({2, 2, 1});
    auto value = std::make_unique<ZDTableViewCell>(ZDTableViewCell::Style::Value1);
    value->textLabel()->setText(u"Category"_s);
    value->detailTextLabel()->setText(u"Travel"_s);
    rows.cells[1][0] = std::move(value);
    rows.cells[1][1]->setChosen(true);
    auto *table = new ZDTableView(screen.root.view());
    table->setDataSource(&rows);
    table->setDelegate(&rows);
    screen.show();
    QWidget *window = screen.navigation.view();
    table->setGeometry(screen.root.view()->rect());
    table->reloadData();
    table->selectRowAtIndexPath({2, 0}, false, ZDTableView::ScrollPosition::None);
    auto *alert = new ZDAlertView(u"Sign In"_s, u"Enter your account"_s, nullptr, u"Cancel"_s,
                                  {u"Sign In"_s});
    alert->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    alert->show(window);
    QTest::qWait(300);
    const QImage image = window->grab().toImage();
    QVERIFY(image.save(QCoreApplication::applicationDirPath() + u"/toolkit-phone.png"_s));

    const auto at = [&](const QWidget *widget, QPoint point) {
        return image.pixelColor(widget->mapTo(window, point));
    };
    // Under the alert's veil (black at 110 of 255) every colour is darker.
    const auto dimmedNear = [](QColor seen, QColor c) {
        const QColor d(c.red() * 145 / 255, c.green() * 145 / 255, c.blue() * 145 / 255);
        return qAbs(seen.red() - d.red()) + qAbs(seen.green() - d.green()) +
                   qAbs(seen.blue() - d.blue()) <
               24;
    };
    const QWidget *bar = window->findChild<QWidget *>(u"navigationBar"_s);
    QVERIFY2(dimmedNear(at(bar, QPoint(bar->width() / 2, 3)), QColor(0x6d, 0x84, 0xa2)),
             "the bar's colour");
    const QWidget *content = table->contentWidget();
    const QRect plain = table->rectForRowAtIndexPath({1, 1});
    QVERIFY2(dimmedNear(at(content, QPoint(3, plain.center().y())), QColor(0xd8, 0xdc, 0xe3)),
             "the grouped background");
    QVERIFY2(dimmedNear(at(content, QPoint(plain.center().x(), plain.top() + 4)), Qt::white),
             "a plain row");
    const QRect picked = table->rectForRowAtIndexPath({2, 0});
    const QColor selected = at(content, QPoint(picked.right() - 20, picked.center().y()));
    QVERIFY2(selected.blue() > selected.red() + 60, "the selected row's blue");
    // The alert's dark blue box with its fields in white.
    const QWidget *box = alert->findChild<QWidget *>(u"alertBox"_s);
    const QColor boxColour = at(box, QPoint(box->width() / 2, 4));
    QVERIFY2(boxColour.blue() > 60 && boxColour.red() < 80, "the alert's box");
    QCOMPARE(at(alert->textFieldAtIndex(1), QPoint(20, 10)), QColor(Qt::white));
    alert->dismissWithClickedButtonIndex(0, false);
}

QTEST_MAIN(tst_Toolkit)
#include "tst_toolkit.moc"
