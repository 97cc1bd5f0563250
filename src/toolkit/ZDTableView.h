#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QList>
#include <QPointer>
#include <QScrollArea>

#include <compare>
#include <optional>

class ZDTableView;
class ZDTableViewCell;

struct ZD_EXPORT ZDIndexPath
{
    int section = 0;
    int row = 0;
    friend auto operator<=>(const ZDIndexPath &, const ZDIndexPath &) = default;
};

// Answers what a table shows. Cells are the data source's own: the table shows
// them and never deletes them.
class ZD_EXPORT ZDTableViewDataSource : public virtual ZDWeakTarget
{
public:
    virtual int numberOfSectionsInTableView(ZDTableView *tableView);
    virtual int tableViewNumberOfRowsInSection(ZDTableView *tableView, int section) = 0;
    // The cell of a row; null leaves the row empty.
    virtual ZDTableViewCell *tableViewCellForRowAtIndexPath(ZDTableView *tableView,
                                                            ZDIndexPath indexPath) = 0;
    // The grey text under a section's group; empty for none. It is plain text
    // (no link can be followed in it) and assistive technology reads it as
    // static text after the section's rows.
    virtual QString tableViewTitleForFooterInSection(ZDTableView *tableView, int section);
    // The name of a section whose rows are the items of one list (tags, say),
    // for assistive technology: the section is then presented as a list of that
    // name holding its rows as list items, so that a screen reader says where a
    // row stands ("2 of 5"). Empty, the default: the rows stand on their own.
    // Asked with the other section answers, on reloadData().
    virtual QString tableViewAccessibleListNameForSection(ZDTableView *tableView, int section);
};

// Answers how a table looks and hears what the user does with it.
class ZD_EXPORT ZDTableViewDelegate : public virtual ZDWeakTarget
{
public:
    virtual qreal tableViewHeightForRowAtIndexPath(ZDTableView *tableView, ZDIndexPath indexPath);
    virtual qreal tableViewHeightForHeaderInSection(ZDTableView *tableView, int section);
    // A view to show above a section, made for the table's current width; the
    // table takes ownership of it. It is asked again (and the old one deleted)
    // when the data is reloaded or the table's width changes.
    virtual QWidget *tableViewViewForHeaderInSection(ZDTableView *tableView, int section);
    // The user tapped a row (programmatic selection does not call this).
    virtual void tableViewDidSelectRowAtIndexPath(ZDTableView *tableView, ZDIndexPath indexPath);
    // The user started to drag or scroll the table.
    virtual void scrollViewWillBeginDragging(ZDTableView *tableView);
};

// A grouped table: each section is a rounded white group of rows on a grey
// background, with an optional header view above and footer text below, and an
// optional table footer view after the last section.
//
// Keyboard: every row is one stop of the window's Tab chain, in reading order
// (a row holding a text editor is reached in its editor, any other row takes
// the focus itself, and the table footer view's controls follow the last row);
// the table itself is no stop. Up and Down move the focus to the previous or
// next row of the same section; Space, Return and Enter on a focused row do
// what a tap does (activateRowAtIndexPath()). The focused row wears a ring in
// the palette's highlight colour. A click never moves the focus to a row, so a
// tap leaves the keyboard focus where the delegate puts it.
//
// Assistive technology: the content widget presents, in reading order, each
// section's header view, its rows (each row a button, a choice, a combo or a
// text field's frame, as its contents say; or all of them as the items of one
// list, see tableViewAccessibleListNameForSection()) and its footer text as
// static text, then the table footer view.
//
// Callback contract: the delegate hears tableViewDidSelectRowAtIndexPath() when
// the user presses and releases on the same row that takes touches, or
// activates it by key or through assistive technology; it may change the table
// (deselect, insert or delete rows) from inside.
// scrollViewWillBeginDragging() arrives once per drag, wheel turn or scroll-bar
// drag. Data source and delegate are not owned and may be destroyed first.
class ZD_EXPORT ZDTableView : public QScrollArea
{
    Q_OBJECT

public:
    enum class ScrollPosition { None, Top, Middle, Bottom };
    enum class RowAnimation { None, Top, Bottom, Fade };

    explicit ZDTableView(QWidget *parent = nullptr);
    ~ZDTableView() override;

    void setDataSource(ZDTableViewDataSource *dataSource);
    void setDelegate(ZDTableViewDelegate *delegate);

