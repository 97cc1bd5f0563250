#include "toolkit/ZDAccessible_p.h"

#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDPickerView.h"
#include "toolkit/ZDTableView.h"
#include "toolkit/ZDTableViewCell.h"

#include <QAccessibleWidget>
#include <QHash>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QPointer>
#include <QTextEdit>

namespace {

ZDTableView *tableOf(const QWidget *cell)
{
    for (QWidget *w = cell ? cell->parentWidget() : nullptr; w; w = w->parentWidget()) {
        if (auto *table = qobject_cast<ZDTableView *>(w))
            return table;
    }
    return nullptr;
}

bool isEditor(const QObject *object)
{
    return qobject_cast<const QLineEdit *>(object) || qobject_cast<const QTextEdit *>(object) ||
           qobject_cast<const QPlainTextEdit *>(object);
}

bool hasEditor(const QWidget *cell)
{
    for (const QObject *child : cell->children()) {
        if (isEditor(child))
            return true;
    }
    return false;
}

// The interface of the widget at `index` in `widgets`; null outside the list.
template <typename Widget>
QAccessibleInterface *interfaceAt(const QList<Widget *> &widgets, int index)
{
    return index >= 0 && index < widgets.size()
               ? QAccessible::queryAccessibleInterface(widgets[index])
               : nullptr;
}

QAccessibleInterface *sectionListOf(ZDTableView *table, int section);

// The section of a row that is one item of a list section.
std::optional<int> listSectionOf(const ZDTableViewCell *cell, ZDTableView **tableOut = nullptr)
{
    ZDTableView *table = tableOf(cell);
    const auto indexPath = table ? table->indexPathForCell(cell) : std::nullopt;
    if (!indexPath || table->accessibleListNameForSection(indexPath->section).isEmpty())
        return std::nullopt;
    if (tableOut)
        *tableOut = table;
    return indexPath->section;
}

// A row: an item of its section's list when the section is one, a text field's
// frame when it holds an editor, a radio-like choice in a
// section whose rows carry checkmarks, a value row (combo) when it has a detail
// label, a button otherwise. Its labels fold into its name and value; only the
// editors stay children of their own.
class AccessibleRow : public QAccessibleWidget
{
public:
    explicit AccessibleRow(ZDTableViewCell *cell) : QAccessibleWidget(cell, QAccessible::Row) {}

    ZDTableViewCell *cell() const { return static_cast<ZDTableViewCell *>(object()); }

    QAccessible::Role role() const override
    {
        const QVariant chosen = cell()->property(zdaccessible::kRoleProperty);
        if (chosen.isValid())
            return QAccessible::Role(chosen.toInt());
        if (listSectionOf(cell()))
            return QAccessible::ListItem;
        if (hasEditor(cell()))
            return QAccessible::Grouping;
        if (isChoice())
            return QAccessible::RadioButton;
        if (cell()->detailTextLabel())
            return QAccessible::ComboBox;
        return QAccessible::Button;
    }

    QString text(QAccessible::Text t) const override
    {
        switch (t) {
        case QAccessible::Name: {
            if (!cell()->accessibleName().isEmpty())
                return cell()->accessibleName();
            const QString label = cell()->textLabel()->text().trimmed();
            const QString value = valueText();
            // An item that is a text field is called by its text, or by what
            // its empty field asks for.
            if (label.isEmpty() && value.isEmpty() && role() == QAccessible::ListItem) {
                if (const auto *line = firstLineEdit())
                    return line->text().isEmpty() ? line->placeholderText() : line->text();
            }
            // A combo says its value on its own; other roles say it with the name.
            if (role() == QAccessible::ComboBox || value.isEmpty())
                return label;
            return label.isEmpty() ? value : label + u", " + value;
        }
        case QAccessible::Value:
            return role() == QAccessible::ComboBox ? valueText() : QString();
        case QAccessible::Description:
            return cell()->accessibleDescription();
        default:
            return QAccessibleWidget::text(t);
        }
    }

