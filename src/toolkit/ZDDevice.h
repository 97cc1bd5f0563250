#pragma once

#include "core/zdglobal.h"

#include <QFlags>
#include <QSizeF>
#include <QUrl>

#include <functional>

// The kind of device the views lay themselves out for.
enum class ZDDeviceKind { Phone, Tablet };

enum class ZDInterfaceOrientation {
    Portrait = 0x1,
    PortraitUpsideDown = 0x2,
    LandscapeLeft = 0x4,
    LandscapeRight = 0x8,
};
Q_DECLARE_FLAGS(ZDInterfaceOrientations, ZDInterfaceOrientation)
Q_DECLARE_OPERATORS_FOR_FLAGS(ZDInterfaceOrientations)

// What the toolkit asks of the device: its kind, chosen by the host or, when the
// host says nothing, from the primary screen (a shorter side of 600 points or
// more is a tablet), the platform's animation durations and opening URLs.
struct ZD_EXPORT ZDDevice
{
    static ZDDeviceKind kind();
    // Fixes the kind (the host's choice); resetKind() goes back to the screen.
    static void setKind(ZDDeviceKind kind);
    static void resetKind();
    static bool isTablet() { return kind() == ZDDeviceKind::Tablet; }

    // The orientations a screen may take on this kind of device: every one on a
    // tablet, upright portrait only on a phone.
    static ZDInterfaceOrientations supportedOrientations(ZDDeviceKind kind);

    // The size of a window of this kind: a phone's and a tablet's screen in points.
    static QSizeF screenSize(ZDDeviceKind kind);

    // Durations, in seconds, of the platform's animations.
    static constexpr double kNavigationTransitionDuration = 0.35;
    static constexpr double kKeyboardAnimationDuration = 0.25;
    static constexpr double kDeselectAnimationDuration = 0.3;
    static constexpr double kRowAnimationDuration = 0.3;

    // Opens `url` with the system's handler (a browser for web addresses).
    // Returns false when nothing could open it. Tests and hosts may route the
    // request elsewhere with setURLOpener(); an empty function restores the system's.
    static bool openURL(const QUrl &url);
    static void setURLOpener(std::function<bool(const QUrl &)> opener);
};
