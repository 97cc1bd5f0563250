#pragma once

// Delegates the toolkit's tests share.

#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDPickerView.h"

#include <QLineEdit>
#include <QStringList>

// A wheel of one component whose rows are `names`; records the rows picked.
class NamedWheel : public ZDPickerViewDelegate
{
public:
    explicit NamedWheel(QStringList rowNames) : names(std::move(rowNames)) {}

    int numberOfComponentsInPickerView(ZDPickerView *) override { return 1; }
    int pickerViewNumberOfRowsInComponent(ZDPickerView *, int) override
    {
        return int(names.size());
    }
    std::optional<QString> pickerViewTitleForRowForComponent(ZDPickerView *, int row, int) override
    {
        return names.value(row);
    }
    void pickerViewDidSelectRowInComponent(ZDPickerView *, int row, int) override
    {
        picked.append(row);
    }

    QStringList names;
    QList<int> picked;
};

// Records which button dismissed an alert and what its first field held then.
class AlertRecorder : public ZDAlertViewDelegate
{
public:
    void alertViewWillDismissWithButtonIndex(ZDAlertView *alert, int index) override
    {
        dismissed.append(index);
        firstField = alert->textFieldAtIndex(0) ? alert->textFieldAtIndex(0)->text() : QString();
    }

    QList<int> dismissed;
    QString firstField;
};
