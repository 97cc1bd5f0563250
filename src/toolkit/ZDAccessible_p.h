#pragma once

// How the toolkit's painted widgets speak to assistive technology: a factory
// that Qt asks for the accessible interface of rows, wheels and alerts, and the
// few events those widgets send on their own.

#include <QAccessible>
#include <QString>

class QWidget;

namespace zdaccessible {

// Installs the toolkit's accessibility factory once per process. Every widget
// of the toolkit that needs its own interface calls it from its constructor.
void install();

// Sends `event` for `object` to the accessibility bridge, if one listens.
void notify(QObject *object, QAccessible::Event event);

// The text of a row's labels as a screen reader should say it: without the
// brackets that a size label wears on screen.
QString spokenText(const QString &shown);

// A dynamic property (a QAccessible::Role as int) by which the owner of a row
// overrides the role guessed from the row's contents (see ZDTableViewCell).
constexpr char kRoleProperty[] = "zdAccessibleRole";

// A dynamic property (bool) that marks a page: a view named after its title
// (the navigation controller's). Shown as a window of its own, a page is
// announced as a window with the title its host gave the window.
constexpr char kPageProperty[] = "zdAccessiblePage";

} // namespace zdaccessible
