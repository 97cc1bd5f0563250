#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"
#include "toolkit/ZDTableViewCell.h"

#include <QSizeF>

class EditableTagCell;
class EditableTextCell;
class QLabel;
class QLineEdit;
class QTextEdit;

// What an editable cell tells its delegate.
class ZD_EXPORT EditableTextCellDelegate : public virtual ZDWeakTarget
{
public:
    virtual void textCellDidBeginEditing(EditableTextCell *cell);
    virtual void textCellReturnPressed(EditableTextCell *cell);
    virtual void textCellTextChanged(EditableTextCell *cell, const QString &text);
    virtual void tagCellEndOfTagCharacterPressed(EditableTagCell *cell);
};

// The host's editable row: one line (a title) or several (a description), with
// a placeholder shown while it is empty. Its quality-option form instead shows
// a main label at the left and a size label at the right.
//
// Callback contract: the delegate (not owned) hears textCellDidBeginEditing()
// when the cell takes the keyboard focus, textCellTextChanged() after every
// change the user makes (not after setTextValue()), and, in a single-line cell,
// textCellReturnPressed() for the return key.
class ZD_EXPORT EditableTextCell : public ZDTableViewCell
{
    Q_OBJECT

public:
    struct QualityOptionCellTag
    {};
    static constexpr QualityOptionCellTag QualityOptionCell{};

    EditableTextCell(const QRect &frame, bool multiLine, QWidget *parent = nullptr);
    // The quality-option form.
    explicit EditableTextCell(QualityOptionCellTag, QWidget *parent = nullptr);
    ~EditableTextCell() override;

    bool isMultiLine() const { return m_multiLine; }
    bool isQualityOptionCell() const { return m_sizeLabel != nullptr; }

    EditableTextCellDelegate *delegate() const { return m_delegate.get(); }
    void setDelegate(EditableTextCellDelegate *delegate) { m_delegate = delegate; }

    QString placeholder() const;
    void setPlaceholder(const QString &placeholder);

    QString textValue() const;
    void setTextValue(const QString &text);

    // Takes the keyboard focus.
    void becomeFirstResponder();
    bool isFirstResponder() const;
    void resignFirstResponder();

    // The size the text needs at the cell's width.
    QSizeF contentSize() const;

    // While on, the cell takes the focus back when the table moves it around.
    bool keepsFocus() const { return m_keepsFocus; }
    void setKeepsFocus(bool keep) { m_keepsFocus = keep; }

    // The quality-option form's labels (null otherwise).
    QLabel *mainLabel() const { return isQualityOptionCell() ? textLabel() : nullptr; }
    QLabel *sizeLabel() const { return m_sizeLabel; }

    // The editor widget (for hosts and tests).
    QWidget *editor() const;

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void resizeEvent(QResizeEvent *event) override;
    void layoutContents() override;
    // Called for every key typed into the editor before it is inserted; return
    // true to swallow it.
    virtual bool interceptKey(QKeyEvent *event);

private:
    void userChangedText();

    bool m_multiLine = false;
    bool m_keepsFocus = false;
    bool m_settingText = false;
    ZDWeakRef<EditableTextCellDelegate> m_delegate;
    QLineEdit *m_line = nullptr;
    QTextEdit *m_text = nullptr;
    QLabel *m_placeholder = nullptr; // the multi-line editor's placeholder
    QLabel *m_sizeLabel = nullptr;
};

// One tag: a single-line editable cell that reports its end-of-tag character
// (",") instead of inserting it.
class ZD_EXPORT EditableTagCell : public EditableTextCell
{
    Q_OBJECT

public:
    explicit EditableTagCell(const QRect &frame, QWidget *parent = nullptr);
    static constexpr QChar kEndOfTagCharacter = u',';

protected:
    bool interceptKey(QKeyEvent *event) override;
};
