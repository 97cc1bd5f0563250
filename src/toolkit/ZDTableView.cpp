#include "toolkit/ZDTableView.h"

#include "toolkit/ZDAccessible_p.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDSlide_p.h"
#include "toolkit/ZDStyle_p.h"
#include "toolkit/ZDTableViewCell.h"

#include <QApplication>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QPlainTextEdit>
#include <QPropertyAnimation>
#include <QScrollBar>
#include <QTextEdit>

#include <algorithm>

namespace {

constexpr int kFooterFontSize = 15;
constexpr int kFooterPadding = 6;
constexpr char kRowAnimationName[] = "zdRowAnimation";

int groupMargin()
{
    return ZDDevice::isTablet() ? zdstyle::kGroupMarginTablet : zdstyle::kGroupMarginPhone;
}

// Animates `widget` to `to`; `done` runs at the end unless `context` is gone.
void animateGeometry(QWidget *widget, const QRect &from, const QRect &to,
                     const QObject *context = nullptr, std::function<void()> done = {})
{
    if (auto *running = widget->findChild<QPropertyAnimation *>(
            QLatin1StringView(kRowAnimationName), Qt::FindDirectChildrenOnly)) {
        running->stop();
        delete running;
    }
    QPropertyAnimation *animation = zdSlide(widget, from, to, ZDDevice::kRowAnimationDuration);
    animation->setObjectName(QLatin1StringView(kRowAnimationName));
    if (done && context)
        QObject::connect(animation, &QPropertyAnimation::finished, context, std::move(done));
}

} // namespace

// --- default answers --------------------------------------------------------

int ZDTableViewDataSource::numberOfSectionsInTableView(ZDTableView *)
{
    return 1;
}

QString ZDTableViewDataSource::tableViewTitleForFooterInSection(ZDTableView *, int)
{
    return QString();
}

QString ZDTableViewDataSource::tableViewAccessibleListNameForSection(ZDTableView *, int)
{
    return QString();
}

qreal ZDTableViewDelegate::tableViewHeightForRowAtIndexPath(ZDTableView *, ZDIndexPath)
{
    return 44.0;
}

qreal ZDTableViewDelegate::tableViewHeightForHeaderInSection(ZDTableView *, int)
{
    return zdstyle::kDefaultSectionGap;
}

QWidget *ZDTableViewDelegate::tableViewViewForHeaderInSection(ZDTableView *, int)
{
    return nullptr;
}

void ZDTableViewDelegate::tableViewDidSelectRowAtIndexPath(ZDTableView *, ZDIndexPath) {}

void ZDTableViewDelegate::scrollViewWillBeginDragging(ZDTableView *) {}

// --- the content: groups, separators and footer texts -----------------------

class ZDTableView::Content : public QWidget
{
public:
    explicit Content(ZDTableView *table) : m_table(table) { setAutoFillBackground(false); }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.fillRect(rect(), zdstyle::groupedBackground());
        painter.setRenderHint(QPainter::Antialiasing);
        for (const Section &section : m_table->m_sections) {
            if (!section.rows.isEmpty()) {
                const QRectF group = QRectF(section.groupFrame).adjusted(0.5, 0.5, -0.5, -0.5);
                painter.setPen(zdstyle::cellBorder());
                painter.setBrush(zdstyle::cellBackground());
                painter.drawRoundedRect(group, zdstyle::kGroupRadius, zdstyle::kGroupRadius);
                painter.setPen(zdstyle::separator());
                for (qsizetype i = 0; i + 1 < section.rows.size(); ++i) {
                    const qreal y = section.rows[i].frame.bottom() + 0.5;
                    painter.drawLine(QPointF(group.left() + 1, y), QPointF(group.right() - 1, y));
                }
            }
            if (!section.footer.isEmpty()) {
                painter.setPen(zdstyle::footerText());
                painter.setFont(zdstyle::font(kFooterFontSize));
                painter.drawText(section.footerFrame, Qt::AlignHCenter | Qt::TextWordWrap,
                                 section.footer);
            }
        }
    }

