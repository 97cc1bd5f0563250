#include "toolkit/ZDPickerView.h"

#include "toolkit/ZDAccessible_p.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDStyle_p.h"

#include <QAccessible>
#include <QApplication>
#include <QDateTime>
#include <QKeyEvent>
#include <QLinearGradient>
#include <QMouseEvent>
#include <QPainter>
#include <QStyle>
#include <QVariantAnimation>
#include <QWheelEvent>

#include <algorithm>
#include <cmath>

qreal ZDPickerViewDelegate::pickerViewRowHeightForComponent(ZDPickerView *, int)
{
    return 40.0;
}

std::optional<QString> ZDPickerViewDelegate::pickerViewTitleForRowForComponent(ZDPickerView *, int,
                                                                               int)
{
    return std::nullopt;
}

void ZDPickerViewDelegate::pickerViewDidSelectRowInComponent(ZDPickerView *, int, int) {}

ZDPickerView::ZDPickerView(QWidget *parent) : QWidget(parent)
{
    zdaccessible::install();
    setAttribute(Qt::WA_OpaquePaintEvent);
    setFocusPolicy(Qt::StrongFocus);
    m_settle = new QVariantAnimation(this);
    m_settle->setDuration(200);
    m_settle->setEasingCurve(QEasingCurve::OutCubic);
}

ZDPickerView::~ZDPickerView() = default;

void ZDPickerView::setDelegate(ZDPickerViewDelegate *delegate)
{
    m_delegate = delegate;
    reloadAllComponents();
}

void ZDPickerView::setShowsSelectionIndicator(bool shows)
{
    m_showsIndicator = shows;
    update();
}

void ZDPickerView::reloadAllComponents()
{
    ZDPickerViewDelegate *delegate = m_delegate.get();
    const int count = delegate ? delegate->numberOfComponentsInPickerView(this) : 0;
    QList<Component> components;
    for (int c = 0; c < count; ++c) {
        Component component;
        component.rows = delegate->pickerViewNumberOfRowsInComponent(this, c);
        component.rowHeight = delegate->pickerViewRowHeightForComponent(this, c);
        // A reload keeps each wheel where it stood, within its new rows.
        const int kept = c < m_components.size() ? m_components[c].selected : 0;
        component.selected = component.rows > 0 ? std::clamp(kept, 0, component.rows - 1) : 0;
        component.offset = component.selected * component.rowHeight;
        components.append(component);
    }
    m_components = components;
    update();
}

int ZDPickerView::numberOfRowsInComponent(int component) const
{
    return component >= 0 && component < m_components.size() ? m_components[component].rows : 0;
}

int ZDPickerView::selectedRowInComponent(int component) const
{
    if (component < 0 || component >= m_components.size() || m_components[component].rows == 0)
        return -1;
    return m_components[component].selected;
}

void ZDPickerView::selectRowInComponent(int row, int component, bool animated)
{
    if (component < 0 || component >= m_components.size())
        return;
    Component &c = m_components[component];
    if (row < 0 || row >= c.rows)
        return;
    c.selected = row;
    if (!animated) {
        c.offset = row * c.rowHeight;
        update();
        announceValue();
        return;
    }
    settle(component, row, false);
}

QString ZDPickerView::titleForRowInComponent(int row, int component) const
{
    ZDPickerViewDelegate *delegate = m_delegate.get();
    if (!delegate || row < 0 || row >= numberOfRowsInComponent(component))
        return QString();
    return delegate
        ->pickerViewTitleForRowForComponent(const_cast<ZDPickerView *>(this), row, component)
        .value_or(QString());
}

void ZDPickerView::announceValue()
{
    QAccessibleValueChangeEvent event(this, selectedRowInComponent(0));
    QAccessible::updateAccessibility(&event);
}

QRect ZDPickerView::componentRect(int component) const
{
    const int count = std::max(1, int(m_components.size()));
    const int inset = 12;
    const int width = (this->width() - 2 * inset) / count;
    return QRect(inset + component * width, 0, width, height());
}

int ZDPickerView::componentAt(const QPoint &point) const
{
    for (int c = 0; c < m_components.size(); ++c) {
        if (componentRect(c).contains(point))
            return c;
    }
    return -1;
}

