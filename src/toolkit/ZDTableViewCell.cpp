#include "toolkit/ZDTableViewCell.h"

#include "toolkit/ZDStyle_p.h"

#include <QAccessible>
#include <QLabel>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QStyle>
#include <QVariantAnimation>

namespace {

constexpr int kAccessoryWidth = 30;

} // namespace

ZDTableViewCell::ZDTableViewCell(Style style, QWidget *parent) : QWidget(parent), m_style(style)
{
    m_textLabel = new QLabel(this);
    m_textLabel->setFont(zdstyle::font(17, QFont::Bold));
    if (style == Style::Value1) {
        m_detailLabel = new QLabel(this);
        m_detailLabel->setFont(zdstyle::font(17));
        m_detailLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    }
    m_textColor = zdstyle::cellText();
    applyTextColors();
    setAttribute(Qt::WA_Hover, false);
}

ZDTableViewCell::~ZDTableViewCell() = default;

void ZDTableViewCell::setAccessoryType(Accessory accessory)
{
    if (m_accessory == accessory)
        return;
    const bool wasChecked = m_accessory == Accessory::Checkmark;
    m_accessory = accessory;
    layoutContents();
    update();
    if (wasChecked != (accessory == Accessory::Checkmark)) {
        // A checkmark that comes or goes is a choice made or undone.
        QAccessible::State changed;
        changed.checked = true;
        QAccessibleStateChangeEvent event(this, changed);
        QAccessible::updateAccessibility(&event);
    }
}

void ZDTableViewCell::setChosen(bool chosen)
{
    m_chosen = chosen;
    setTextColor(chosen ? zdstyle::tableBlue() : zdstyle::cellText());
    setAccessoryType(chosen ? Accessory::Checkmark : Accessory::None);
}

void ZDTableViewCell::setHighlighted(bool highlighted)
{
    if (m_fade)
        m_fade->stop();
    setHighlightLevel(highlighted && m_showsSelection ? 1.0 : 0.0);
}

void ZDTableViewCell::fadeHighlight(double seconds)
{
    if (m_highlight == 0)
        return;
    if (!m_fade) {
        m_fade = new QVariantAnimation(this);
        connect(m_fade, &QVariantAnimation::valueChanged, this,
                [this](const QVariant &value) { setHighlightLevel(value.toReal()); });
    }
    m_fade->stop();
    m_fade->setStartValue(m_highlight);
    m_fade->setEndValue(0.0);
    m_fade->setDuration(int(seconds * 1000));
    m_fade->start();
}

void ZDTableViewCell::setHighlightLevel(qreal level)
{
    const bool was = m_highlight > 0;
    m_highlight = level;
    if (was != (level > 0))
        highlightChanged(level > 0);
    update();
}

void ZDTableViewCell::highlightChanged(bool)
{
    applyTextColors();
}

void ZDTableViewCell::setTextColor(const QColor &colour)
{
    m_textColor = colour;
    applyTextColors();
}

// Labels turn white on the blue highlight and get their own colours back after.
void ZDTableViewCell::applyTextColors()
{
    const bool white = m_highlight > 0;
    const auto paint = [white](QLabel *label, const QColor &colour) {
        QPalette palette = label->palette();
        palette.setColor(QPalette::WindowText, white ? QColor(Qt::white) : colour);
        palette.setColor(QPalette::Disabled, QPalette::WindowText,
                         white ? QColor(Qt::white) : colour.lighter(160));
        label->setPalette(palette);
    };
    paint(m_textLabel, m_textColor);
    if (m_detailLabel)
        paint(m_detailLabel, zdstyle::tableBlue());
}

void ZDTableViewCell::setGroupPosition(bool first, bool last)
{
    m_first = first;
    m_last = last;
    update();
}

// The content area as laid out left to right; contentRect() mirrors it.
static QRect logicalContentRect(const QRect &bounds, bool accessory)
{
    QRect area = bounds.adjusted(zdstyle::kCellPadding, 0, -zdstyle::kCellPadding, 0);
    if (accessory)
        area.setRight(area.right() - kAccessoryWidth + zdstyle::kCellPadding);
    return area;
}

QRect ZDTableViewCell::contentRect() const
{
    return QStyle::visualRect(layoutDirection(), rect(),
                              logicalContentRect(rect(), m_accessory != Accessory::None));
}

void ZDTableViewCell::layoutContents()
{
    const QRect area = logicalContentRect(rect(), m_accessory != Accessory::None);
    const auto place = [this](QWidget *widget, const QRect &logical) {
        widget->setGeometry(QStyle::visualRect(layoutDirection(), rect(), logical));
    };
    if (!m_detailLabel) {
        place(m_textLabel, area);
        return;
    }
    // The label leads and the detail trails, whichever way the text runs.
    const int split = area.left() + area.width() * 2 / 5;
    place(m_textLabel, QRect(area.topLeft(), QPoint(split, area.bottom())));
    place(m_detailLabel, QRect(QPoint(split + 6, area.top()), area.bottomRight()));
}

void ZDTableViewCell::changeEvent(QEvent *event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::LayoutDirectionChange)
        layoutContents();
}

void ZDTableViewCell::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    layoutContents();
}

void ZDTableViewCell::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    if (m_highlight > 0) {
        const qreal r = zdstyle::kGroupRadius;
        const QRectF box = QRectF(rect()).adjusted(1, m_first ? 1 : 0, -1, m_last ? -1 : 0);
        QPainterPath path;
        path.setFillRule(Qt::WindingFill);
        path.addRoundedRect(box, m_first || m_last ? r : 0, m_first || m_last ? r : 0);
        if (!m_first)
            path.addRect(box.adjusted(0, 0, 0, -box.height() / 2));
        if (!m_last)
            path.addRect(box.adjusted(0, box.height() / 2, 0, 0));
        QLinearGradient gradient(box.topLeft(), box.bottomLeft());
        gradient.setColorAt(0, zdstyle::selectionTop());
        gradient.setColorAt(1, zdstyle::selectionBottom());
        painter.setOpacity(m_highlight);
        painter.fillPath(path.simplified(), gradient);
        painter.setOpacity(1);
    }
    if (m_accessory == Accessory::Checkmark) {
        const QColor colour = m_highlight > 0 ? QColor(Qt::white) : zdstyle::tableBlue();
        QPen pen(colour, 2.6, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
        painter.setPen(pen);
        // The checkmark trails: at the left edge in a right-to-left layout.
        const qreal x = layoutDirection() == Qt::RightToLeft ? zdstyle::kCellPadding + 9
                                                             : width() - zdstyle::kCellPadding - 9;
        const QPointF c(x, height() / 2.0);
        const QPointF points[] = {c + QPointF(-6, 0), c + QPointF(-2, 5), c + QPointF(6, -6)};
        painter.drawPolyline(points, 3);
    }
}