private:
    ZDTableView *m_table;
};

// The mark of the row that holds the keyboard focus: a ring laid over the row,
// a child of it so that it follows the row wherever it moves.
class ZDTableView::FocusRing : public QWidget
{
public:
    FocusRing()
    {
        setAttribute(Qt::WA_TransparentForMouseEvents);
        setFocusPolicy(Qt::NoFocus);
        hide();
    }

    void attach(QWidget *row)
    {
        setParent(row);
        setGeometry(row->rect());
        raise();
        show();
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(QPen(palette().color(QPalette::Highlight), 3));
        painter.drawRoundedRect(QRectF(rect()).adjusted(2, 2, -2, -2), 6, 6);
    }
};

// --- the table ---------------------------------------------------------------

ZDTableView::ZDTableView(QWidget *parent) : QScrollArea(parent)
{
    // Before the content exists, so that its accessible interface is ours.
    zdaccessible::install();
    m_content = new Content(this);
    setWidget(m_content);
    setWidgetResizable(false);
    setFrameShape(QFrame::NoFrame);
    setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    // The rows are the stops, not the table around them.
    setFocusPolicy(Qt::NoFocus);
    m_content->installEventFilter(this);
    viewport()->installEventFilter(this);
    connect(verticalScrollBar(), &QScrollBar::sliderPressed, this, &ZDTableView::willBeginDragging);
}

ZDTableView::~ZDTableView()
{
    delete m_focusRing;
    // Cells and the footer view belong to others: give them back before the
    // content widget deletes its children.
    for (const Section &section : std::as_const(m_sections)) {
        for (const Row &row : section.rows)
            release(row.cell);
    }
    for (const auto &cell : std::as_const(m_leaving))
        release(cell);
    if (m_footerView && m_footerView->parent() == m_content)
        m_footerView->setParent(nullptr);
}

void ZDTableView::setDataSource(ZDTableViewDataSource *dataSource)
{
    m_dataSource = dataSource;
}

void ZDTableView::setDelegate(ZDTableViewDelegate *delegate)
{
    m_delegate = delegate;
}

ZDTableViewDelegate *ZDTableView::answeringDelegate() const
{
    // Without a delegate the table takes the default answers.
    static ZDTableViewDelegate defaults;
    return m_delegate.get() ? m_delegate.get() : &defaults;
}

ZDTableView::Row ZDTableView::makeRow(ZDIndexPath indexPath)
{
    Row row;
    if (ZDTableViewDataSource *source = m_dataSource.get())
        row.cell = source->tableViewCellForRowAtIndexPath(this, indexPath);
    ZDTableViewDelegate *delegate = answeringDelegate();
    row.height = delegate->tableViewHeightForRowAtIndexPath(this, indexPath);
    return row;
}

void ZDTableView::refreshHeaders()
{
    m_headerWidth = viewport()->width();
    ZDTableViewDelegate *delegate = answeringDelegate();
    for (int s = 0; s < m_sections.size(); ++s) {
        delete m_sections[s].header;
        m_sections[s].headerHeight = delegate->tableViewHeightForHeaderInSection(this, s);
        m_sections[s].header = delegate->tableViewViewForHeaderInSection(this, s);
        if (m_sections[s].header)
            m_sections[s].header->setParent(m_content);
    }
}

void ZDTableView::reloadData()
{
    for (const Section &section : std::as_const(m_sections)) {
        delete section.header;
        for (const Row &row : section.rows)
            release(row.cell);
    }
    m_sections.clear();
    m_selected.reset();
    ZDTableViewDataSource *source = m_dataSource.get();
    const int sections = source ? source->numberOfSectionsInTableView(this) : 0;
    for (int s = 0; s < sections; ++s) {
        Section section;
        section.footer = source->tableViewTitleForFooterInSection(this, s);
        section.listName = source->tableViewAccessibleListNameForSection(this, s);
        const int rows = source->tableViewNumberOfRowsInSection(this, s);
        for (int r = 0; r < rows; ++r)
            section.rows.append(makeRow({s, r}));
        m_sections.append(section);
    }
    refreshHeaders();
    layoutContent(false);
}

