#pragma once

#include "toolkit/ZDTableView.h"

#include <QPointer>
#include <QRect>

#include <functional>
#include <optional>

class QWidget;
class ZDFooterContainerView;
class ZDPickerView;
class ZDPickerViewDelegate;

// The room the form keeps at the foot of its view for the on-screen keyboard
// and the category wheel, so that the rows they cover can still be scrolled
// above them.
//
// On a phone the keyboard and the wheel stand in the same place, the
// keyboard's default height: while either is up the table is "shrunk", its
// bottom inset as deep as the keyboard. The keyboard going away leaves the
// room while the wheel still needs it.
//
// On a tablet the keyboard's room is a taller table footer, as deep as the
// keyboard's top edge reaches into the view (unless the keyboard is split);
// only the wheel, a fixed 216 points high, shrinks the table.
//
// Shrinking twice does not stack; unshrinking an unshrunk table is harmless.
// The wheel and its container are made on first show and outlive an unloaded
// view; the room deletes them when it goes.
class ZDFormKeyboardRoom
{
public:
    // `pickerDelegate` (not owned) answers the wheel. `editedRowToKeep`
    // answers the row that a shrink scrolls to the middle (the form's first
    // tag row while it is being edited), or none.
    ZDFormKeyboardRoom(ZDPickerViewDelegate *pickerDelegate,
                       std::function<std::optional<ZDIndexPath>()> editedRowToKeep);
    ~ZDFormKeyboardRoom();
    ZDFormKeyboardRoom(const ZDFormKeyboardRoom &) = delete;
    ZDFormKeyboardRoom &operator=(const ZDFormKeyboardRoom &) = delete;

    // A newly loaded view: `view` carries `table`, whose footer is `footer`
    // (none owned). A wheel kept from before an unload moves into the view.
    void attach(QWidget *view, ZDTableView *table, ZDFooterContainerView *footer);
    // The view is about to be unloaded: the wheel leaves it, hidden, to be
    // brought back by the next attach().
    void keepWheelThroughUnload();

    bool isShrunk() const { return m_shrunk; }
    bool isShowingPicker() const { return m_showingPicker; }
    ZDPickerView *picker() const { return m_picker; }
    QWidget *pickerContainer() const { return m_pickerContainer; }

    // Sets the table's bottom inset to the room's depth.
    void shrink();
    // Gives the room back to the table.
    void unshrink();

    // Slides the wheel up (making it on first use, or bringing back the one
    // kept through an unload), shrinks the table and scrolls `categoryRow` to
    // the middle. Nothing more while it is up. Return or Enter on the focused
    // wheel puts it away as Escape does, keeping the category it shows.
    void showPicker(ZDIndexPath categoryRow);
    // Deselects `categoryRow`, slides the wheel away and unshrinks.
    void hidePicker(ZDIndexPath categoryRow);

    // Sizes the table's footer: the terms button plus padding, and on a
    // tablet whose whole keyboard is up, the keyboard's depth into the view.
    void sizeFooter(bool splitKeyboard);

    void keyboardDidShow();
    // `splitKeyboard` only matters on a tablet.
    void keyboardDidHide(bool splitKeyboard);

private:
    ZDPickerViewDelegate *m_pickerDelegate;
    std::function<std::optional<ZDIndexPath>()> m_editedRowToKeep;
    QPointer<QWidget> m_view;
    QPointer<ZDTableView> m_table;
    QPointer<ZDFooterContainerView> m_footer;
    QPointer<ZDPickerView> m_picker;
    QPointer<QWidget> m_pickerContainer;
    bool m_shrunk = false;
    bool m_showingPicker = false;
    // The row the wheel was shown for, which Return and Enter put it away from.
    ZDIndexPath m_pickerRow{};
};
