#pragma once

// Windows, screens and delegates the toolkit's tests share.

#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDNavigationController.h"
#include "toolkit/ZDPickerView.h"
#include "toolkit/ZDTableView.h"
#include "toolkit/ZDTableViewCell.h"

#include <QApplication>
#include <QLineEdit>
#include <QMouseEvent>
#include <QStringList>
#include <QTest>

#include <functional>
#include <memory>
#include <vector>

// Shows `window` and waits until it has the keyboard focus.
inline void showActive(QWidget *window)
{
    window->show();
    QApplication::setActiveWindow(window);
    QVERIFY(QTest::qWaitForWindowActive(window));
}

// Drags `widget`'s content by `dy` points from `start`, as a finger would.
inline void dragBy(QWidget *widget, const QPoint &start, int dy)
{
    const QPoint end = start + QPoint(0, dy);
    QTest::mousePress(widget, Qt::LeftButton, {}, start);
    QMouseEvent move(QEvent::MouseMove, end, widget->mapToGlobal(end), Qt::NoButton, Qt::LeftButton,
                     Qt::NoModifier);
    QApplication::sendEvent(widget, &move);
    QTest::mouseRelease(widget, Qt::LeftButton, {}, end);
}

// Rows that are cells the test owns, a list per section; records the rows selected.
class CellTable : public ZDTableViewDataSource, public ZDTableViewDelegate
{
public:
    static std::unique_ptr<ZDTableViewCell> plain(const QString &text)
    {
        auto cell = std::make_unique<ZDTableViewCell>();
        cell->textLabel()->setText(text);
        return cell;
    }
    ZDTableViewCell *cell(int section, int row) const
    {
        return cells[size_t(section)][size_t(row)].get();
    }

    int numberOfSectionsInTableView(ZDTableView *) override { return int(cells.size()); }
    int tableViewNumberOfRowsInSection(ZDTableView *, int section) override
    {
        return int(cells[size_t(section)].size());
    }
    ZDTableViewCell *tableViewCellForRowAtIndexPath(ZDTableView *, ZDIndexPath ip) override
    {
        return cell(ip.section, ip.row);
    }
    void tableViewDidSelectRowAtIndexPath(ZDTableView *table, ZDIndexPath ip) override
    {
        selected.append(ip);
        if (onSelect)
            onSelect(table, ip);
    }

    std::vector<std::vector<std::unique_ptr<ZDTableViewCell>>> cells;
    QList<ZDIndexPath> selected;
    std::function<void(ZDTableView *, ZDIndexPath)> onSelect;
};

// A shown window that a table fills; `footer` stays the caller's.
struct TableWindow
{
    TableWindow(ZDTableViewDataSource *source, ZDTableViewDelegate *delegate,
                QSize size = QSize(320, 480), QWidget *footer = nullptr)
    {
        widget.resize(size);
        table = new ZDTableView(&widget);
        table->setGeometry(widget.rect());
        table->setDataSource(source);
        table->setDelegate(delegate);
        table->reloadData();
        if (footer)
            table->setTableFooterView(footer);
        widget.show();
        QVERIFY(QTest::qWaitForWindowExposed(&widget));
    }
    ~TableWindow() { table->setTableFooterView(nullptr); }
    void click(ZDIndexPath ip)
    {
        QTest::mouseClick(table->contentWidget(), Qt::LeftButton, {},
                          table->rectForRowAtIndexPath(ip).center());
    }

    QWidget widget;
    ZDTableView *table = nullptr;
};

// A view controller that notes its view's life and appearance.
class CountingController : public ZDViewController
{
public:
    QStringList hooks;
    void viewWillAppear(bool animated) override
    {
        ZDViewController::viewWillAppear(animated);
        hooks << QStringLiteral("willAppear");
    }
    void viewDidAppear(bool animated) override
    {
        ZDViewController::viewDidAppear(animated);
        hooks << QStringLiteral("didAppear");
    }

protected:
    void viewDidLoad() override { hooks << QStringLiteral("didLoad"); }
    void viewDidUnload() override { hooks << QStringLiteral("didUnload"); }
};

// A titled root with a Cancel and a `done` button, in a navigation controller
// whose window is phone-sized; show() puts it on screen.
struct NavigationScreen
{
    explicit NavigationScreen(const QString &title,
                              const QString &doneTitle = QStringLiteral("Publish"))
        : navigation((setUp(title, doneTitle), &root))
    {
        navigation.view()->resize(320, 480);
    }
    void show() { showActive(navigation.view()); }

    CountingController root;
    int done = 0;
    int cancelled = 0;
    ZDNavigationController navigation;

private:
    void setUp(const QString &title, const QString &doneTitle)
    {
        root.navigationItem()->setTitle(title);
        root.navigationItem()->setRightBarButtonItem(std::make_unique<ZDBarButtonItem>(
            doneTitle, ZDBarButtonItem::Style::Done, [this] { ++done; }));
        root.navigationItem()->setLeftBarButtonItem(std::make_unique<ZDBarButtonItem>(
            ZDBarButtonItem::SystemItem::Cancel, [this] { ++cancelled; }));
    }
};

// A wheel of one component whose rows are `names`; records the rows picked.
class NamedWheel : public ZDPickerViewDelegate
{
public:
    explicit NamedWheel(QStringList rowNames) : names(std::move(rowNames)) {}

    int numberOfComponentsInPickerView(ZDPickerView *) override { return 1; }
    int pickerViewNumberOfRowsInComponent(ZDPickerView *, int) override
    {
        return int(names.size());
    }
    std::optional<QString> pickerViewTitleForRowForComponent(ZDPickerView *, int row, int) override
    {
        return names.value(row);
    }
    void pickerViewDidSelectRowInComponent(ZDPickerView *, int row, int) override
    {
        picked.append(row);
    }

    QStringList names;
    QList<int> picked;
};

// Records which button dismissed an alert and what its first field held then.
class AlertRecorder : public ZDAlertViewDelegate
{
public:
    void alertViewWillDismissWithButtonIndex(ZDAlertView *alert, int index) override
    {
        dismissed.append(index);
        firstField = alert->textFieldAtIndex(0) ? alert->textFieldAtIndex(0)->text() : QString();
    }

    QList<int> dismissed;
    QString firstField;
};
