#include "toolkit/ZDTableViewCell.h"

#include "toolkit/ZDStyle_p.h"

#include <QLabel>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
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
    applyTextColors();
    setAttribute(Qt::WA_Hover, false);
}

ZDTableViewCell::~ZDTableViewCell() = default;

void ZDTableViewCell::setAccessoryType(Accessory accessory)
{
    if (m_accessory == accessory)
        return;
    m_accessory = accessory;
    layoutContents();
    update();
}

void ZDTableViewCell::setChosen(bool chosen)
{
    m_chosen = chosen;
    setTextColor(chosen ? zdstyle::tableBlue() : QColor(Qt::black));
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

QRect ZDTableViewCell::contentRect() const
{
    QRect area = rect().adjusted(zdstyle::kCellPadding, 0, -zdstyle::kCellPadding, 0);
    if (m_accessory != Accessory::None)
        area.setRight(area.right() - kAccessoryWidth + zdstyle::kCellPadding);
    return area;
}

void ZDTableViewCell::layoutContents()
{
    const QRect area = contentRect();
    if (!m_detailLabel) {
        m_textLabel->setGeometry(area);
        return;
    }
    const int split = area.left() + area.width() * 2 / 5;
    m_textLabel->setGeometry(QRect(area.topLeft(), QPoint(split, area.bottom())));
    m_detailLabel->setGeometry(QRect(QPoint(split + 6, area.top()), area.bottomRight()));
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
        const QPointF c(width() - zdstyle::kCellPadding - 9, height() / 2.0);
        const QPointF points[] = {c + QPointF(-6, 0), c + QPointF(-2, 5), c + QPointF(6, -6)};
        painter.drawPolyline(points, 3);
    }
}