int ZDTableView::numberOfRowsInSection(int section) const
{
    return section >= 0 && section < m_sections.size() ? int(m_sections[section].rows.size()) : 0;
}

ZDTableViewCell *ZDTableView::cellForRowAtIndexPath(ZDIndexPath indexPath) const
{
    if (indexPath.row < 0 || indexPath.row >= numberOfRowsInSection(indexPath.section))
        return nullptr;
    return m_sections[indexPath.section].rows[indexPath.row].cell;
}

std::optional<ZDIndexPath> ZDTableView::indexPathForCell(const ZDTableViewCell *cell) const
{
    for (int s = 0; s < m_sections.size(); ++s) {
        for (int r = 0; r < m_sections[s].rows.size(); ++r) {
            if (cell && m_sections[s].rows[r].cell == cell)
                return ZDIndexPath{s, r};
        }
    }
    return std::nullopt;
}

QRect ZDTableView::rectForRowAtIndexPath(ZDIndexPath indexPath) const
{
    if (indexPath.row < 0 || indexPath.row >= numberOfRowsInSection(indexPath.section))
        return QRect();
    return m_sections[indexPath.section].rows[indexPath.row].frame;
}

QWidget *ZDTableView::headerViewForSection(int section) const
{
    return section >= 0 && section < m_sections.size() ? m_sections[section].header.data()
                                                       : nullptr;
}

QString ZDTableView::footerTitleForSection(int section) const
{
    return section >= 0 && section < m_sections.size() ? m_sections[section].footer : QString();
}

QRect ZDTableView::rectForFooterInSection(int section) const
{
    return section >= 0 && section < m_sections.size() ? m_sections[section].footerFrame : QRect();
}

QString ZDTableView::accessibleListNameForSection(int section) const
{
    return section >= 0 && section < m_sections.size() ? m_sections[section].listName : QString();
}

void ZDTableView::place(ZDTableViewCell *cell)
{
    if (!cell || cell->parent() == m_content)
        return;
    cell->setParent(m_content);
    cell->installEventFilter(this);
    // A row without an editor of its own is a Tab stop itself (never a click
    // one: a tap leaves the focus to the delegate).
    if (focusStop(cell) == nullptr && cell->focusPolicy() == Qt::NoFocus)
        cell->setFocusPolicy(Qt::TabFocus);
    cell->show();
}

// The widget of a row that the Tab chain stops at: its first editor, else the
// row itself when it takes the focus, else none.
QWidget *ZDTableView::focusStop(ZDTableViewCell *cell)
{
    if (!cell)
        return nullptr;
    for (QObject *child : cell->children()) {
        auto *widget = qobject_cast<QWidget *>(child);
        if (widget &&
            (qobject_cast<QLineEdit *>(widget) || qobject_cast<QTextEdit *>(widget) ||
             qobject_cast<QPlainTextEdit *>(widget)) &&
            (widget->focusPolicy() & Qt::TabFocus))
            return widget;
    }
    return cell->focusPolicy() & Qt::TabFocus ? cell : nullptr;
}

// Puts the rows' stops into the window's Tab chain right after the table, in
// reading order, followed by the footer view's controls.
void ZDTableView::chainFocus()
{
    QList<QWidget *> stops;
    for (const Section &section : std::as_const(m_sections)) {
        for (const Row &row : section.rows) {
            if (QWidget *stop = focusStop(row.cell))
                stops << stop;
        }
    }
    if (m_footerView && m_footerView->parent() == m_content) {
        if (m_footerView->focusPolicy() & Qt::TabFocus)
            stops << m_footerView;
        for (QWidget *child : m_footerView->findChildren<QWidget *>()) {
            if (child->focusPolicy() & Qt::TabFocus)
                stops << child;
        }
    }
    QWidget *previous = this;
    for (QWidget *stop : std::as_const(stops)) {
        QWidget::setTabOrder(previous, stop);
        previous = stop;
    }
}

