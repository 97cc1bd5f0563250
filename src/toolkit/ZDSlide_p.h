#pragma once

// The one slide of the toolkit and the form: a widget moving from one frame to
// another, easing in and out, as rows, the keyboard and the picker do.

#include <QPropertyAnimation>
#include <QRect>
#include <QWidget>

// Starts moving `widget` from `from` to `to` over `seconds`. The animation is a
// child of the widget and deletes itself when it stops or the widget goes; the
// caller may connect to its finished() signal or stop (and so delete) it.
inline QPropertyAnimation *zdSlide(QWidget *widget, const QRect &from, const QRect &to,
                                   double seconds)
{
    auto *animation = new QPropertyAnimation(widget, "geometry", widget);
    animation->setDuration(int(seconds * 1000));
    animation->setStartValue(from);
    animation->setEndValue(to);
    animation->setEasingCurve(QEasingCurve::InOutQuad);
    animation->start(QAbstractAnimation::DeleteWhenStopped);
    return animation;
}
