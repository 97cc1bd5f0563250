#pragma once

#include "toolkit/ZDViewController.h"

#include <QLabel>
#include <QPointer>
#include <QPushButton>

// Shows one view controller under a navigation bar that carries the
// controller's navigation item: the title in the middle, the left and right bar
// buttons at the sides, enabled as their items say.
//
// When the navigation controller's view is shown in a window, the root view
// controller's viewWillAppear() runs before the window shows it and
// viewDidAppear() on the next turn of the event loop, once it is on screen.
class ZD_EXPORT ZDNavigationController : public ZDViewController
{
    Q_OBJECT

public:
    // Does not take ownership of `root`, which must outlive this controller's view.
    explicit ZDNavigationController(ZDViewController *root, QObject *parent = nullptr);
    ~ZDNavigationController() override;

    ZDViewController *rootViewController() const { return m_root; }

    // The bar's widgets, for hosts and tests that drive it.
    QPushButton *leftButton() const { return m_leftButton; }
    QPushButton *rightButton() const { return m_rightButton; }
    QLabel *titleLabel() const { return m_titleLabel; }

    static constexpr int kBarHeight = 44;

protected:
    QWidget *loadView() override;
    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    void updateBar();
    void embedRootView(QWidget *view);

    QPointer<ZDViewController> m_root;
    QPointer<QLabel> m_titleLabel;
    QPointer<QPushButton> m_leftButton;
    QPointer<QPushButton> m_rightButton;
};