bool ZDTableView::moveFocusFrom(ZDTableViewCell *cell, int step)
{
    const std::optional<ZDIndexPath> from = indexPathForCell(cell);
    if (!from)
        return false;
    for (int r = from->row + step; r >= 0 && r < numberOfRowsInSection(from->section); r += step) {
        if (QWidget *stop = focusStop(cellForRowAtIndexPath({from->section, r}))) {
            scrollToRowAtIndexPath({from->section, r}, ScrollPosition::None, false);
            stop->setFocus(step > 0 ? Qt::TabFocusReason : Qt::BacktabFocusReason);
            return true;
        }
    }
    return false;
}

bool ZDTableView::activateRowAtIndexPath(ZDIndexPath indexPath)
{
    ZDTableViewCell *cell = cellForRowAtIndexPath(indexPath);
    if (!cell || !cell->isUserInteractionEnabled())
        return false;
    selectRowAtIndexPath(indexPath, false, ScrollPosition::None);
    if (ZDTableViewDelegate *delegate = m_delegate.get())
        delegate->tableViewDidSelectRowAtIndexPath(this, indexPath);
    return true;
}

void ZDTableView::release(ZDTableViewCell *cell)
{
    if (!cell || cell->parent() != m_content)
        return;
    if (m_focusRing && m_focusRing->parent() == cell) {
        m_focusRing->hide();
        m_focusRing->setParent(nullptr);
    }
    cell->removeEventFilter(this);
    cell->hide();
    cell->setHighlighted(false);
    cell->setParent(nullptr);
}

void ZDTableView::layoutContent(bool animated)
{
    const int width = viewport()->width();
    if (width != m_headerWidth)
        refreshHeaders();
    const int margin = groupMargin();
    const QFontMetrics footerMetrics(zdstyle::font(kFooterFontSize));
    qreal y = 0;
    for (Section &section : m_sections) {
        if (section.header) {
            section.header->setGeometry(0, int(y), width, int(section.headerHeight));
            section.header->show();
        }
        y += section.headerHeight;
        const qreal groupTop = y;
        for (qsizetype i = 0; i < section.rows.size(); ++i) {
            Row &row = section.rows[i];
            const QRect old = row.cell && row.cell->parent() == m_content && row.cell->isVisible()
                                  ? row.cell->geometry()
                                  : QRect();
            row.frame = QRect(margin, qRound(y), width - 2 * margin, qRound(row.height));
            y += row.height;
            if (!row.cell)
                continue;
            place(row.cell);
            row.cell->setGroupPosition(i == 0, i == section.rows.size() - 1);
            const auto pending = std::find_if(m_pending.begin(), m_pending.end(),
                                              [&](const auto &p) { return p.cell == row.cell; });
            if (animated && pending != m_pending.end() &&
                pending->animation != RowAnimation::None) {
                const int shift = pending->animation == RowAnimation::Bottom ? row.frame.height()
                                                                             : -row.frame.height();
                row.cell->lower();
                animateGeometry(row.cell, row.frame.translated(0, shift), row.frame);
            } else if (animated && old.isValid() && old != row.frame) {
                animateGeometry(row.cell, old, row.frame);
            } else {
                row.cell->setGeometry(row.frame);
            }
        }
        section.groupFrame =
            QRect(margin, qRound(groupTop), width - 2 * margin, qRound(y - groupTop));
        section.footerFrame = QRect();
        if (!section.footer.isEmpty()) {
            const int textWidth = width - 2 * margin - 2 * zdstyle::kCellPadding;
            const QRect bounds = footerMetrics.boundingRect(QRect(0, 0, textWidth, 10000),
                                                            Qt::TextWordWrap, section.footer);
            section.footerFrame = QRect(margin + zdstyle::kCellPadding, qRound(y) + kFooterPadding,
                                        textWidth, bounds.height());
            y += bounds.height() + kFooterPadding;
        }
        y += zdstyle::kDefaultSectionGap;
    }
    if (m_footerView) {
        if (m_footerView->parent() != m_content) {
            m_footerView->setParent(m_content);
            m_footerView->show();
        }
        m_footerView->setGeometry(0, qRound(y), width, m_footerView->height());
        y += m_footerView->height();
    }
    for (const auto &leaving : std::as_const(m_pending)) {
        if (leaving.inserted || !leaving.cell)
            continue;
        const QRect from = leaving.cell->geometry();
        const int shift = leaving.animation == RowAnimation::Top ? -from.height() : from.height();
        QPointer<ZDTableViewCell> cell = leaving.cell;
        if (animated && leaving.animation != RowAnimation::None) {
            cell->lower();
            animateGeometry(cell, from, from.translated(0, shift), this, [this, cell] {
                if (cell && !indexPathForCell(cell))
                    release(cell);
                m_leaving.removeAll(cell);
            });
        } else {
            release(cell);
            m_leaving.removeAll(cell);
        }
    }
    for (const auto &inserted : std::as_const(m_pending)) {
        if (inserted.inserted && inserted.cell)
            zdaccessible::notify(inserted.cell, QAccessible::ObjectCreated);
    }
    m_pending.clear();
    chainFocus();
    m_content->resize(width, qRound(y + m_insetBottom));
    m_content->update();
}

