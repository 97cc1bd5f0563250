#include "toolkit/ZDViewController.h"

#include "resources/ZDLocalizedString.h"

#include <QPalette>
#include <QWidget>

ZDBarButtonItem::ZDBarButtonItem(const QString &title, Style style, std::function<void()> action,
                                 QObject *parent)
    : QObject(parent), m_title(title), m_style(style), m_action(std::move(action))
{}

ZDBarButtonItem::ZDBarButtonItem(SystemItem, std::function<void()> action, QObject *parent)
    : ZDBarButtonItem(ZDLocalizedString(QStringLiteral("CANCEL")), Style::Plain, std::move(action),
                      parent)
{}

void ZDBarButtonItem::setEnabled(bool enabled)
{
    if (m_enabled == enabled)
        return;
    m_enabled = enabled;
    Q_EMIT changed();
}

void ZDBarButtonItem::trigger()
{
    if (!m_enabled || !m_action)
        return;
    // The action may destroy this item (a form closed from its own button):
    // run a copy that outlives it.
    const std::function<void()> action = m_action;
    action();
}

void ZDNavigationItem::setTitle(const QString &title)
{
    m_title = title;
    Q_EMIT changed();
}

void ZDNavigationItem::setLeftBarButtonItem(std::unique_ptr<ZDBarButtonItem> item)
{
    m_left = std::move(item);
    if (m_left)
        connect(m_left.get(), &ZDBarButtonItem::changed, this, &ZDNavigationItem::changed);
    Q_EMIT changed();
}

void ZDNavigationItem::setRightBarButtonItem(std::unique_ptr<ZDBarButtonItem> item)
{
    m_right = std::move(item);
    if (m_right)
        connect(m_right.get(), &ZDBarButtonItem::changed, this, &ZDNavigationItem::changed);
    Q_EMIT changed();
}

ZDViewController::ZDViewController(QObject *parent) : QObject(parent) {}

ZDViewController::~ZDViewController()
{
    delete m_view; // null when unloaded or already gone with its parent
}

QWidget *ZDViewController::view()
{
    if (!m_view) {
        m_view = loadView();
        viewDidLoad();
    }
    return m_view;
}

QWidget *ZDViewController::loadView()
{
    auto *view = new QWidget;
    view->setAutoFillBackground(true);
    QPalette palette = view->palette();
    palette.setColor(QPalette::Window, Qt::white);
    view->setPalette(palette);
    view->resize(ZDDevice::screenSize(ZDDevice::kind()).toSize());
    return view;
}

void ZDViewController::viewDidLoad() {}

void ZDViewController::viewDidUnload() {}

void ZDViewController::viewWillAppear(bool) {}

void ZDViewController::viewDidAppear(bool) {}

void ZDViewController::didReceiveMemoryWarning()
{
    if (!m_view || m_view->isVisible())
        return;
    delete m_view;
    viewDidUnload();
}

ZDInterfaceOrientations ZDViewController::supportedInterfaceOrientations() const
{
    return ZDDevice::supportedOrientations(ZDDevice::kind());
}
