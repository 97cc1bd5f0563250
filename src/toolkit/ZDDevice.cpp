#include "toolkit/ZDDevice.h"

#include <QDesktopServices>
#include <QGuiApplication>
#include <QScreen>

#include <optional>

namespace {

std::optional<ZDDeviceKind> &chosenKind()
{
    static std::optional<ZDDeviceKind> kind;
    return kind;
}

std::function<bool(const QUrl &)> &urlOpener()
{
    static std::function<bool(const QUrl &)> opener;
    return opener;
}

// A screen whose shorter side has at least this many points is a tablet's.
constexpr int kTabletShortSide = 600;

} // namespace

ZDDeviceKind ZDDevice::kind()
{
    if (chosenKind())
        return *chosenKind();
    const QScreen *screen = QGuiApplication::primaryScreen();
    if (!screen)
        return ZDDeviceKind::Phone;
    const QSize size = screen->availableSize();
    return qMin(size.width(), size.height()) >= kTabletShortSide ? ZDDeviceKind::Tablet
                                                                 : ZDDeviceKind::Phone;
}

void ZDDevice::setKind(ZDDeviceKind kind)
{
    chosenKind() = kind;
}

void ZDDevice::resetKind()
{
    chosenKind().reset();
}

ZDInterfaceOrientations ZDDevice::supportedOrientations(ZDDeviceKind kind)
{
    if (kind == ZDDeviceKind::Tablet) {
        return ZDInterfaceOrientation::Portrait | ZDInterfaceOrientation::PortraitUpsideDown |
               ZDInterfaceOrientation::LandscapeLeft | ZDInterfaceOrientation::LandscapeRight;
    }
    return ZDInterfaceOrientation::Portrait;
}

QSizeF ZDDevice::screenSize(ZDDeviceKind kind)
{
    return kind == ZDDeviceKind::Tablet ? QSizeF(768, 1024) : QSizeF(320, 480);
}

bool ZDDevice::openURL(const QUrl &url)
{
    if (const auto &opener = urlOpener())
        return opener(url);
    return QDesktopServices::openUrl(url);
}

void ZDDevice::setURLOpener(std::function<bool(const QUrl &)> opener)
{
    urlOpener() = std::move(opener);
}