void ZDTableView::resizeEvent(QResizeEvent *event)
{
    QScrollArea::resizeEvent(event);
    layoutContent(false);
}

// --- selection and scrolling ---------------------------------------------------

void ZDTableView::selectRowAtIndexPath(ZDIndexPath indexPath, bool animated,
                                       ScrollPosition position)
{
    if (m_selected && *m_selected != indexPath) {
        if (ZDTableViewCell *old = cellForRowAtIndexPath(*m_selected))
            old->setHighlighted(false);
    }
    m_selected = indexPath;
    if (ZDTableViewCell *cell = cellForRowAtIndexPath(indexPath))
        cell->setHighlighted(true);
    if (position != ScrollPosition::None)
        scrollToRowAtIndexPath(indexPath, position, animated);
}

void ZDTableView::deselectRowAtIndexPath(ZDIndexPath indexPath, bool animated)
{
    if (m_selected == indexPath)
        m_selected.reset();
    ZDTableViewCell *cell = cellForRowAtIndexPath(indexPath);
    if (!cell)
        return;
    if (animated)
        cell->fadeHighlight(ZDDevice::kDeselectAnimationDuration);
    else
        cell->setHighlighted(false);
}

void ZDTableView::scrollToRowAtIndexPath(ZDIndexPath indexPath, ScrollPosition position,
                                         bool animated)
{
    const QRect frame = rectForRowAtIndexPath(indexPath);
    if (frame.isNull())
        return;
    // The bottom inset is room under something that covers the table (the
    // keyboard, a picker): rows are placed in the part above it.
    const int visible = qMax(0, viewport()->height() - qRound(m_insetBottom));
    int target = contentOffset();
    switch (position) {
    case ScrollPosition::Top:
        target = frame.top();
        break;
    case ScrollPosition::Middle:
        target = frame.center().y() - visible / 2;
        break;
    case ScrollPosition::Bottom:
        target = frame.bottom() - visible;
        break;
    case ScrollPosition::None:
        if (frame.top() < target)
            target = frame.top();
        else if (frame.bottom() > target + visible)
            target = frame.bottom() - visible;
        break;
    }
    QScrollBar *bar = verticalScrollBar();
    target = std::clamp(target, bar->minimum(), bar->maximum());
    if (!animated) {
        bar->setValue(target);
        return;
    }
    auto *animation = new QPropertyAnimation(bar, "value", bar);
    animation->setDuration(int(ZDDevice::kNavigationTransitionDuration * 1000));
    animation->setStartValue(bar->value());
    animation->setEndValue(target);
    animation->setEasingCurve(QEasingCurve::InOutQuad);
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

int ZDTableView::contentOffset() const
{
    return verticalScrollBar()->value();
}

void ZDTableView::setContentInsetBottom(qreal inset)
{
    m_insetBottom = inset;
    layoutContent(false);
}

void ZDTableView::setTableFooterView(QWidget *view)
{
    if (m_footerView && m_footerView->parent() == m_content) {
        m_footerView->hide();
        m_footerView->setParent(nullptr);
    }
    m_footerView = view;
    layoutContent(false);
}

// --- updates --------------------------------------------------------------------

void ZDTableView::beginUpdates()
{
    ++m_updateDepth;
}

void ZDTableView::endUpdates()
{
    if (m_updateDepth == 0 || --m_updateDepth > 0)
        return;
    // Heights are asked again, so a row that grew is shown at its new height.
    ZDTableViewDelegate *delegate = answeringDelegate();
    for (int s = 0; s < m_sections.size(); ++s) {
        for (int r = 0; r < m_sections[s].rows.size(); ++r)
            m_sections[s].rows[r].height = delegate->tableViewHeightForRowAtIndexPath(this, {s, r});
    }
    layoutContent(true);
}

void ZDTableView::insertRowsAtIndexPaths(const QList<ZDIndexPath> &indexPaths,
                                         RowAnimation animation)
{
    QList<ZDIndexPath> sorted = indexPaths;
    std::sort(sorted.begin(), sorted.end());
    for (const ZDIndexPath &indexPath : sorted) {
        if (indexPath.section < 0 || indexPath.section >= m_sections.size())
            continue;
        QList<Row> &rows = m_sections[indexPath.section].rows;
        const qsizetype at = std::clamp<qsizetype>(indexPath.row, 0, rows.size());
        if (m_selected && m_selected->section == indexPath.section && m_selected->row >= at)
            ++m_selected->row;
        const Row row = makeRow(indexPath);
        rows.insert(at, row);
        m_pending.append({row.cell, animation, true, QRect()});
    }
    if (m_updateDepth == 0)
        layoutContent(true);
}

void ZDTableView::deleteRowsAtIndexPaths(const QList<ZDIndexPath> &indexPaths,
                                         RowAnimation animation)
{
    QList<ZDIndexPath> sorted = indexPaths;
    std::sort(sorted.begin(), sorted.end(), std::greater<>());
    for (const ZDIndexPath &indexPath : sorted) {
        if (indexPath.row < 0 || indexPath.row >= numberOfRowsInSection(indexPath.section))
            continue;
        QList<Row> &rows = m_sections[indexPath.section].rows;
        const Row row = rows.takeAt(indexPath.row);
        if (m_selected == indexPath)
            m_selected.reset();
        else if (m_selected && m_selected->section == indexPath.section &&
                 m_selected->row > indexPath.row)
            --m_selected->row;
        if (row.cell) {
            m_leaving.append(row.cell);
            m_pending.append({row.cell, animation, false, row.cell->geometry()});
        }
    }
    if (m_updateDepth == 0)
        layoutContent(true);
}

// --- touches -----------------------------------------------------------------

ZDTableViewCell *ZDTableView::cellAt(const QPoint &contentPoint) const
{
    for (const Section &section : m_sections) {
        for (const Row &row : section.rows) {
            if (row.cell && row.frame.contains(contentPoint))
                return row.cell;
        }
    }
    return nullptr;
}

void ZDTableView::willBeginDragging()
{
    if (ZDTableViewDelegate *delegate = m_delegate.get())
        delegate->scrollViewWillBeginDragging(this);
}

bool ZDTableView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == viewport() && event->type() == QEvent::Wheel) {
        willBeginDragging();
        return false;
    }
    auto *cell = qobject_cast<ZDTableViewCell *>(watched);
    if (watched != m_content && !cell)
        return QScrollArea::eventFilter(watched, event);
    // The scroll area follows the content's size through its own filter: the
    // scroll range grows and shrinks with rows, heights and the bottom inset.
    if (watched == m_content && event->type() == QEvent::Resize)
        return QScrollArea::eventFilter(watched, event);

    switch (event->type()) {
    case QEvent::FocusIn:
        if (cell) {
            if (!m_focusRing)
                m_focusRing = new FocusRing;
            m_focusRing->attach(cell);
            if (const auto indexPath = indexPathForCell(cell))
                scrollToRowAtIndexPath(*indexPath, ScrollPosition::None, false);
        }
        return false;
    case QEvent::FocusOut:
        if (m_focusRing && m_focusRing->parent() == cell)
            m_focusRing->hide();
        return false;
    case QEvent::Resize:
        if (m_focusRing && m_focusRing->parent() == cell)
            m_focusRing->setGeometry(cell->rect());
        return false;
    case QEvent::KeyPress: {
        // Keys the row's own editor left alone reach the row here too.
        auto *key = static_cast<QKeyEvent *>(event);
        if (!cell || (key->modifiers() & ~Qt::KeypadModifier) != Qt::NoModifier)
            return false;
        switch (key->key()) {
        case Qt::Key_Up:
        case Qt::Key_Down:
            return moveFocusFrom(cell, key->key() == Qt::Key_Up ? -1 : 1);
        case Qt::Key_Space:
        case Qt::Key_Return:
        case Qt::Key_Enter:
            if (QApplication::focusWidget() != cell)
                return false;
            if (const auto indexPath = indexPathForCell(cell))
                activateRowAtIndexPath(*indexPath);
            return true;
        default:
            return false;
        }
    }
    case QEvent::MouseButtonPress: {
        auto *mouse = static_cast<QMouseEvent *>(event);
        if (mouse->button() != Qt::LeftButton)
            return false;
        if (!cell)
            cell = cellAt(mouse->position().toPoint());
        m_pressedCell = cell && cell->isUserInteractionEnabled() ? cell : nullptr;
        m_pressPosition = mouse->globalPosition().toPoint();
        m_pressScroll = contentOffset();
        m_dragging = false;
        if (m_pressedCell && !m_pressedCell->isHighlighted())
            m_pressedCell->setHighlighted(true);
        return true;
    }
    case QEvent::MouseMove: {
        auto *mouse = static_cast<QMouseEvent *>(event);
        if (!(mouse->buttons() & Qt::LeftButton))
            return false;
        const QPoint delta = mouse->globalPosition().toPoint() - m_pressPosition;
        if (!m_dragging && delta.manhattanLength() >= QApplication::startDragDistance()) {
            m_dragging = true;
            if (m_pressedCell && indexPathForCell(m_pressedCell) != m_selected)
                m_pressedCell->setHighlighted(false);
            m_pressedCell = nullptr;
            willBeginDragging();
        }
        if (m_dragging)
            verticalScrollBar()->setValue(m_pressScroll - delta.y());
        return true;
    }
    case QEvent::MouseButtonRelease: {
        auto *mouse = static_cast<QMouseEvent *>(event);
        if (mouse->button() != Qt::LeftButton)
            return false;
        QPointer<ZDTableViewCell> pressed = m_pressedCell;
        m_pressedCell = nullptr;
        const bool wasDragging = std::exchange(m_dragging, false);
        if (!pressed || wasDragging)
            return true;
        const QPoint at = m_content->mapFromGlobal(mouse->globalPosition().toPoint());
        const std::optional<ZDIndexPath> indexPath = indexPathForCell(pressed);
        if (!indexPath || !pressed->geometry().contains(at)) {
            if (indexPath != m_selected)
                pressed->setHighlighted(false);
            return true;
        }
        activateRowAtIndexPath(*indexPath);
        return true;
    }
    default:
        return false;
    }
}
