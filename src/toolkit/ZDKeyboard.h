#pragma once

#include "core/zdglobal.h"

#include <QObject>
#include <QPointer>
#include <QRect>
#include <QSizeF>
#include <QString>

class QWidget;
class ZDKeyboardPanel;

// Posted on ZDNotificationCenter::defaultCenter() once the on-screen keyboard
// has come up, and once it has gone away. The user info holds the keyboard's
// frame in its window under "frame" (a QRect).
ZD_EXPORT extern const QString ZDKeyboardDidShowNotification;
ZD_EXPORT extern const QString ZDKeyboardDidHideNotification;

// The on-screen keyboard service: where the keyboard stands and whether it is
// up. On a platform whose input method brings its own keyboard the service only
// reports; where there is none (desktop Linux) the toolkit brings its own
// keyboard panel, turned on with setEnabled(true): it slides up in the focused
// window whenever a text field takes the focus, types into that field, and
// slides away when no text field has the focus or when ordered out. On a tablet
// it can be split in two halves.
//
// The panel is off by default: a desktop types on its physical keyboard, and a
// panel over the fields would only hide them. Hosts turn it on where fingers
// type (hasTouchScreen()) and tests turn it on to drive it; its keys never
// take the focus and are named for screen readers.
//
// Notification contract: one did-show after each slide-up completes, one
// did-hide after each slide-away completes, on the main thread.
class ZD_EXPORT ZDKeyboard : public QObject
{
    Q_OBJECT

public:
    static ZDKeyboard &shared();

    // The key labelled `label` of the keyboard on screen, for hosts and tests.
    QWidget *keyWithLabel(const QString &label) const;

    // The keyboard's size in portrait across a view `width` points wide.
    static QSizeF defaultSize(int width) { return QSizeF(width, 216.0); }

    // A touch screen is attached: the case for turning the panel on.
    static bool hasTouchScreen();

    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);

    // The keyboard is up or coming up.
    bool isAutomaticKeyboardOnScreen() const;
    // The keyboard's view while it is on screen, else null (also when the
    // platform's own keyboard is up: it has no widget).
    QWidget *activeKeyboardView() const;
    // The keyboard's frame in its window's coordinates while it is on screen.
    QRect keyboardFrameInWindow() const;
    // Slides the keyboard away.
    void orderOutAutomaticKeyboard();

    bool isSplit() const { return m_split; }
    void setSplit(bool split);

Q_SIGNALS:
    // Right after each did-show and did-hide notification, for the toolkit's
    // own views (an alert keeps above the keyboard through it).
    void shownOrHidden();

private:
    ZDKeyboard();
    void focusChanged(QWidget *old, QWidget *now);
    void showIn(QWidget *window);
    void slide(bool up);
    void platformKeyboardVisibilityChanged();

    QPointer<QObject> m_animation;
    bool m_enabled = false;
    bool m_onScreen = false;
    bool m_split = false;
    QPointer<ZDKeyboardPanel> m_panel;
};
