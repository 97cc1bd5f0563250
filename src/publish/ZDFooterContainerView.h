#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QPointer>
#include <QPushButton>
#include <QWidget>

// Hears a footer's frame changes; the library itself never sets one.
class ZD_EXPORT ZDFooterContainerViewDelegate : public virtual ZDWeakTarget
{
public:
    virtual void _footerContainerFrameDidChangeWithSplitKeyboard(bool splitKeyboard) = 0;
};

// The form's table footer: one terms-of-use button, centred.
class ZD_EXPORT ZDFooterContainerView : public QWidget
{
    Q_OBJECT

public:
    explicit ZDFooterContainerView(const QRect &frame, QWidget *parent = nullptr);

    QPushButton *termsButton() const { return m_termsButton; }

    void setDelegate(ZDFooterContainerViewDelegate *delegate) { m_delegate = delegate; }
    // Sets the frame; tells the delegate when it really changed, unless bypassed.
    void setFrameBypassDelegate(const QRect &frame, bool bypass);
    // Every outside frame change is announced.
    void setFrame(const QRect &frame) { setFrameBypassDelegate(frame, false); }

protected:
    void resizeEvent(QResizeEvent *event) override;

private:
    // Centres the button across the footer.
    void layoutButton();

    QPointer<QPushButton> m_termsButton;
    ZDWeakRef<ZDFooterContainerViewDelegate> m_delegate;
};
