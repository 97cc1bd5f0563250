#include "toolkit/ZDKeyboard.h"

#include "core/ZDNotificationCenter.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDSlide_p.h"
#include "toolkit/ZDStyle_p.h"

#include <QApplication>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QInputDevice>
#include <QInputMethod>
#include <QKeyEvent>
#include <QLineEdit>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPropertyAnimation>
#include <QPushButton>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>

const QString ZDKeyboardDidShowNotification = QStringLiteral("ZDKeyboardDidShowNotification");
const QString ZDKeyboardDidHideNotification = QStringLiteral("ZDKeyboardDidHideNotification");

namespace {

constexpr int kTabletKeyboardHeight = 264;

bool takesText(const QWidget *widget)
{
    if (const auto *line = qobject_cast<const QLineEdit *>(widget))
        return !line->isReadOnly();
    if (const auto *text = qobject_cast<const QTextEdit *>(widget))
        return !text->isReadOnly();
    if (const auto *plain = qobject_cast<const QPlainTextEdit *>(widget))
        return !plain->isReadOnly();
    return false;
}

// Types one key into the widget that has the focus.
void type(Qt::Key key, const QString &text)
{
    QWidget *target = QApplication::focusWidget();
    if (!target)
        return;
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, text);
    QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier, text);
    QApplication::sendEvent(target, &press);
    QApplication::sendEvent(target, &release);
}

} // namespace

// The keys: three rows of letters, shift, backspace, the tag separator, space
// and return; on a tablet a key that splits the keyboard.
class ZDKeyboardPanel : public QWidget
{
public:
    explicit ZDKeyboardPanel(QWidget *window) : QWidget(window)
    {
        setObjectName(QStringLiteral("keyboard"));
        auto *layout = new QVBoxLayout(this);
        layout->setContentsMargins(3, 8, 3, 4);
        layout->setSpacing(8);
        const QStringList rows{QStringLiteral("qwertyuiop"), QStringLiteral("asdfghjkl"),
                               QStringLiteral("zxcvbnm")};
        for (qsizetype r = 0; r < rows.size(); ++r) {
            auto *row = new QHBoxLayout;
            row->setSpacing(4);
            if (r == 2)
                row->addWidget(makeKey(
                    QStringLiteral("\u21e7"), [this] { m_shift = !m_shift; },
                    QStringLiteral("KEY_SHIFT")));
            for (const QChar letter : rows[r]) {
                row->addWidget(makeKey(QString(letter), [this, letter] {
                    const QString text = m_shift ? QString(letter.toUpper()) : QString(letter);
                    type(Qt::Key(Qt::Key_A + (letter.unicode() - u'a')), text);
                    m_shift = false;
                }));
            }
            if (r == 2)
                row->addWidget(makeKey(
                    QStringLiteral("\u232b"), [] { type(Qt::Key_Backspace, {}); },
                    QStringLiteral("KEY_DELETE")));
            layout->addLayout(row);
        }
        auto *bottom = new QHBoxLayout;
        bottom->setSpacing(4);
        bottom->addWidget(makeKey(
            QStringLiteral(","), [] { type(Qt::Key_Comma, QStringLiteral(",")); },
            QStringLiteral("KEY_COMMA")));
        bottom->addWidget(makeKey(
                              QStringLiteral("space"),
                              [] { type(Qt::Key_Space, QStringLiteral(" ")); },
                              QStringLiteral("KEY_SPACE")),
                          4);
        if (ZDDevice::isTablet()) {
            bottom->addWidget(makeKey(
                QStringLiteral("split"),
                [] { ZDKeyboard::shared().setSplit(!ZDKeyboard::shared().isSplit()); },
                QStringLiteral("KEY_SPLIT")));
        }
        bottom->addWidget(makeKey(
                              QStringLiteral("return"),
                              [] { type(Qt::Key_Return, QStringLiteral("\r")); },
                              QStringLiteral("KEY_RETURN")),
                          2);
        layout->addLayout(bottom);
    }

    QPushButton *key(const QString &label) const
    {
        for (QPushButton *button : findChildren<QPushButton *>()) {
            if (button->text() == label)
                return button;
        }
        return nullptr;
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        QLinearGradient background(0, 0, 0, height());
        background.setColorAt(0, QColor(0x8b, 0x90, 0x9c));
        background.setColorAt(1, QColor(0x4f, 0x55, 0x63));
        if (!ZDKeyboard::shared().isSplit()) {
            painter.fillRect(rect(), background);
            return;
        }
        // Split: two halves with the view showing between them.
        const int half = width() * 2 / 5;
        painter.fillRect(QRect(0, 0, half, height()), background);
        painter.fillRect(QRect(width() - half, 0, half, height()), background);
    }

private:
    // A key never takes the focus (the field being typed into keeps it); a
    // screen reader hears it by its letter or, for a symbol, by `spokenKey`.
    QPushButton *makeKey(const QString &label, std::function<void()> action,
                         const QString &spokenKey = QString())
    {
        auto *button = new QPushButton(label, this);
        button->setFocusPolicy(Qt::NoFocus);
        if (!spokenKey.isEmpty())
            button->setAccessibleName(ZDLocalizedString(spokenKey));
        button->setMinimumHeight(38);
        button->setFont(zdstyle::font(18));
        button->setStyleSheet(QStringLiteral(
            "QPushButton { background: qlineargradient(x1:0,y1:0,x2:0,y2:1, stop:0 #fdfdfd, "
            "stop:1 #dcdce0); border: 1px solid #6b6f7a; border-radius: 5px; color: black; "
            "padding: 0 2px; }"
            "QPushButton:pressed { background: #a9b2c4; }"));
        connect(button, &QPushButton::clicked, this, std::move(action));
        return button;
    }

