#pragma once

#include "core/zdglobal.h"

#include <QColor>
#include <QWidget>

class QLabel;
class QVariantAnimation;

// A row of a ZDTableView: a text label, in the value style also a detail label
// at the right, an optional checkmark, and the blue highlight of a selected row.
// Subclasses put their own widgets into the cell and lay them out in
// layoutContents(), keeping clear of contentRect()'s outside.
//
// A cell belongs to whoever made it; a table only shows it.
//
// Screen readers hear a row as: a panel around its text editor when it holds
// one (the editor speaks for itself), a radio-like choice when a row of its
// section carries a checkmark (checked while it carries one), a combo with the
// detail text as its value in the value style, and a button otherwise. The
// name is the text label followed by any other visible label (brackets
// dropped: "Standard, 286.1 MB"); setAccessibleName() replaces it. A row that
// does not take touches is announced unavailable, and a checkmark that comes
// or goes sends an accessibility state change. Under a right-to-left layout
// direction the labels and the checkmark are mirrored.
class ZD_EXPORT ZDTableViewCell : public QWidget
{
    Q_OBJECT

public:
    enum class Style { Default, Value1 };
    enum class Accessory { None, Checkmark };

    explicit ZDTableViewCell(Style style = Style::Default, QWidget *parent = nullptr);
    ~ZDTableViewCell() override;

    Style style() const { return m_style; }
    QLabel *textLabel() const { return m_textLabel; }
    // Null in the default style.
    QLabel *detailTextLabel() const { return m_detailLabel; }

    // The text label's colour when the row is not highlighted (black by
    // default; the palette's text colour under a dark application palette).
    QColor textColor() const { return m_textColor; }
    void setTextColor(const QColor &colour);

    Accessory accessoryType() const { return m_accessory; }
    void setAccessoryType(Accessory accessory);

    // The chosen row of a group of options (a quality, an access level) shows
    // a checkmark and its text in the table's blue; an unchosen one has no
    // accessory and black text. Setting it sets both, so a later
    // setTextColor() (a greyed-out option) or setAccessoryType() wins.
    bool isChosen() const { return m_chosen; }
    void setChosen(bool chosen);

    // A cell that does not take touches is skipped by the table's selection.
    bool isUserInteractionEnabled() const { return m_interactive; }
    void setUserInteractionEnabled(bool enabled) { m_interactive = enabled; }

    // A cell whose selection style is None never shows the blue highlight.
    bool showsSelection() const { return m_showsSelection; }
    void setShowsSelection(bool shows) { m_showsSelection = shows; }

    bool isHighlighted() const { return m_highlight > 0; }
    void setHighlighted(bool highlighted);
    // Fades the highlight out over `seconds`.
    void fadeHighlight(double seconds);

    // Set by the table: whether the cell is the first and the last of its group,
    // which rounds the highlight's corners.
    void setGroupPosition(bool first, bool last);

protected:
    // The area inside the cell's padding and left of its accessory.
    QRect contentRect() const;
    void paintEvent(QPaintEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void changeEvent(QEvent *event) override;
    virtual void highlightChanged(bool highlighted);
    // Places the labels (and a subclass's widgets) in contentRect(); runs when
    // the cell's size or its accessory changes.
    virtual void layoutContents();

private:
    void applyTextColors();
    void setHighlightLevel(qreal level);

    Style m_style;
    QLabel *m_textLabel = nullptr;
    QLabel *m_detailLabel = nullptr;
    QColor m_textColor = Qt::black;
    Accessory m_accessory = Accessory::None;
    bool m_chosen = false;
    bool m_interactive = true;
    bool m_showsSelection = true;
    qreal m_highlight = 0;
    bool m_first = true;
    bool m_last = true;
    QVariantAnimation *m_fade = nullptr;
};
