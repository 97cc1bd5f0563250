#include "toolkit/ZDNavigationController.h"

#include "toolkit/ZDAccessible_p.h"
#include "toolkit/ZDStyle_p.h"

#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>

namespace {

// The bar's title: it takes the width the buttons leave and elides what does
// not fit, so a long title (or a long translation) never widens the window.
// Screen readers get the whole title.
class TitleLabel : public QLabel
{
public:
    using QLabel::QLabel;

    void setTitle(const QString &title)
    {
        m_title = title;
        setAccessibleName(title);
        setToolTip(title);
        elide();
    }
    QString title() const { return m_title; }

    QSize minimumSizeHint() const override { return QSize(0, QLabel::minimumSizeHint().height()); }
    QSize sizeHint() const override { return QSize(0, QLabel::sizeHint().height()); }

protected:
    void resizeEvent(QResizeEvent *event) override
    {
        QLabel::resizeEvent(event);
        elide();
    }

private:
    void elide() { setText(fontMetrics().elidedText(m_title, Qt::ElideRight, width())); }

    QString m_title;
};

} // namespace

ZDNavigationController::ZDNavigationController(ZDViewController *root, QObject *parent)
    : ZDViewController(parent), m_root(root)
{
    connect(root->navigationItem(), &ZDNavigationItem::changed, this,
            &ZDNavigationController::updateBar);
}

ZDNavigationController::~ZDNavigationController()
{
    // The root's view lives in ours; hand it back before ours goes.
    if (m_root && m_root->isViewLoaded() && isViewLoaded())
        m_root->view()->setParent(nullptr);
}

QWidget *ZDNavigationController::loadView()
{
    QWidget *view = ZDViewController::loadView();
    zdaccessible::install();
    view->setProperty(zdaccessible::kPageProperty, true);
    auto *bar = new QWidget(view);
    bar->setObjectName(QStringLiteral("navigationBar"));
    bar->setFixedHeight(kBarHeight);
    bar->setAutoFillBackground(true);
    bar->setPalette(zdstyle::navigationBarPalette());
    auto *barLayout = new QHBoxLayout(bar);
    barLayout->setContentsMargins(6, 0, 6, 0);
    m_leftButton = new QPushButton(bar);
    m_rightButton = new QPushButton(bar);
    m_titleLabel = new TitleLabel(bar);
    m_titleLabel->setAlignment(Qt::AlignCenter);
    m_titleLabel->setFont(zdstyle::font(17, QFont::Bold));
    for (QPushButton *button : {m_leftButton.data(), m_rightButton.data()}) {
        button->setFlat(true);
        button->setCursor(Qt::PointingHandCursor);
        // Reached with Tab after the root's own controls; Space or Return presses.
        button->setFocusPolicy(Qt::StrongFocus);
        button->setAutoDefault(true);
        button->setStyleSheet(zdstyle::barButtonStyleSheet());
    }
    barLayout->addWidget(m_leftButton);
    barLayout->addWidget(m_titleLabel, 1);
    barLayout->addWidget(m_rightButton);
    connect(m_leftButton, &QPushButton::clicked, this, [this] {
        if (ZDBarButtonItem *item =
                m_root ? m_root->navigationItem()->leftBarButtonItem() : nullptr)
            item->trigger();
    });
    connect(m_rightButton, &QPushButton::clicked, this, [this] {
        if (ZDBarButtonItem *item =
                m_root ? m_root->navigationItem()->rightBarButtonItem() : nullptr)
            item->trigger();
    });

    auto *layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(0);
    layout->addWidget(bar);
    view->installEventFilter(this);
    embedRootView(view);
    updateBar();
    return view;
}

// Puts the root's view under the bar, building it again if it was unloaded.
void ZDNavigationController::embedRootView(QWidget *view)
{
    if (!m_root || (m_root->isViewLoaded() && m_root->view()->parentWidget() == view))
        return;
    static_cast<QVBoxLayout *>(view->layout())->addWidget(m_root->view(), 1);
}

bool ZDNavigationController::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::Show && m_root && watched == view()) {
        embedRootView(view());
        m_root->viewWillAppear(false);
        QTimer::singleShot(0, m_root, [root = m_root] {
            if (root)
                root->viewDidAppear(false);
        });
    }
    return ZDViewController::eventFilter(watched, event);
}

void ZDNavigationController::updateBar()
{
    if (!m_titleLabel || !m_root)
        return;
    ZDNavigationItem *item = m_root->navigationItem();
    static_cast<TitleLabel *>(m_titleLabel.data())->setTitle(item->title());
    // Screen readers name the page (the bar's parent) by the bar's title.
    if (QWidget *page = m_titleLabel->parentWidget()->parentWidget())
        page->setAccessibleName(item->title());
    const auto apply = [](QPushButton *button, const ZDBarButtonItem *barItem) {
        button->setVisible(barItem != nullptr);
        if (!barItem)
            return;
        button->setText(barItem->title());
        button->setEnabled(barItem->isEnabled());
        QFont font = button->font();
        font.setBold(barItem->style() == ZDBarButtonItem::Style::Done);
        button->setFont(font);
    };
    apply(m_leftButton, item->leftBarButtonItem());
    apply(m_rightButton, item->rightBarButtonItem());
}
