#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QList>
#include <QWidget>

#include <optional>

class QVariantAnimation;
class ZDPickerView;

// Answers what a picker wheel shows and hears what the user picks.
class ZD_EXPORT ZDPickerViewDelegate : public virtual ZDWeakTarget
{
public:
    virtual int numberOfComponentsInPickerView(ZDPickerView *pickerView) = 0;
    virtual int pickerViewNumberOfRowsInComponent(ZDPickerView *pickerView, int component) = 0;
    virtual qreal pickerViewRowHeightForComponent(ZDPickerView *pickerView, int component);
    // The title of a row; none leaves the row blank.
    virtual std::optional<QString> pickerViewTitleForRowForComponent(ZDPickerView *pickerView,
                                                                     int row, int component);
    // The user brought `row` under the selection indicator.
    virtual void pickerViewDidSelectRowInComponent(ZDPickerView *pickerView, int row,
                                                   int component);
};

// A wheel of rows in one or more components: the user drags a component (or
// turns the mouse wheel, or taps a row above or below the middle) and the row
// that settles under the selection indicator is selected.
//
// The wheel takes the keyboard focus (click or Tab): Up and Down turn the first
// component by one row, Page Up and Page Down by the rows the wheel shows at
// once, Home and End to the first and last row, and typing the start of a title
// turns to the next row whose title starts with what was typed (letters typed
// in quick succession add up, as in a list; one letter pressed again and again
// steps through the rows that start with it). Screen readers hear it as a combo
// whose value is the selected title and whose choices are the rows.
//
// Callback contract: pickerViewDidSelectRowInComponent() arrives once each time
// a user gesture (pointer or key) settles on a row, never for
// selectRowInComponent(); a key that would not move the wheel sends nothing.
class ZD_EXPORT ZDPickerView : public QWidget
{
    Q_OBJECT

public:
    explicit ZDPickerView(QWidget *parent = nullptr);
    ~ZDPickerView() override;

    // Not owned.
    void setDelegate(ZDPickerViewDelegate *delegate);
    void reloadAllComponents();

    bool showsSelectionIndicator() const { return m_showsIndicator; }
    void setShowsSelectionIndicator(bool shows);

    int numberOfComponents() const { return int(m_components.size()); }
    int numberOfRowsInComponent(int component) const;
    // 0 for a wheel never turned; -1 for a component without rows.
    int selectedRowInComponent(int component) const;
    void selectRowInComponent(int row, int component, bool animated);
    // The delegate's title for a row; empty when it has none.
    QString titleForRowInComponent(int row, int component) const;

protected:
    void paintEvent(QPaintEvent *event) override;
    void mousePressEvent(QMouseEvent *event) override;
    void mouseMoveEvent(QMouseEvent *event) override;
    void mouseReleaseEvent(QMouseEvent *event) override;
    void wheelEvent(QWheelEvent *event) override;
    void keyPressEvent(QKeyEvent *event) override;
    void focusInEvent(QFocusEvent *event) override;
    void focusOutEvent(QFocusEvent *event) override;

private:
    struct Component
    {
        int rows = 0;
        qreal rowHeight = 40;
        int selected = 0;
        qreal offset = 0; // scroll position in points; row r is centred at r * rowHeight
    };
    int componentAt(const QPoint &point) const;
    QRect componentRect(int component) const;
    void settle(int component, int row, bool notify);
    void announceValue();

    ZDWeakRef<ZDPickerViewDelegate> m_delegate;
    QList<Component> m_components;
    bool m_showsIndicator = false;
    int m_dragComponent = -1;
    qreal m_dragStartY = 0;
    qreal m_dragStartOffset = 0;
    bool m_dragMoved = false;
    QVariantAnimation *m_settle = nullptr;
    QString m_typed; // the start of a title typed so far
    qint64 m_typedAt = 0;
};
