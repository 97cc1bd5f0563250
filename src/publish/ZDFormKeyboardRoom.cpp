#include "publish/ZDFormKeyboardRoom_p.h"

#include "publish/ZDFooterContainerView.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"
#include "toolkit/ZDPickerView.h"
#include "toolkit/ZDSlide_p.h"
#include "toolkit/ZDTableViewCell.h"

#include <QAccessible>
#include <QPalette>
#include <QShortcut>

namespace {

// The wheel's height on a tablet; on a phone it takes the keyboard's place.
constexpr qreal kTabletPickerHeight = 216.0;
// Below the terms button.
constexpr qreal kFooterPadding = 10.0;

} // namespace

ZDFormKeyboardRoom::ZDFormKeyboardRoom(ZDPickerViewDelegate *pickerDelegate,
                                       std::function<std::optional<ZDIndexPath>()> editedRowToKeep)
    : m_pickerDelegate(pickerDelegate), m_editedRowToKeep(std::move(editedRowToKeep))
{}

ZDFormKeyboardRoom::~ZDFormKeyboardRoom()
{
    delete m_pickerContainer; // the wheel goes with it
}

void ZDFormKeyboardRoom::attach(QWidget *view, ZDTableView *table, ZDFooterContainerView *footer)
{
    m_view = view;
    m_table = table;
    m_footer = footer;
    if (m_pickerContainer) // a wheel made before an unload waits below the edge
        m_pickerContainer->setParent(view);
}

void ZDFormKeyboardRoom::keepWheelThroughUnload()
{
    if (!m_pickerContainer)
        return;
    m_pickerContainer->hide();
    m_pickerContainer->setParent(nullptr);
}

void ZDFormKeyboardRoom::shrink()
{
    if (m_shrunk || !m_table)
        return;
    m_table->setContentInsetBottom(
        ZDDevice::isTablet() ? kTabletPickerHeight : float(ZDKeyboard::defaultSize(0).height()));
    if (const std::optional<ZDIndexPath> row =
            m_editedRowToKeep ? m_editedRowToKeep() : std::nullopt)
        m_table->scrollToRowAtIndexPath(*row, ZDTableView::ScrollPosition::Middle, true);
    m_shrunk = true;
}

void ZDFormKeyboardRoom::unshrink()
{
    if (!m_shrunk)
        return;
    if (m_table)
        m_table->setContentInsetBottom(0);
    m_shrunk = false;
}

void ZDFormKeyboardRoom::showPicker(ZDIndexPath categoryRow)
{
    QWidget *form = m_view;
    if (!form || !m_table)
        return;
    const QSize bounds = form->size();
    // Where the keyboard would stand: the keyboard's size on a phone, 216 points
    // high across the view on a tablet.
    const QSize size = ZDDevice::isTablet() ? QSize(bounds.width(), int(kTabletPickerHeight))
                                            : ZDKeyboard::defaultSize(bounds.width()).toSize();
    const QRect resting(0, bounds.height() - size.height(), size.width(), size.height());
    if (!m_picker) {
        m_pickerContainer = new QWidget(form);
        m_pickerContainer->setAutoFillBackground(true);
        QPalette palette = m_pickerContainer->palette();
        palette.setColor(QPalette::Window, Qt::white);
        m_pickerContainer->setPalette(palette);
        m_pickerContainer->setGeometry(resting);
        m_picker = new ZDPickerView(m_pickerContainer);
        m_picker->setGeometry(0, 0, size.width(), size.height());
        m_picker->setDelegate(m_pickerDelegate);
        m_picker->setShowsSelectionIndicator(true);
        m_picker->setAccessibleName(ZDLocalizedString(QStringLiteral("CATEGORY")));
        // The wheel turns its category as it goes: Return and Enter only put
        // it away. Bound to the wheel alone, they leave every row's own
        // Return untouched.
        for (const Qt::Key key : {Qt::Key_Return, Qt::Key_Enter}) {
            auto *done = new QShortcut(QKeySequence(key), m_picker);
            done->setContext(Qt::WidgetShortcut);
            QObject::connect(done, &QShortcut::activated, m_picker,
                             [this] { hidePicker(m_pickerRow); });
        }
    }
    // A wheel kept through an unload comes back hidden: show it again.
    m_pickerContainer->show();
    m_pickerContainer->raise();
    if (m_showingPicker)
        return;
    m_pickerRow = categoryRow;
    const QRect below = resting.translated(0, size.height());
    m_pickerContainer->setGeometry(below);
    m_picker->resize(size.width(), size.height()); // follows the container's width only
    shrink();
    m_showingPicker = true;
    // Reachable by Tab only while it is up, and announced as it comes.
    m_picker->setFocusPolicy(Qt::StrongFocus);
    QAccessibleEvent shown(m_picker.data(), QAccessible::ObjectShow);
    QAccessible::updateAccessibility(&shown);
    zdSlide(m_pickerContainer, below, resting, ZDDevice::kNavigationTransitionDuration);
    m_table->scrollToRowAtIndexPath(categoryRow, ZDTableView::ScrollPosition::Middle, true);
}

void ZDFormKeyboardRoom::hidePicker(ZDIndexPath categoryRow)
{
    if (!m_showingPicker)
        return;
    if (m_table)
        m_table->deselectRowAtIndexPath(categoryRow, true);
    if (m_pickerContainer) {
        const QRect from = m_pickerContainer->geometry();
        zdSlide(m_pickerContainer, from, from.translated(0, from.height()),
                ZDDevice::kNavigationTransitionDuration);
    }
    m_showingPicker = false;
    if (m_picker) {
        const bool hadFocus = m_picker->hasFocus();
        m_picker->setFocusPolicy(Qt::NoFocus);
        if (hadFocus && m_table)
            if (QWidget *row = m_table->cellForRowAtIndexPath(categoryRow))
                row->setFocus(Qt::OtherFocusReason);
        QAccessibleEvent hidden(m_picker.data(), QAccessible::ObjectHide);
        QAccessible::updateAccessibility(&hidden);
    }
    unshrink();
}

void ZDFormKeyboardRoom::sizeFooter(bool splitKeyboard)
{
    if (!m_footer || !m_table || !m_view)
        return;
    const QRect frame = m_footer->geometry();
    const QPushButton *button = m_footer->termsButton();
    int height = int((button ? button->height() : 0) + kFooterPadding);
    // On a tablet the footer grows by the depth the keyboard's top edge reaches
    // into the view, so every row can still be scrolled above the keyboard.
    const ZDKeyboard &keyboard = ZDKeyboard::shared();
    if (ZDDevice::isTablet() && keyboard.isAutomaticKeyboardOnScreen() && !splitKeyboard) {
        const QRect keys = keyboard.keyboardFrameInWindow();
        if (keys.isValid()) {
            const QWidget *form = m_view;
            height += form->height() - form->mapFrom(form->window(), keys.topLeft()).y();
        }
    }
    m_footer->setFrameBypassDelegate(QRect(frame.x(), frame.y(), frame.width(), height), true);
    m_table->setTableFooterView(m_footer);
}

void ZDFormKeyboardRoom::keyboardDidShow()
{
    if (ZDDevice::isTablet())
        sizeFooter(false);
    else
        shrink();
}

void ZDFormKeyboardRoom::keyboardDidHide(bool splitKeyboard)
{
    if (ZDDevice::isTablet())
        sizeFooter(splitKeyboard);
    else if (!m_showingPicker)
        unshrink(); // the wheel still needs the room while it is up
}
