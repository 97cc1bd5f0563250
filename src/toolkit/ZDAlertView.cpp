#include "toolkit/ZDAlertView.h"

#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDAccessible_p.h"
#include "toolkit/ZDKeyboard.h"
#include "toolkit/ZDStyle_p.h"

#include <QApplication>
#include <QGraphicsOpacityEffect>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPixmap>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>
#include <utility>
using namespace Qt::StringLiterals;

namespace {

constexpr int kBoxWidth = 284;

QPointer<QWidget> &defaultWindow()
{
    static QPointer<QWidget> window;
    return window;
}

QString buttonStyle(bool bold)
{
    return QStringLiteral("QPushButton { color: white; font-weight: %1; background: "
                          "qlineargradient(x1:0,y1:0,x2:0,y2:1, stop:0 #8a9bbd, stop:1 #4f6791);"
                          " border: 1px solid #1d2f52; border-radius: 6px; padding: 8px; }"
                          "QPushButton:pressed { background: #34476b; }")
        .arg(bold ? QStringLiteral("bold") : QStringLiteral("normal"));
}

} // namespace

ZDAlertView::ZDAlertView(const QString &title, const QString &message,
                         ZDAlertViewDelegate *delegate, const QString &cancelButtonTitle,
                         const QStringList &otherButtonTitles)
    : m_title(title), m_message(message), m_delegate(delegate)
{
    if (!cancelButtonTitle.isNull()) {
        m_cancelIndex = 0;
        m_buttons << cancelButtonTitle;
    }
    m_buttons << otherButtonTitles;
    zdaccessible::install();
    setAttribute(Qt::WA_DeleteOnClose, false);
    hide();
}

ZDAlertView::~ZDAlertView() = default;

void ZDAlertView::setAlertViewStyle(Style style)
{
    m_style = style;
    if (m_shown)
        rebuild();
}

void ZDAlertView::setImage(const QImage &image, const QString &description)
{
    m_image = image;
    m_imageDescription = description;
    if (m_shown)
        rebuild();
}

QLineEdit *ZDAlertView::textFieldAtIndex(int index) const
{
    return index >= 0 && index < m_fields.size() ? m_fields[index] : nullptr;
}

QString ZDAlertView::buttonTitleAtIndex(int index) const
{
    return m_buttons.value(index);
}

QPushButton *ZDAlertView::buttonAtIndex(int index) const
{
    return index >= 0 && index < m_buttonWidgets.size() ? m_buttonWidgets[index] : nullptr;
}

int ZDAlertView::firstOtherButtonIndex() const
{
    const int first = m_cancelIndex == 0 ? 1 : 0;
    return first < m_buttons.size() ? first : -1;
}

void ZDAlertView::setReturnKeyAction(QObject *target, std::function<void()> action)
{
    m_returnTarget = target;
    m_returnAction = std::move(action);
}

void ZDAlertView::setDefaultWindow(QWidget *window)
{
    defaultWindow() = window;
}