    bool m_shift = false;
};

bool ZDKeyboard::hasTouchScreen()
{
    const auto devices = QInputDevice::devices();
    return std::any_of(devices.begin(), devices.end(), [](const QInputDevice *device) {
        return device->type() == QInputDevice::DeviceType::TouchScreen;
    });
}

ZDKeyboard &ZDKeyboard::shared()
{
    static ZDKeyboard *keyboard = new ZDKeyboard; // lives as long as the application
    return *keyboard;
}

ZDKeyboard::ZDKeyboard()
{
    if (auto *app = qobject_cast<QApplication *>(QCoreApplication::instance())) {
        setParent(app);
        connect(app, &QApplication::focusChanged, this, &ZDKeyboard::focusChanged);
        // A platform keyboard, where there is one, is followed through Qt's input method.
        connect(QGuiApplication::inputMethod(), &QInputMethod::visibleChanged, this,
                &ZDKeyboard::platformKeyboardVisibilityChanged);
    }
}

void ZDKeyboard::platformKeyboardVisibilityChanged()
{
    if (m_enabled)
        return; // our own panel speaks for the keyboard
    const bool visible = QGuiApplication::inputMethod()->isVisible();
    ZDNotificationCenter::defaultCenter().postNotification(
        visible ? ZDKeyboardDidShowNotification : ZDKeyboardDidHideNotification, this,
        {{QStringLiteral("frame"), QGuiApplication::inputMethod()->keyboardRectangle().toRect()}});
    Q_EMIT shownOrHidden();
}

QRect ZDKeyboard::keyboardFrameInWindow() const
{
    if (m_onScreen && m_panel)
        return m_panel->geometry();
    if (!m_enabled && QGuiApplication::inputMethod()->isVisible())
        return QGuiApplication::inputMethod()->keyboardRectangle().toRect();
    return QRect();
}

void ZDKeyboard::setEnabled(bool enabled)
{
    m_enabled = enabled;
    if (!enabled && m_panel) {
        delete m_panel;
        m_onScreen = false;
    }
}

bool ZDKeyboard::isAutomaticKeyboardOnScreen() const
{
    if (!m_enabled)
        return QGuiApplication::inputMethod() && QGuiApplication::inputMethod()->isVisible();
    return m_onScreen && m_panel;
}

QWidget *ZDKeyboard::activeKeyboardView() const
{
    return m_onScreen ? m_panel.data() : nullptr; // null also once its window is gone
}

QWidget *ZDKeyboard::keyWithLabel(const QString &label) const
{
    return m_panel ? m_panel->key(label) : nullptr;
}

void ZDKeyboard::setSplit(bool split)
{
    m_split = split;
    if (m_panel)
        m_panel->update();
}

void ZDKeyboard::focusChanged(QWidget *, QWidget *now)
{
    if (!m_enabled)
        return;
    if (now && takesText(now)) {
        showIn(now->window());
        return;
    }
    // Focus moving between two fields passes through nothing: wait a turn.
    QTimer::singleShot(0, this, [this] {
        if (m_onScreen && !takesText(QApplication::focusWidget()))
            orderOutAutomaticKeyboard();
    });
}

void ZDKeyboard::showIn(QWidget *window)
{
    if (!m_panel)
        m_onScreen = false; // the last one went with its window
    if (m_panel && m_panel->window() != window) {
        delete m_panel;
        m_onScreen = false;
    }
    if (!m_panel) {
        m_panel = new ZDKeyboardPanel(window);
        m_panel->hide();
    }
    if (m_onScreen)
        return;
    m_onScreen = true;
    slide(true);
}

void ZDKeyboard::orderOutAutomaticKeyboard()
{
    if (!m_enabled) {
        QGuiApplication::inputMethod()->hide();
        return;
    }
    if (!m_onScreen)
        return;
    m_onScreen = false;
    if (m_panel) // gone with its window otherwise: nothing left to slide
        slide(false);
}

void ZDKeyboard::slide(bool up)
{
    QWidget *window = m_panel->parentWidget();
    const int height =
        ZDDevice::isTablet() ? kTabletKeyboardHeight : int(defaultSize(window->width()).height());
    const QRect resting(0, window->height() - height, window->width(), height);
    const QRect below = resting.translated(0, height);
    if (!m_animation)
        m_panel->setGeometry(up ? below : resting);
    m_panel->show();
    m_panel->raise();
    delete m_animation; // a slide under way gives way to this one
    QPropertyAnimation *animation = zdSlide(m_panel, m_panel->geometry(), up ? resting : below,
                                            ZDDevice::kKeyboardAnimationDuration);
    m_animation = animation;
    connect(animation, &QPropertyAnimation::finished, this, [this, up, resting] {
        if (!up && m_panel)
            m_panel->hide();
        ZDNotificationCenter::defaultCenter().postNotification(
            up ? ZDKeyboardDidShowNotification : ZDKeyboardDidHideNotification, this,
            {{QStringLiteral("frame"), resting}});
        Q_EMIT shownOrHidden();
    });
}