    QAccessible::State state() const override
    {
        QAccessible::State s = QAccessibleWidget::state();
        if (!cell()->isUserInteractionEnabled())
            s.disabled = true;
        if (role() == QAccessible::RadioButton) {
            s.checkable = true;
            s.checked = cell()->accessoryType() == ZDTableViewCell::Accessory::Checkmark;
        }
        if (cell()->isHighlighted())
            s.selected = true;
        return s;
    }

    // An item of a list section is a child of its list.
    QAccessibleInterface *parent() const override
    {
        ZDTableView *table = nullptr;
        if (const auto section = listSectionOf(cell(), &table)) {
            if (QAccessibleInterface *list = sectionListOf(table, *section))
                return list;
        }
        return QAccessibleWidget::parent();
    }

    int childCount() const override { return int(editors().size()); }
    QAccessibleInterface *child(int index) const override { return interfaceAt(editors(), index); }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        return child ? int(editors().indexOf(child->object())) : -1;
    }

    QStringList actionNames() const override
    {
        if (!cell()->isUserInteractionEnabled() || hasEditor(cell()))
            return QAccessibleWidget::actionNames();
        return QStringList{pressAction()} + QAccessibleWidget::actionNames();
    }
    void doAction(const QString &name) override
    {
        if (name != pressAction()) {
            QAccessibleWidget::doAction(name);
            return;
        }
        ZDTableView *table = tableOf(cell());
        if (const auto indexPath = table ? table->indexPathForCell(cell()) : std::nullopt)
            table->activateRowAtIndexPath(*indexPath);
    }

private:
    // The visible labels other than the main one: a detail or size label.
    QString valueText() const
    {
        QStringList parts;
        for (QObject *child : cell()->children()) {
            auto *label = qobject_cast<QLabel *>(child);
            if (!label || label == cell()->textLabel() || label->isHidden())
                continue;
            const QString spoken = zdaccessible::spokenText(label->text());
            if (!spoken.isEmpty())
                parts << spoken;
        }
        return parts.join(u", ");
    }

    bool isChoice() const
    {
        ZDTableView *table = tableOf(cell());
        const auto indexPath = table ? table->indexPathForCell(cell()) : std::nullopt;
        if (!indexPath)
            return cell()->accessoryType() == ZDTableViewCell::Accessory::Checkmark;
        for (int r = 0; r < table->numberOfRowsInSection(indexPath->section); ++r) {
            const ZDTableViewCell *other = table->cellForRowAtIndexPath({indexPath->section, r});
            if (other && other->accessoryType() == ZDTableViewCell::Accessory::Checkmark)
                return true;
        }
        return false;
    }

    const QLineEdit *firstLineEdit() const
    {
        for (const QWidget *editor : editors()) {
            if (const auto *line = qobject_cast<const QLineEdit *>(editor))
                return line;
        }
        return nullptr;
    }

    QList<QWidget *> editors() const
    {
        QList<QWidget *> list;
        for (QObject *child : cell()->children()) {
            if (isEditor(child) && static_cast<QWidget *>(child)->isVisibleTo(cell()))
                list << static_cast<QWidget *>(child);
        }
        return list;
    }
};

// A part of a table's content that has no widget of its own: a section's list
// of rows, or a section's footer text.
class AccessibleSectionPart : public QAccessibleInterface
{
public:
    enum class Kind { List, FooterText };

    AccessibleSectionPart(ZDTableView *table, Kind kind, int section)
        : m_table(table), m_kind(kind), m_section(section)
    {}

    bool isValid() const override
    {
        if (!m_table || m_section >= m_table->numberOfSections())
            return false;
        return m_kind == Kind::List ? !m_table->accessibleListNameForSection(m_section).isEmpty()
                                    : !m_table->footerTitleForSection(m_section).isEmpty();
    }
    QObject *object() const override { return nullptr; }
    QWindow *window() const override { return parent() ? parent()->window() : nullptr; }
    QAccessibleInterface *parent() const override
    {
        return m_table ? QAccessible::queryAccessibleInterface(m_table->contentWidget()) : nullptr;
    }