// Turns the wheel to `row`, animated, and tells the delegate when asked to.
void ZDPickerView::settle(int component, int row, bool notify)
{
    Component &c = m_components[component];
    c.selected = row;
    m_settle->stop();
    m_settle->disconnect(this);
    m_settle->setStartValue(c.offset);
    m_settle->setEndValue(row * c.rowHeight);
    connect(m_settle, &QVariantAnimation::valueChanged, this, [this, component](const QVariant &v) {
        if (component < m_components.size()) {
            m_components[component].offset = v.toReal();
            update();
        }
    });
    m_settle->start();
    announceValue();
    if (notify) {
        if (ZDPickerViewDelegate *delegate = m_delegate.get())
            delegate->pickerViewDidSelectRowInComponent(this, row, component);
    }
}

void ZDPickerView::mousePressEvent(QMouseEvent *event)
{
    m_dragComponent = componentAt(event->position().toPoint());
    if (m_dragComponent < 0)
        return;
    m_settle->stop();
    m_dragStartY = event->position().y();
    m_dragStartOffset = m_components[m_dragComponent].offset;
    m_dragMoved = false;
}

void ZDPickerView::mouseMoveEvent(QMouseEvent *event)
{
    if (m_dragComponent < 0)
        return;
    const qreal delta = event->position().y() - m_dragStartY;
    if (std::abs(delta) >= QApplication::startDragDistance())
        m_dragMoved = true;
    Component &c = m_components[m_dragComponent];
    const qreal maximum = std::max(0, c.rows - 1) * c.rowHeight;
    c.offset = std::clamp(m_dragStartOffset - delta, -c.rowHeight / 2, maximum + c.rowHeight / 2);
    update();
}

void ZDPickerView::mouseReleaseEvent(QMouseEvent *event)
{
    const int component = std::exchange(m_dragComponent, -1);
    if (component < 0 || m_components[component].rows == 0)
        return;
    Component &c = m_components[component];
    int row = 0;
    if (m_dragMoved) {
        row = int(std::lround(c.offset / c.rowHeight));
    } else {
        // A tap: the row under the finger comes to the middle.
        const qreal fromMiddle = event->position().y() - height() / 2.0;
        row = c.selected + int(std::lround(fromMiddle / c.rowHeight));
    }
    settle(component, std::clamp(row, 0, c.rows - 1), true);
}

void ZDPickerView::wheelEvent(QWheelEvent *event)
{
    const int component = componentAt(event->position().toPoint());
    if (component < 0 || m_components[component].rows == 0)
        return;
    const int steps = event->angleDelta().y() > 0 ? -1 : 1;
    const Component &c = m_components[component];
    settle(component, std::clamp(c.selected + steps, 0, c.rows - 1), true);
}

void ZDPickerView::keyPressEvent(QKeyEvent *event)
{
    if (m_components.isEmpty() || m_components[0].rows == 0) {
        QWidget::keyPressEvent(event);
        return;
    }
    const Component &c = m_components[0];
    const int page = std::max(1, int(height() / c.rowHeight) - 1);
    int row = c.selected;
    switch (event->key()) {
    case Qt::Key_Up:
        row -= 1;
        break;
    case Qt::Key_Down:
        row += 1;
        break;
    case Qt::Key_PageUp:
        row -= page;
        break;
    case Qt::Key_PageDown:
        row += page;
        break;
    case Qt::Key_Home:
        row = 0;
        break;
    case Qt::Key_End:
        row = c.rows - 1;
        break;
    default: {
        const QString text = event->text();
        if (text.isEmpty() || !text.front().isPrint() ||
            (event->modifiers() & (Qt::ControlModifier | Qt::AltModifier))) {
            QWidget::keyPressEvent(event);
            return;
        }
        // Letters typed in quick succession search for a longer start.
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (now - m_typedAt > QApplication::keyboardInputInterval())
            m_typed.clear();
        m_typedAt = now;
        m_typed += text;
        const auto startsWithTyped = [this](int r) {
            return titleForRowInComponent(r, 0).startsWith(m_typed, Qt::CaseInsensitive);
        };
        // A single letter (typed anew or repeated) steps on to the next row
        // that starts with it; a longer start may stay on the current row.
        if (m_typed.size() == 2 && m_typed[0] == m_typed[1])
            m_typed.chop(1);
        const int from = m_typed.size() == 1 ? 1 : 0;
        int found = -1;
        for (int i = from; i < c.rows + from && found < 0; ++i) {
            const int r = (c.selected + i) % c.rows;
            if (startsWithTyped(r))
                found = r;
        }
        event->accept();
        if (found < 0 || found == c.selected)
            return;
        settle(0, found, true);
        return;
    }
    }
    event->accept();
    row = std::clamp(row, 0, c.rows - 1);
    if (row != c.selected)
        settle(0, row, true);
}