void ZDAlertView::rebuild()
{
    delete m_box;
    m_fields.clear();
    m_buttonWidgets.clear();
    m_box = new QWidget(this);
    m_box->setObjectName(QStringLiteral("alertBox"));
    auto *layout = new QVBoxLayout(m_box);
    layout->setContentsMargins(14, 16, 14, 14);
    layout->setSpacing(10);
    const auto addLabel = [&](const QString &text, int size, QFont::Weight weight) {
        if (text.isEmpty())
            return;
        auto *label = new QLabel(text, m_box);
        label->setWordWrap(true);
        label->setAlignment(Qt::AlignCenter);
        label->setFont(zdstyle::font(size, weight));
        label->setStyleSheet(QStringLiteral("color: white;"));
        layout->addWidget(label);
    };
    addLabel(m_title, 18, QFont::Bold);
    addLabel(m_message, 15, QFont::Normal);
    if (!m_image.isNull()) {
        auto *picture = new QLabel(m_box);
        picture->setObjectName(QStringLiteral("alertImage"));
        picture->setPixmap(QPixmap::fromImage(m_image));
        picture->setAlignment(Qt::AlignCenter);
        picture->setAccessibleName(m_imageDescription);
        layout->addWidget(picture);
    }

    int fields = 0;
    if (m_style == Style::PlainTextInput || m_style == Style::SecureTextInput)
        fields = 1;
    else if (m_style == Style::LoginAndPasswordInput)
        fields = 2;
    for (int i = 0; i < fields; ++i) {
        auto *field = new QLineEdit(m_box);
        field->setFont(zdstyle::font(16));
        field->setStyleSheet(QStringLiteral(
            "QLineEdit { background: white; border: 1px solid #333; border-radius: 4px; "
            "padding: 5px; }"));
        if (m_style == Style::SecureTextInput || i == 1) {
            field->setEchoMode(QLineEdit::Password);
            field->setPlaceholderText(ZDLocalizedString(QStringLiteral("PASSWORD")));
        } else if (m_style == Style::LoginAndPasswordInput) {
            field->setPlaceholderText(ZDLocalizedString(QStringLiteral("USER_NAME")));
        }
        // Named for screen readers by what it asks for.
        field->setAccessibleName(ZDLocalizedString(
            field->echoMode() == QLineEdit::Password ? u"PASSWORD"_s : u"USER_NAME"_s));
        field->installEventFilter(this);
        layout->addWidget(field);
        m_fields.append(field);
    }

    auto *buttons = new QHBoxLayout;
    buttons->setSpacing(8);
    for (int i = 0; i < m_buttons.size(); ++i) {
        auto *button = new QPushButton(m_buttons[i], m_box);
        button->setFocusPolicy(Qt::StrongFocus);
        button->setAutoDefault(true); // Return presses the focused button
        button->setFont(zdstyle::font(16));
        button->setStyleSheet(buttonStyle(i != m_cancelIndex && m_buttons.size() > 1));
        connect(button, &QPushButton::clicked, this,
                [this, i] { dismissWithClickedButtonIndex(i, true); });
        buttons->addWidget(button);
        m_buttonWidgets.append(button);
    }
    layout->addLayout(buttons);
    // The box is as tall as its wrapped texts need at its fixed width: a long
    // title or message (a translation) wraps onto more lines, never cut off.
    m_box->setFixedWidth(kBoxWidth);
    m_box->setFixedHeight(layout->hasHeightForWidth() ? layout->heightForWidth(kBoxWidth)
                                                      : layout->sizeHint().height());
    m_box->show();
}