    int childCount() const override { return int(rows().size()); }
    QAccessibleInterface *child(int index) const override { return interfaceAt(rows(), index); }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        if (!child)
            return -1;
        return int(rows().indexOf(qobject_cast<ZDTableViewCell *>(child->object())));
    }
    QAccessibleInterface *childAt(int x, int y) const override
    {
        for (int i = 0; i < childCount(); ++i) {
            QAccessibleInterface *row = child(i);
            if (row && row->rect().contains(x, y))
                return row;
        }
        return nullptr;
    }

    QString text(QAccessible::Text t) const override
    {
        if (t != QAccessible::Name || !isValid())
            return QString();
        return m_kind == Kind::List ? m_table->accessibleListNameForSection(m_section)
                                    : m_table->footerTitleForSection(m_section);
    }
    void setText(QAccessible::Text, const QString &) override {}
    QRect rect() const override
    {
        if (!isValid())
            return QRect();
        QRect area;
        if (m_kind == Kind::FooterText) {
            area = m_table->rectForFooterInSection(m_section);
        } else {
            for (int r = 0; r < m_table->numberOfRowsInSection(m_section); ++r)
                area |= m_table->rectForRowAtIndexPath({m_section, r});
        }
        const QWidget *content = m_table->contentWidget();
        return QRect(content->mapToGlobal(area.topLeft()), area.size());
    }
    QAccessible::Role role() const override
    {
        return m_kind == Kind::List ? QAccessible::List : QAccessible::StaticText;
    }
    QAccessible::State state() const override
    {
        QAccessible::State s;
        if (!m_table || !m_table->contentWidget()->isVisible())
            s.invisible = true;
        if (m_kind == Kind::FooterText)
            s.readOnly = true;
        return s;
    }

private:
    QList<ZDTableViewCell *> rows() const
    {
        QList<ZDTableViewCell *> list;
        if (m_kind != Kind::List || !isValid())
            return list;
        for (int r = 0; r < m_table->numberOfRowsInSection(m_section); ++r) {
            if (ZDTableViewCell *cell = m_table->cellForRowAtIndexPath({m_section, r}))
                list << cell;
        }
        return list;
    }

    QPointer<ZDTableView> m_table;
    Kind m_kind;
    int m_section;
};

// The widget that carries a table's rows, presented in reading order: per
// section its header view, its rows or its list, and its footer text; then the
// table footer view. Rows on their way out (an animated deletion) are left out.
class AccessibleTableContent : public QAccessibleWidget
{
public:
    AccessibleTableContent(QWidget *content, ZDTableView *table)
        : QAccessibleWidget(content, QAccessible::Pane), m_table(table)
    {}
    ~AccessibleTableContent() override
    {
        for (QAccessible::Id id : std::as_const(m_parts))
            QAccessible::deleteAccessibleInterface(id);
    }

    QAccessibleInterface *part(AccessibleSectionPart::Kind kind, int section) const
    {
        const qint64 key = qint64(section) * 2 + (kind == AccessibleSectionPart::Kind::List);
        auto it = m_parts.constFind(key);
        if (it == m_parts.cend()) {
            auto *made = new AccessibleSectionPart(m_table, kind, section);
            it = m_parts.insert(key, QAccessible::registerAccessibleInterface(made));
        }
        return QAccessible::accessibleInterface(*it);
    }

