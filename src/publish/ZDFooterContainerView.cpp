#include "publish/ZDFooterContainerView.h"

#include "resources/ZDLocalizedString.h"

#include <QPushButton>

#include <cmath>

ZDFooterContainerView::ZDFooterContainerView(const QRect &frame, QWidget *parent) : QWidget(parent)
{
    setGeometry(frame);
    m_termsButton = new QPushButton(ZDLocalizedString(QStringLiteral("TERMS_OF_USE")), this);
    m_termsButton->setFlat(true);
    m_termsButton->setCursor(Qt::PointingHandCursor);
    m_termsButton->setStyleSheet(QStringLiteral(
        "QPushButton { color: #3366cc; border: none; font-size: 16px; font-weight: bold; "
        "padding: 4px 8px; }"
        "QPushButton:pressed { color: rgb(0,0,153); }"));
    m_termsButton->adjustSize();
    m_termsButton->move(0, 0);
}

void ZDFooterContainerView::setFrameBypassDelegate(const QRect &frame, bool bypass)
{
    const bool changed = frame != geometry();
    setGeometry(frame);
    layoutButton(); // a hidden view gets its resize event only when shown
    if (changed && !bypass) {
        if (ZDFooterContainerViewDelegate *delegate = m_delegate.get())
            delegate->_footerContainerFrameDidChangeWithSplitKeyboard(false);
    }
}

void ZDFooterContainerView::resizeEvent(QResizeEvent *event)
{
    QWidget::resizeEvent(event);
    layoutButton();
}

void ZDFooterContainerView::layoutButton()
{
    if (m_termsButton) {
        const float x = std::floor(float(width() - m_termsButton->width()) * 0.5f);
        m_termsButton->move(int(x), m_termsButton->y());
    }
}
