#pragma once

#include "core/zdglobal.h"
#include "toolkit/ZDTableViewCell.h"

#include <QString>
#include <QVariant>

// One category a service offers for a video: the name shown to the user and
// the service's own value, opaque to the library.
class ZD_EXPORT ZDCategory
{
public:
    ZDCategory() = default;
    static ZDCategory categoryWithDisplayNameValue(const QString &displayName,
                                                   const QVariant &value);

    QString displayName() const { return m_displayName; }
    void setDisplayName(const QString &name) { m_displayName = name; }
    QVariant value() const { return m_value; }
    void setValue(const QVariant &value) { m_value = value; }

private:
    QString m_displayName;
    QVariant m_value;
};

// The category row: the title at the left, the chosen category's name at the
// right.
class ZD_EXPORT ZDCategoryCell : public ZDTableViewCell
{
    Q_OBJECT

public:
    explicit ZDCategoryCell(QWidget *parent = nullptr);
    void setCategoryString(const QString &name);
};