    int childCount() const override { return int(children().size()); }
    QAccessibleInterface *child(int index) const override
    {
        const QList<QAccessibleInterface *> list = children();
        return index >= 0 && index < list.size() ? list[index] : nullptr;
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        return int(children().indexOf(const_cast<QAccessibleInterface *>(child)));
    }

private:
    QList<QAccessibleInterface *> children() const
    {
        QList<QAccessibleInterface *> list;
        if (!m_table)
            return list;
        const auto add = [&list](QObject *object) {
            if (QAccessibleInterface *iface = QAccessible::queryAccessibleInterface(object))
                list << iface;
        };
        for (int s = 0; s < m_table->numberOfSections(); ++s) {
            if (QWidget *header = m_table->headerViewForSection(s))
                add(header);
            if (!m_table->accessibleListNameForSection(s).isEmpty()) {
                list << part(AccessibleSectionPart::Kind::List, s);
            } else {
                for (int r = 0; r < m_table->numberOfRowsInSection(s); ++r) {
                    if (ZDTableViewCell *cell = m_table->cellForRowAtIndexPath({s, r}))
                        add(cell);
                }
            }
            if (!m_table->footerTitleForSection(s).isEmpty())
                list << part(AccessibleSectionPart::Kind::FooterText, s);
        }
        QWidget *footer = m_table->tableFooterView();
        if (footer && footer->parentWidget() == object())
            add(footer);
        return list;
    }

    QPointer<ZDTableView> m_table;
    mutable QHash<qint64, QAccessible::Id> m_parts;
};

QAccessibleInterface *sectionListOf(ZDTableView *table, int section)
{
    auto *content = dynamic_cast<AccessibleTableContent *>(
        QAccessible::queryAccessibleInterface(table->contentWidget()));
    return content ? content->part(AccessibleSectionPart::Kind::List, section) : nullptr;
}

// One row of a wheel, for a screen reader that lists a combo's choices.
class AccessibleChoice : public QAccessibleInterface
{
public:
    AccessibleChoice(ZDPickerView *wheel, int row) : m_wheel(wheel), m_row(row) {}

    bool isValid() const override { return m_wheel; }
    QObject *object() const override { return nullptr; }
    QWindow *window() const override { return parent() ? parent()->window() : nullptr; }
    QAccessibleInterface *parent() const override
    {
        return m_wheel ? QAccessible::queryAccessibleInterface(m_wheel.data()) : nullptr;
    }
    QAccessibleInterface *child(int) const override { return nullptr; }
    int childCount() const override { return 0; }
    int indexOfChild(const QAccessibleInterface *) const override { return -1; }
    QAccessibleInterface *childAt(int, int) const override { return nullptr; }
    QString text(QAccessible::Text t) const override
    {
        return t == QAccessible::Name && m_wheel ? m_wheel->titleForRowInComponent(m_row, 0)
                                                 : QString();
    }
    void setText(QAccessible::Text, const QString &) override {}
    QRect rect() const override { return QRect(); }
    QAccessible::Role role() const override { return QAccessible::ListItem; }
    QAccessible::State state() const override
    {
        QAccessible::State s;
        s.selectable = true;
        s.selected = m_wheel && m_wheel->selectedRowInComponent(0) == m_row;
        if (!s.selected)
            s.invisible = true;
        return s;
    }

private:
    QPointer<ZDPickerView> m_wheel;
    int m_row;
};

// The wheel of a picker with one component: a combo whose value is the title
// under the selection indicator and whose children are its choices; its value
// interface counts rows.
class AccessibleWheel : public QAccessibleWidget, public QAccessibleValueInterface
{
public:
    explicit AccessibleWheel(ZDPickerView *wheel) : QAccessibleWidget(wheel, QAccessible::ComboBox)
    {}
    ~AccessibleWheel() override
    {
        for (QAccessible::Id id : std::as_const(m_choices))
            QAccessible::deleteAccessibleInterface(id);
    }

    ZDPickerView *wheel() const { return static_cast<ZDPickerView *>(object()); }

    void *interface_cast(QAccessible::InterfaceType type) override
    {
        if (type == QAccessible::ValueInterface)
            return static_cast<QAccessibleValueInterface *>(this);
        return QAccessibleWidget::interface_cast(type);
    }

    QString text(QAccessible::Text t) const override
    {
        if (t == QAccessible::Value) {
            const int row = wheel()->selectedRowInComponent(0);
            return row < 0 ? QString() : wheel()->titleForRowInComponent(row, 0);
        }
        return QAccessibleWidget::text(t);
    }

