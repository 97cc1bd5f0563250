#pragma once

#include "core/zdglobal.h"
#include "toolkit/ZDDevice.h"

#include <QObject>
#include <QPointer>
#include <QString>

#include <functional>
#include <memory>

class QWidget;

// A button of a navigation bar.
class ZD_EXPORT ZDBarButtonItem : public QObject
{
    Q_OBJECT

public:
    enum class Style { Plain, Done };
    enum class SystemItem { Cancel };

    ZDBarButtonItem(const QString &title, Style style, std::function<void()> action,
                    QObject *parent = nullptr);
    // A system button, titled in the user's language from the "Localizable"
    // table (Cancel: the text of "CANCEL").
    ZDBarButtonItem(SystemItem item, std::function<void()> action, QObject *parent = nullptr);

    QString title() const { return m_title; }
    Style style() const { return m_style; }
    bool isEnabled() const { return m_enabled; }
    void setEnabled(bool enabled);

    // What a tap on the button does (nothing while disabled).
    void trigger();

Q_SIGNALS:
    void changed();

private:
    QString m_title;
    Style m_style = Style::Plain;
    bool m_enabled = true;
    std::function<void()> m_action;
};

// What a view controller shows in the navigation bar above its view.
class ZD_EXPORT ZDNavigationItem : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    QString title() const { return m_title; }
    void setTitle(const QString &title);
    // The bar buttons are owned by the item.
    ZDBarButtonItem *leftBarButtonItem() const { return m_left.get(); }
    void setLeftBarButtonItem(std::unique_ptr<ZDBarButtonItem> item);
    ZDBarButtonItem *rightBarButtonItem() const { return m_right.get(); }
    void setRightBarButtonItem(std::unique_ptr<ZDBarButtonItem> item);

Q_SIGNALS:
    void changed();

private:
    QString m_title;
    std::unique_ptr<ZDBarButtonItem> m_left;
    std::unique_ptr<ZDBarButtonItem> m_right;
};

// Manages one screen: its view, built on first use, and the hooks around its
// appearance.
//
// Lifecycle contract:
// - view() builds the view on first call: loadView() (a plain widget by
//   default), then viewDidLoad().
// - viewWillAppear() and viewDidAppear() run each time the screen is shown by
//   a ZDNavigationController, in that order, once the view is in its window.
// - didReceiveMemoryWarning() unloads a view that is not on screen: the view is
//   deleted, then viewDidUnload() runs; the next view() builds it again.
class ZD_EXPORT ZDViewController : public QObject
{
    Q_OBJECT

public:
    explicit ZDViewController(QObject *parent = nullptr);
    ~ZDViewController() override;

    QWidget *view();
    bool isViewLoaded() const { return m_view != nullptr; }
    ZDNavigationItem *navigationItem() { return &m_navigationItem; }

    virtual ZDInterfaceOrientations supportedInterfaceOrientations() const;

    virtual void viewWillAppear(bool animated);
    virtual void viewDidAppear(bool animated);
    virtual void didReceiveMemoryWarning();

protected:
    // Makes the view. The default makes a plain white widget of the window's size.
    virtual QWidget *loadView();
    virtual void viewDidLoad();
    virtual void viewDidUnload();

private:
    QPointer<QWidget> m_view;
    ZDNavigationItem m_navigationItem;
};