    // Asks the data source and the delegate for everything again.
    void reloadData();

    int numberOfSections() const { return int(m_sections.size()); }
    int numberOfRowsInSection(int section) const;
    ZDTableViewCell *cellForRowAtIndexPath(ZDIndexPath indexPath) const;
    std::optional<ZDIndexPath> indexPathForCell(const ZDTableViewCell *cell) const;
    // The row's frame in the table's content coordinates.
    QRect rectForRowAtIndexPath(ZDIndexPath indexPath) const;
    QWidget *headerViewForSection(int section) const;
    QString footerTitleForSection(int section) const;
    // The footer text's frame in content coordinates; empty without a text.
    QRect rectForFooterInSection(int section) const;
    // The data source's list name of the section (empty when it is no list).
    QString accessibleListNameForSection(int section) const;

    std::optional<ZDIndexPath> indexPathForSelectedRow() const { return m_selected; }
    // Selects a row without telling the delegate.
    void selectRowAtIndexPath(ZDIndexPath indexPath, bool animated, ScrollPosition position);
    void deselectRowAtIndexPath(ZDIndexPath indexPath, bool animated);
    // Does what a tap on the row does: selects it and tells the delegate. A row
    // that does not take touches is left alone (false).
    bool activateRowAtIndexPath(ZDIndexPath indexPath);

    // Scrolls the row to a place in the visible area: the viewport less the
    // bottom inset, which stands for whatever covers the table's foot.
    void scrollToRowAtIndexPath(ZDIndexPath indexPath, ScrollPosition position, bool animated);
    int contentOffset() const;

    // Extra room under the last row, for a keyboard or a picker that covers
    // the table's foot; the scroll range grows by it.
    qreal contentInsetBottom() const { return m_insetBottom; }
    void setContentInsetBottom(qreal inset);

    // A view after the last section; not owned.
    QWidget *tableFooterView() const { return m_footerView; }
    void setTableFooterView(QWidget *view);

    // Row insertions and deletions between beginUpdates() and endUpdates() are
    // shown together, animated, in endUpdates(). Outside a pair, each is shown
    // at once.
    void beginUpdates();
    void endUpdates();
    void insertRowsAtIndexPaths(const QList<ZDIndexPath> &indexPaths, RowAnimation animation);
    void deleteRowsAtIndexPaths(const QList<ZDIndexPath> &indexPaths, RowAnimation animation);

    // The widget that carries the rows (for tests and screenshots).
    QWidget *contentWidget() const { return widget(); }

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;

private:
    struct Row
    {
        QPointer<ZDTableViewCell> cell;
        qreal height = 0;
        QRect frame;
    };
    struct Section
    {
        QPointer<QWidget> header;
        qreal headerHeight = 0;
        QString footer;
        QString listName;
        QList<Row> rows;
        QRect groupFrame;
        QRect footerFrame;
    };
    class Content;
    class FocusRing;

    Row makeRow(ZDIndexPath indexPath);
    void refreshHeaders();
    ZDTableViewDelegate *answeringDelegate() const;
    void layoutContent(bool animated);
    void place(ZDTableViewCell *cell);
    void release(ZDTableViewCell *cell);
    void willBeginDragging();
    void chainFocus();
    bool moveFocusFrom(ZDTableViewCell *cell, int step);
    static QWidget *focusStop(ZDTableViewCell *cell);
    ZDTableViewCell *cellAt(const QPoint &contentPoint) const;

    QPointer<Content> m_content;
    ZDWeakRef<ZDTableViewDataSource> m_dataSource;
    ZDWeakRef<ZDTableViewDelegate> m_delegate;
    QList<Section> m_sections;
    std::optional<ZDIndexPath> m_selected;
    qreal m_insetBottom = 0;
    QPointer<QWidget> m_footerView;
    int m_updateDepth = 0;
    int m_headerWidth = -1; // the width the header views were made for
    struct PendingAnimation
    {
        QPointer<ZDTableViewCell> cell;
        RowAnimation animation;
        bool inserted;
        QRect from;
    };
    QList<PendingAnimation> m_pending;
    QList<QPointer<ZDTableViewCell>> m_leaving;
    QPointer<FocusRing> m_focusRing;

    // Touch tracking: the row under a press, and a drag in progress.
    QPointer<ZDTableViewCell> m_pressedCell;
    QPoint m_pressPosition;
    int m_pressScroll = 0;
    bool m_dragging = false;
};
