#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QImage>
#include <QPointer>
#include <QStringList>
#include <QWidget>

#include <functional>

class QLineEdit;
class QPushButton;
class ZDAlertView;

// Hears which button dismisses an alert.
class ZD_EXPORT ZDAlertViewDelegate : public virtual ZDWeakTarget
{
public:
    // The alert is about to go away because of button `buttonIndex`.
    virtual void alertViewWillDismissWithButtonIndex(ZDAlertView *alertView, int buttonIndex) = 0;
};

// A modal alert over a window: a title, a message, up to two text fields (the
// second one hides what is typed) and a row of buttons. Button indexes count
// the cancel button first (0, when there is one), then the other buttons in
// their order.
//
// Layout: the box keeps a fixed width; the title and message wrap onto as many
// lines as they need, so a long text (a translation) is never cut off and never
// widens the window. While the on-screen keyboard is up in the alert's window
// the box stands above it. The login field's placeholder is the text of
// "USER_NAME" and a password field's that of "PASSWORD".
//
// Lifetime: an alert is shown with show() and deletes itself after it is
// dismissed; whoever keeps a pointer to it keeps a QPointer. The delegate is not
// owned. Pressing return in a text field runs the return-key action while its
// target lives, and does nothing else.
//
// Keyboard: on show() the focus moves to the first text field, or else to the
// first button after the cancel button; Tab and Shift+Tab stay among the
// alert's fields and buttons; Space or Return presses the focused button;
// Escape is the cancel button (nothing when there is none). Screen readers
// hear a modal dialog named by the title and described by the message, its
// fields named "USER_NAME" and "PASSWORD" from the string table.
class ZD_EXPORT ZDAlertView : public QWidget
{
    Q_OBJECT

public:
    enum class Style { Default, PlainTextInput, SecureTextInput, LoginAndPasswordInput };

    ZDAlertView(const QString &title, const QString &message, ZDAlertViewDelegate *delegate,
                const QString &cancelButtonTitle, const QStringList &otherButtonTitles = {});
    ~ZDAlertView() override;

    QString title() const { return m_title; }
    QString message() const { return m_message; }

    // A picture shown under the message (a QR code, a logo), at its own size in
    // points; `description` is what screen readers announce for it. A null image
    // removes it.
    void setImage(const QImage &image, const QString &description);
    QImage image() const { return m_image; }

    Style alertViewStyle() const { return m_style; }
    void setAlertViewStyle(Style style);
    // Field 0, and field 1 for login and password; null when there is none.
    QLineEdit *textFieldAtIndex(int index) const;

    int numberOfButtons() const { return int(m_buttons.size()); }
    QString buttonTitleAtIndex(int index) const;
    QPushButton *buttonAtIndex(int index) const;
    // -1 when there is no cancel button.
    int cancelButtonIndex() const { return m_cancelIndex; }
    int firstOtherButtonIndex() const;

    void setDelegate(ZDAlertViewDelegate *delegate) { m_delegate = delegate; }
    // Called once, with the button's index, when the alert is dismissed (after
    // the delegate): for an owner that wants no delegate object of its own. An
    // empty function removes it.
    void setDismissHandler(std::function<void(int buttonIndex)> handler);
    void setReturnKeyAction(QObject *target, std::function<void()> action);

    // Shows the alert over `window`, or over the default window (see
    // setDefaultWindow()), or over the active window.
    void show(QWidget *window = nullptr);
    bool isVisibleAlert() const { return m_shown && !m_dismissed; }
    // Tells the delegate and the dismiss handler, then goes away; the alert is deleted on the next
    // turn of the event loop.
    void dismissWithClickedButtonIndex(int buttonIndex, bool animated);

    // The window alerts appear over when show() is given none; not owned.
    static void setDefaultWindow(QWidget *window);

protected:
    void paintEvent(QPaintEvent *event) override;
    bool eventFilter(QObject *watched, QEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    bool focusNextPrevChild(bool next) override;

private:
    void rebuild();
    void layoutInWindow();

    QString m_title;
    QString m_message;
    ZDWeakRef<ZDAlertViewDelegate> m_delegate;
    QStringList m_buttons;
    int m_cancelIndex = -1;
    Style m_style = Style::Default;
    QImage m_image;
    QString m_imageDescription;
    QWidget *m_box = nullptr;
    QList<QLineEdit *> m_fields;
    QList<QPushButton *> m_buttonWidgets;
    QPointer<QObject> m_returnTarget;
    std::function<void()> m_returnAction;
    std::function<void(int)> m_dismissHandler;
    QPointer<QWidget> m_focusBefore; // gets the focus back when the alert goes
    bool m_shown = false;
    bool m_dismissed = false;
};