void ZDPickerView::focusInEvent(QFocusEvent *event)
{
    QWidget::focusInEvent(event);
    update();
}

void ZDPickerView::focusOutEvent(QFocusEvent *event)
{
    QWidget::focusOutEvent(event);
    update();
}

void ZDPickerView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient frame(0, 0, 0, height());
    frame.setColorAt(0, QColor(0x2d, 0x2f, 0x3a));
    frame.setColorAt(1, QColor(0x5c, 0x60, 0x70));
    painter.fillRect(rect(), frame);
    const qreal middle = height() / 2.0;
    ZDPickerViewDelegate *delegate = m_delegate.get();
    painter.setFont(zdstyle::font(20, QFont::Bold));
    for (int ci = 0; ci < m_components.size(); ++ci) {
        const Component &c = m_components[ci];
        const QRect area = componentRect(ci).adjusted(2, 8, -2, -8);
        QLinearGradient wheel(0, area.top(), 0, area.bottom());
        const QColor base = palette().color(QPalette::Base);
        const QColor rim = base.lightnessF() > 0.5 ? base.darker(160) : base.lighter(160);
        wheel.setColorAt(0, rim);
        wheel.setColorAt(0.2, base);
        wheel.setColorAt(0.8, base);
        wheel.setColorAt(1, rim);
        painter.setPen(QColor(0x22, 0x22, 0x22));
        painter.setBrush(wheel);
        painter.drawRoundedRect(area, 4, 4);
        painter.save();
        painter.setClipRect(area);
        const int first = std::max(0, int(std::floor((c.offset - middle) / c.rowHeight)) - 1);
        const int last =
            std::min(c.rows - 1, int(std::ceil((c.offset + middle) / c.rowHeight)) + 1);
        for (int r = first; r <= last; ++r) {
            const qreal centre = middle + r * c.rowHeight - c.offset;
            const std::optional<QString> title =
                delegate ? delegate->pickerViewTitleForRowForComponent(this, r, ci) : std::nullopt;
            if (!title)
                continue;
            // Rows further from the middle fade, like the far side of a wheel.
            const qreal distance = std::min(1.0, std::abs(centre - middle) / middle);
            painter.setOpacity(1.0 - 0.6 * distance);
            painter.setPen(palette().color(QPalette::Text));
            // Leading alignment: the titles start at the right in a right-to-left layout.
            painter.drawText(
                QRectF(area.left() + 12, centre - c.rowHeight / 2, area.width() - 24, c.rowHeight),
                int(QStyle::visualAlignment(layoutDirection(),
                                            Qt::AlignVCenter | Qt::AlignLeading)),
                *title);
        }
        painter.restore();
    }
    painter.setOpacity(1);
    if (m_showsIndicator) {
        const QRectF band(4, middle - 22, width() - 8, 44);
        QLinearGradient glass(band.topLeft(), band.bottomLeft());
        glass.setColorAt(0, QColor(0xc8, 0xcf, 0xe6, 150));
        glass.setColorAt(1, QColor(0x6f, 0x80, 0xb5, 150));
        painter.setPen(QColor(0x55, 0x5f, 0x80));
        painter.setBrush(glass);
        painter.drawRoundedRect(band, 3, 3);
    }
    if (hasFocus()) {
        // The keyboard focus: a ring in the palette's highlight around the band.
        painter.setPen(QPen(palette().color(QPalette::Highlight), 3));
        painter.setBrush(Qt::NoBrush);
        painter.drawRoundedRect(QRectF(3, middle - 24, width() - 6, 48), 4, 4);
    }
}