void ZDAlertView::show(QWidget *window)
{
    if (m_shown)
        return;
    if (!window)
        window = defaultWindow();
    if (!window)
        window = QApplication::activeWindow();
    if (!window) {
        const auto tops = QApplication::topLevelWidgets();
        const auto visible = std::find_if(
            tops.begin(), tops.end(), [this](QWidget *w) { return w->isVisible() && w != this; });
        window = visible == tops.end() ? nullptr : *visible;
    }
    m_shown = true;
    m_focusBefore = QApplication::focusWidget();
    rebuild();
    if (window) {
        setParent(window->window());
        window->window()->installEventFilter(this);
    }
    connect(&ZDKeyboard::shared(), &ZDKeyboard::shownOrHidden, this, &ZDAlertView::layoutInWindow);
    layoutInWindow();
    QWidget::show();
    raise();
    // The focus moves into the alert: its first field, else its first other
    // button, else its only one.
    if (!m_fields.isEmpty())
        m_fields.front()->setFocus(Qt::OtherFocusReason);
    else if (QPushButton *button = buttonAtIndex(std::max(0, firstOtherButtonIndex())))
        button->setFocus(Qt::OtherFocusReason);
    else
        setFocus(Qt::OtherFocusReason);
    zdaccessible::notify(this, QAccessible::DialogStart);
    auto *fade = new QGraphicsOpacityEffect(m_box);
    m_box->setGraphicsEffect(fade);
    auto *animation = new QPropertyAnimation(fade, "opacity", this);
    animation->setDuration(200);
    animation->setStartValue(0.0);
    animation->setEndValue(1.0);
    connect(animation, &QPropertyAnimation::finished, m_box, [box = QPointer<QWidget>(m_box)] {
        if (box)
            box->setGraphicsEffect(nullptr);
    });
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

// Centres the box a little above the middle of the window, or of the part of
// it above the on-screen keyboard while the keyboard is up in this window, so
// that the keyboard never covers the fields and buttons.
void ZDAlertView::layoutInWindow()
{
    if (QWidget *window = parentWidget())
        setGeometry(window->rect());
    else
        resize(m_box ? m_box->size() + QSize(40, 40) : QSize(320, 200));
    if (!m_box)
        return;
    int room = height();
    const ZDKeyboard &keyboard = ZDKeyboard::shared();
    const QWidget *keys = keyboard.activeKeyboardView();
    if (keys && parentWidget() && keys->window() == parentWidget()->window())
        room = std::clamp(keyboard.keyboardFrameInWindow().top(), 0, height());
    const int y = room >= m_box->height() + 16 ? qMax(8, (room - m_box->height()) / 2 - 40)
                                               : qMax(0, room - m_box->height() - 8);
    m_box->move((width() - m_box->width()) / 2, qMax(0, y));
    update();
}

void ZDAlertView::setDismissHandler(std::function<void(int)> handler)
{
    m_dismissHandler = std::move(handler);
}

void ZDAlertView::dismissWithClickedButtonIndex(int buttonIndex, bool)
{
    if (m_dismissed)
        return;
    m_dismissed = true;
    QPointer<ZDAlertView> self(this);
    if (ZDAlertViewDelegate *delegate = m_delegate.get())
        delegate->alertViewWillDismissWithButtonIndex(this, buttonIndex);
    if (!self)
        return;
    if (const auto handler = std::exchange(m_dismissHandler, {})) // it may reach this alert
        handler(buttonIndex);
    if (!self)
        return;
    if (QWidget *window = parentWidget())
        window->removeEventFilter(this);
    zdaccessible::notify(this, QAccessible::DialogEnd);
    // Like any dialog, the alert hands the focus back to where it was, unless
    // its delegate has put it somewhere else meanwhile.
    const QWidget *focus = QApplication::focusWidget();
    const bool focusInside = !focus || focus == this || isAncestorOf(focus);
    hide();
    if (focusInside && m_focusBefore && m_focusBefore->isVisible())
        m_focusBefore->setFocus(Qt::OtherFocusReason);
    deleteLater();
}

bool ZDAlertView::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == parentWidget() && event->type() == QEvent::Resize)
        layoutInWindow();
    auto *field = qobject_cast<QLineEdit *>(watched);
    if (event->type() == QEvent::KeyPress && field && m_fields.contains(field)) {
        const int key = static_cast<QKeyEvent *>(event)->key();
        if (key == Qt::Key_Return || key == Qt::Key_Enter) {
            if (m_returnTarget && m_returnAction)
                m_returnAction();
            return true;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void ZDAlertView::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Escape) {
        // Escape stops here even without a cancel button: the window under the
        // alert must not take it as its own.
        if (m_cancelIndex >= 0)
            dismissWithClickedButtonIndex(m_cancelIndex, true);
        event->accept();
        return;
    }
    QWidget::keyPressEvent(event);
}

// Tab and Shift+Tab go round the alert's own fields and buttons: what lies
// under the alert cannot be reached while it is up.
bool ZDAlertView::focusNextPrevChild(bool next)
{
    QList<QWidget *> stops;
    for (QLineEdit *field : std::as_const(m_fields))
        stops << field;
    for (QPushButton *button : std::as_const(m_buttonWidgets))
        stops << button;
    if (stops.isEmpty())
        return true;
    const qsizetype at = stops.indexOf(QApplication::focusWidget());
    const qsizetype count = stops.size();
    const qsizetype to = at < 0 ? 0 : (at + (next ? 1 : count - 1)) % count;
    stops[to]->setFocus(next ? Qt::TabFocusReason : Qt::BacktabFocusReason);
    return true;
}

void ZDAlertView::paintEvent(QPaintEvent *)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.fillRect(rect(), QColor(0, 0, 0, 110));
    if (!m_box)
        return;
    const QRectF box = QRectF(m_box->geometry()).adjusted(-1, -1, 1, 1);
    QLinearGradient gradient(box.topLeft(), box.bottomLeft());
    gradient.setColorAt(0, QColor(0x34, 0x4a, 0x80, 240));
    gradient.setColorAt(1, QColor(0x0f, 0x1e, 0x44, 240));
    painter.setPen(QPen(QColor(255, 255, 255, 200), 2));
    painter.setBrush(gradient);
    painter.drawRoundedRect(box, 10, 10);
}
