#include "DemoPublishViewController.h"

#include "DemoAuthenticator.h"
#include "DemoVideo.h"

#include <toolkit/ZDAlertView.h>

#include <QFont>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>

using namespace Qt::StringLiterals;

ZDAuthenticator *DemoPublishViewController::authenticator()
{
    return DemoAuthenticator::sharedAuthenticator();
}

QString DemoPublishViewController::termsOfUseString()
{
    return u"By publishing you confirm that you hold the rights to this video and accept the "
           u"Demo Video terms of use."_s;
}

QUrl DemoPublishViewController::termsOfUseURL()
{
    return DemoVideo::endpoint(u"terms"_s);
}

QPixmap DemoPublishViewController::headerLogo()
{
    // Drawn rather than shipped, so that it stays sharp at any device ratio.
    const qreal ratio = 2;
    QPixmap logo(QSize(214, 44) * ratio);
    logo.setDevicePixelRatio(ratio);
    logo.fill(Qt::transparent);
    QPainter painter(&logo);
    painter.setRenderHint(QPainter::Antialiasing);
    QPainterPath badge;
    badge.addRoundedRect(QRectF(2, 4, 52, 36), 9, 9);
    painter.fillPath(badge, QColor(0x1f, 0x6f, 0xd8));
    QPainterPath play;
    play.moveTo(21, 13);
    play.lineTo(38, 22);
    play.lineTo(21, 31);
    play.closeSubpath();
    painter.fillPath(play, Qt::white);
    QFont font = painter.font();
    font.setPixelSize(22);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(QColor(0x22, 0x2b, 0x38));
    painter.drawText(QRectF(62, 0, 152, 44), Qt::AlignVCenter | Qt::AlignLeft, u"Demo Video"_s);
    return logo;
}

std::optional<QList<ZDCategory>> DemoPublishViewController::categories()
{
    const std::pair<const char16_t *, const char16_t *> names[] = {
        {u"People & Blogs", u"people"},
        {u"Film & Animation", u"film"},
        {u"Travel & Events", u"travel"},
        {u"Pets & Animals", u"animals"},
        {u"Music", u"music"},
        {u"Sports", u"sports"},
        {u"Comedy", u"comedy"},
        {u"Education", u"education"},
        {u"Science & Technology", u"science"},
    };
    QList<ZDCategory> list;
    for (const auto &[name, value] : names)
        list << ZDCategory::categoryWithDisplayNameValue(QString::fromUtf16(name),
                                                         QString::fromUtf16(value));
    return list;
}

QStringList DemoPublishViewController::accessValues()
{
    return {u"public"_s, u"unlisted"_s, u"private"_s};
}

std::optional<ZDCellList> DemoPublishViewController::accessCells()
{
    ZDCellList cells;
    for (const QString &title : {u"Public"_s, u"Unlisted"_s, u"Private"_s}) {
        auto cell = std::make_shared<ZDTableViewCell>();
        cell->textLabel()->setText(title);
        cells.push_back(std::move(cell));
    }
    return cells;
}

QString DemoPublishViewController::videoAccess() const
{
    return accessValues().value(qsizetype(accessRow()), accessValues().constFirst());
}

ZDAlertView *DemoPublishViewController::accountAlert()
{
    return new ZDAlertView(authenticator()->account(),
                           u"You are signed in to Demo Video. Signing out closes this sheet."_s,
                           nullptr, u"Cancel"_s, {u"Sign Out"_s});
}

bool DemoPublishViewController::checkParametersAndWarn()
{
    if (!videoTitle().trimmed().isEmpty())
        return true;
    showAlertWithTitleMessage(u"No Title"_s, u"Demo Video needs a title for every video."_s);
    return false;
}
