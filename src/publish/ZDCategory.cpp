#include "publish/ZDCategory.h"

#include <QLabel>

ZDCategory ZDCategory::categoryWithDisplayNameValue(const QString &displayName,
                                                    const QVariant &value)
{
    ZDCategory category;
    category.m_displayName = displayName;
    category.m_value = value;
    return category;
}

ZDCategoryCell::ZDCategoryCell(QWidget *parent) : ZDTableViewCell(Style::Value1, parent) {}

void ZDCategoryCell::setCategoryString(const QString &name)
{
    detailTextLabel()->setText(name);
    update();
}
