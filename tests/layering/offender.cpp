// A file of the toolkit layer, which may use core and resources but nothing of
// publishing. Built as it should be (the control), with an include of a publish
// header, and with a call into publish that declares what it calls by hand.

#include "core/ZDError.h"
#include "resources/ZDLocalizedString.h"
#ifdef ZD_CASE_FORBIDDEN_INCLUDE
#include "publish/ZDCategory.h"
#endif

#include <QString>
#include <QVariant>

#ifdef ZD_CASE_FORBIDDEN_CALL
class ZDCategory
{
public:
    static ZDCategory categoryWithDisplayNameValue(const QString &displayName,
                                                   const QVariant &value);
    QString displayName;
    QVariant value;
};
#endif

QString offenderText();
QString offenderText()
{
#ifdef ZD_CASE_FORBIDDEN_CALL
    return ZDCategory::categoryWithDisplayNameValue(QStringLiteral("name"), 1).displayName;
#else
    return ZDLocalizedString(QStringLiteral("Cancel"));
#endif
}