    int childCount() const override { return wheel()->numberOfRowsInComponent(0); }
    QAccessibleInterface *child(int index) const override
    {
        if (index < 0 || index >= childCount())
            return nullptr;
        while (m_choices.size() <= index) {
            auto *choice = new AccessibleChoice(wheel(), int(m_choices.size()));
            m_choices.append(QAccessible::registerAccessibleInterface(choice));
        }
        return QAccessible::accessibleInterface(m_choices[index]);
    }
    int indexOfChild(const QAccessibleInterface *child) const override
    {
        for (qsizetype i = 0; i < m_choices.size(); ++i) {
            if (QAccessible::accessibleInterface(m_choices[i]) == child)
                return int(i);
        }
        return -1;
    }

    QVariant currentValue() const override { return wheel()->selectedRowInComponent(0); }
    void setCurrentValue(const QVariant &value) override
    {
        wheel()->selectRowInComponent(value.toInt(), 0, false);
    }
    QVariant maximumValue() const override
    {
        return std::max(0, wheel()->numberOfRowsInComponent(0) - 1);
    }
    QVariant minimumValue() const override { return 0; }
    QVariant minimumStepSize() const override { return 1; }

private:
    mutable QList<QAccessible::Id> m_choices;
};

// An alert is a dialog named by its title and described by its message.
class AccessibleAlert : public QAccessibleWidget
{
public:
    explicit AccessibleAlert(ZDAlertView *alert) : QAccessibleWidget(alert, QAccessible::Dialog) {}

    QString text(QAccessible::Text t) const override
    {
        const auto *alert = static_cast<ZDAlertView *>(object());
        if (t == QAccessible::Name)
            return alert->title();
        if (t == QAccessible::Description)
            return alert->message();
        return QAccessibleWidget::text(t);
    }
    QAccessible::State state() const override
    {
        QAccessible::State s = QAccessibleWidget::state();
        s.modal = true;
        return s;
    }
};

// A page keeps the roles of a plain widget inside a window, but a host may
// show it as its own top-level window (a sheet): then it is that window, with
// the host's title where the host set one.
class AccessiblePage : public QAccessibleWidget
{
public:
    using QAccessibleWidget::QAccessibleWidget;
    QAccessible::Role role() const override
    {
        return widget()->isWindow() ? QAccessible::Window : QAccessibleWidget::role();
    }
    QString text(QAccessible::Text t) const override
    {
        if (t == QAccessible::Name && widget()->isWindow() && !widget()->windowTitle().isEmpty())
            return widget()->windowTitle();
        return QAccessibleWidget::text(t);
    }
};

QAccessibleInterface *factory(const QString &, QObject *object)
{
    if (auto *widget = qobject_cast<QWidget *>(object)) {
        if (widget->property(zdaccessible::kPageProperty).toBool())
            return new AccessiblePage(widget);
        // A table's content widget sits in the table's viewport.
        QWidget *viewport = widget->parentWidget();
        auto *table = viewport ? qobject_cast<ZDTableView *>(viewport->parentWidget()) : nullptr;
        if (table && table->contentWidget() == widget)
            return new AccessibleTableContent(widget, table);
    }
    if (auto *cell = qobject_cast<ZDTableViewCell *>(object))
        return new AccessibleRow(cell);
    if (auto *wheel = qobject_cast<ZDPickerView *>(object))
        return new AccessibleWheel(wheel);
    if (auto *alert = qobject_cast<ZDAlertView *>(object))
        return new AccessibleAlert(alert);
    return nullptr;
}

} // namespace

namespace zdaccessible {

void install()
{
    static const bool installed = [] {
        QAccessible::installFactory(factory);
        return true;
    }();
    Q_UNUSED(installed);
}

void notify(QObject *object, QAccessible::Event event)
{
    if (!object)
        return;
    QAccessibleEvent e(object, event);
    QAccessible::updateAccessibility(&e);
}

QString spokenText(const QString &shown)
{
    QString text = shown.trimmed();
    if (text.size() >= 2 && text.front() == u'(' && text.back() == u')')
        text = text.mid(1, text.size() - 2).trimmed();
    return text;
}

} // namespace zdaccessible
