#include "host/EditableTextCell.h"

#include <QAbstractTextDocumentLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QTextDocument>
#include <QTextEdit>

namespace {

constexpr int kPadding = 10;
constexpr int kFontSize = 17;

QFont editorFont()
{
    QFont font(QStringLiteral("DejaVu Sans"));
    font.setPixelSize(kFontSize);
    return font;
}

} // namespace

void EditableTextCellDelegate::textCellDidBeginEditing(EditableTextCell *) {}
void EditableTextCellDelegate::textCellReturnPressed(EditableTextCell *) {}
void EditableTextCellDelegate::textCellTextChanged(EditableTextCell *, const QString &) {}
void EditableTextCellDelegate::tagCellEndOfTagCharacterPressed(EditableTagCell *) {}

EditableTextCell::EditableTextCell(const QRect &frame, bool multiLine, QWidget *parent)
    : ZDTableViewCell(Style::Default, parent), m_multiLine(multiLine)
{
    setGeometry(frame);
    setShowsSelection(false);
    textLabel()->hide();
    if (multiLine) {
        m_text = new QTextEdit(this);
        m_text->setFrameShape(QFrame::NoFrame);
        m_text->setFont(editorFont());
        m_text->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        m_text->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
        m_text->setAcceptRichText(false);
        m_text->setTabChangesFocus(true); // Tab moves on to the next row, as in a form
        m_text->viewport()->setAutoFillBackground(false);
        m_text->setStyleSheet(QStringLiteral("background: transparent;"));
        m_text->installEventFilter(this);
        m_placeholder = new QLabel(this);
        m_placeholder->setFont(editorFont());
        m_placeholder->setStyleSheet(QStringLiteral("color: #b3b3b3;"));
        m_placeholder->setAttribute(Qt::WA_TransparentForMouseEvents);
        connect(m_text, &QTextEdit::textChanged, this, &EditableTextCell::userChangedText);
    } else {
        m_line = new QLineEdit(this);
        m_line->setFrame(false);
        m_line->setFont(editorFont());
        m_line->setStyleSheet(QStringLiteral("background: transparent;"));
        m_line->installEventFilter(this);
        connect(m_line, &QLineEdit::textChanged, this, &EditableTextCell::userChangedText);
        connect(m_line, &QLineEdit::returnPressed, this, [this] {
            if (EditableTextCellDelegate *delegate = m_delegate.get())
                delegate->textCellReturnPressed(this);
        });
    }
}

EditableTextCell::EditableTextCell(QualityOptionCellTag, QWidget *parent)
    : ZDTableViewCell(Style::Default, parent)
{
    m_sizeLabel = new QLabel(this);
    m_sizeLabel->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    QFont font = editorFont();
    font.setPixelSize(15);
    m_sizeLabel->setFont(font);
    m_sizeLabel->setStyleSheet(QStringLiteral("color: #7f7f7f;"));
    m_sizeLabel->setAttribute(Qt::WA_TransparentForMouseEvents);
}

EditableTextCell::~EditableTextCell() = default;

QWidget *EditableTextCell::editor() const
{
    return m_line ? static_cast<QWidget *>(m_line) : m_text;
}

QString EditableTextCell::placeholder() const
{
    if (m_line)
        return m_line->placeholderText();
    return m_placeholder ? m_placeholder->text() : QString();
}

void EditableTextCell::setPlaceholder(const QString &placeholder)
{
    if (m_line)
        m_line->setPlaceholderText(placeholder);
    else if (m_placeholder)
        m_placeholder->setText(placeholder);
}

QString EditableTextCell::textValue() const
{
    if (m_line)
        return m_line->text();
    return m_text ? m_text->toPlainText() : QString();
}

void EditableTextCell::setTextValue(const QString &text)
{
    m_settingText = true;
    if (m_line)
        m_line->setText(text);
    else if (m_text)
        m_text->setPlainText(text);
    m_settingText = false;
    if (m_placeholder)
        m_placeholder->setVisible(text.isEmpty());
}

void EditableTextCell::userChangedText()
{
    const QString text = textValue();
    if (m_placeholder)
        m_placeholder->setVisible(text.isEmpty());
    if (m_settingText)
        return;
    if (EditableTextCellDelegate *delegate = m_delegate.get())
        delegate->textCellTextChanged(this, text);
}

void EditableTextCell::becomeFirstResponder()
{
    if (QWidget *widget = editor())
        widget->setFocus(Qt::OtherFocusReason);
}

bool EditableTextCell::isFirstResponder() const
{
    const QWidget *widget = editor();
    return widget && widget->hasFocus();
}

void EditableTextCell::resignFirstResponder()
{
    if (QWidget *widget = editor())
        widget->clearFocus();
}

QSizeF EditableTextCell::contentSize() const
{
    if (m_text)
        return m_text->document()->documentLayout()->documentSize();
    if (m_line)
        return QSizeF(m_line->fontMetrics().horizontalAdvance(m_line->text()),
                      m_line->fontMetrics().height());
    return QSizeF();
}

void EditableTextCell::resizeEvent(QResizeEvent *event)
{
    ZDTableViewCell::resizeEvent(event);
    const QRect area = rect().adjusted(kPadding, 0, -kPadding, 0);
    if (m_line)
        m_line->setGeometry(area);
    if (m_text) {
        m_text->setGeometry(rect().adjusted(kPadding - 4, 4, -kPadding + 4, -4));
        m_placeholder->setGeometry(area.adjusted(0, 8, 0, 0));
        m_placeholder->setAlignment(Qt::AlignLeft | Qt::AlignTop);
    }
}

void EditableTextCell::layoutContents()
{
    ZDTableViewCell::layoutContents();
    // The size text keeps clear of the checkmark.
    if (m_sizeLabel)
        m_sizeLabel->setGeometry(contentRect());
}

bool EditableTextCell::eventFilter(QObject *watched, QEvent *event)
{
    if (watched == editor()) {
        if (event->type() == QEvent::FocusIn) {
            if (EditableTextCellDelegate *delegate = m_delegate.get())
                delegate->textCellDidBeginEditing(this);
        } else if (event->type() == QEvent::FocusOut && m_keepsFocus) {
            // Keep the focus while the table moves this row around.
            QWidget *widget = editor();
            QMetaObject::invokeMethod(
                widget, [widget] { widget->setFocus(Qt::OtherFocusReason); }, Qt::QueuedConnection);
        } else if (event->type() == QEvent::KeyPress &&
                   interceptKey(static_cast<QKeyEvent *>(event))) {
            return true;
        }
    }
    return ZDTableViewCell::eventFilter(watched, event);
}

bool EditableTextCell::interceptKey(QKeyEvent *)
{
    return false;
}

EditableTagCell::EditableTagCell(const QRect &frame, QWidget *parent)
    : EditableTextCell(frame, false, parent)
{}

bool EditableTagCell::interceptKey(QKeyEvent *event)
{
    if (event->text() != QString(kEndOfTagCharacter))
        return false;
    if (auto *d = delegate())
        d->tagCellEndOfTagCharacterPressed(this);
    return true;
}
