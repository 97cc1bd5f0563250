#pragma once

#include <publish/ZDPublishViewController.h>

// Demo Video's publishing form: its logo, categories, three access rows, terms
// of use and account alert, and a title the service insists on.
class DemoPublishViewController : public ZDPublishViewController
{
    Q_OBJECT

public:
    ZDAuthenticator *authenticator() override;
    QString termsOfUseString() override;
    QUrl termsOfUseURL() override;
    QPixmap headerLogo() override;
    std::optional<QList<ZDCategory>> categories() override;
    std::optional<ZDCellList> accessCells() override;
    ZDAlertView *accountAlert() override;
    bool checkParametersAndWarn() override;

    // The service's value for the chosen access row: "public", "unlisted" or
    // "private".
    QString videoAccess() const;
    // The access values in row order.
    static QStringList accessValues();
};
