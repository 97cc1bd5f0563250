#pragma once

// A demo service's form, authenticator and delegate, and a sheet that shows the
// form in a navigation controller, for the form's tests.

#include "auth/ZDAuthenticator.h"
#include "host/EditableTextCell.h"
#include "publish/ZDFooterContainerView.h"
#include "publish/ZDPublishViewController.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDKeyboard.h"
#include "toolkit/ZDNavigationController.h"

#include "ToolkitFixtures.h"

#include <QApplication>
#include <QDir>
#include <QPainter>
#include <QPushButton>
#include <QTest>

using namespace Qt::StringLiterals;

inline QString L(const char *key)
{
    return ZDLocalizedString(QString::fromLatin1(key));
}

// A service's authenticator whose sign-in answers at once: "ann"/"secret" works.
class TestAuthenticator : public ZDAuthenticator
{
public:
    void authenticateWithUsernamePassword(const QString &username, const QString &password) override
    {
        attempts << username + u'/' + password;
        if (username == u"ann" && password == u"secret") {
            m_account = u"Ann"_s;
            m_authenticatorState = ZDAuthenticatorStateSignedIn;
            _notifyStateChange();
        } else {
            requestDidFailWithError(nullptr, ZDError(u"Test"_s, 1));
        }
    }
    void loadCredentials() override
    {
        ++loads;
        if (storedSignIn) {
            m_account = u"Stored"_s;
            m_authenticatorState = ZDAuthenticatorStateSignedIn;
        }
        ZDAuthenticator::loadCredentials();
    }
    ZDAlertView *authenticationDialogWithTargetAction(QObject *target,
                                                      std::function<void()> action) override
    {
        ++dialogs;
        auto *alert =
            new ZDAlertView(u"Sign In"_s, u"Demo service"_s, nullptr, u"Cancel"_s, {u"Sign In"_s});
        alert->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
        alert->setReturnKeyAction(target, std::move(action));
        return alert;
    }
    void setSignedIn(const QString &account)
    {
        m_account = account;
        m_authenticatorState = ZDAuthenticatorStateSignedIn;
        _notifyStateChange();
    }
    void setState(ZDAuthenticatorState state)
    {
        m_authenticatorState = state;
        _notifyStateChange();
    }

    QStringList attempts;
    int loads = 0;
    int dialogs = 0;
    bool storedSignIn = false;
};

struct FormOptions
{
    bool logo = true;
    bool categories = true;
    std::optional<int> accessRows = 2;
    bool showHD = true;
    qreal logoPixelRatio = 1; // 2 for a logo drawn for a high-density screen
};

class TestForm : public ZDPublishViewController
{
public:
    TestForm(TestAuthenticator *auth, FormOptions options) : m_auth(auth), m_options(options)
    {
        setShowHDSection(options.showHD);
    }

    ZDAuthenticator *authenticator() override { return m_auth; }
    QString termsOfUseString() override { return u"By publishing you accept the terms."_s; }
    QUrl termsOfUseURL() override { return QUrl(u"https://video.example/terms"_s); }
    QPixmap headerLogo() override
    {
        if (!m_options.logo)
            return QPixmap();
        QPixmap logo(QSize(120, 40) * m_options.logoPixelRatio);
        logo.setDevicePixelRatio(m_options.logoPixelRatio);
        logo.fill(QColor(0xcc, 0x22, 0x22));
        QPainter painter(&logo);
        painter.setPen(Qt::white);
        painter.drawText(QRect(0, 0, 120, 40), Qt::AlignCenter, u"DemoTube"_s);
        return logo;
    }
    std::optional<QList<ZDCategory>> categories() override
    {
        if (!m_options.categories)
            return std::nullopt;
        return QList<ZDCategory>{ZDCategory::categoryWithDisplayNameValue(u"Travel"_s, 19),
                                 ZDCategory::categoryWithDisplayNameValue(u"Music"_s, 10)};
    }
    std::optional<ZDCellList> accessCells() override
    {
        if (!m_options.accessRows)
            return std::nullopt;
        ZDCellList cells;
        const QStringList names{u"Public"_s, u"Unlisted"_s, u"Private"_s};
        for (int i = 0; i < *m_options.accessRows; ++i) {
            auto cell = std::make_shared<ZDTableViewCell>();
            cell->textLabel()->setText(names.value(i));
            cells.push_back(cell);
        }
        return cells;
    }
    ZDAlertView *accountAlert() override
    {
        return new ZDAlertView(u"Ann"_s, {}, nullptr, u"Cancel"_s, {u"Sign Out"_s});
    }
    bool checkParametersAndWarn() override { return allowPublish; }

    // Fields a service subclass may read.
    ZDTableViewCell *accessCell(size_t i) const { return (*m_accessCells)[i].get(); }
    EditableTextCell *optionCell(size_t i) const { return m_optionCells[i].get(); }
    EditableTextCell *titleCell() const { return m_titleCell.get(); }
    ZDTableViewCell *accountCell() const { return m_accountCell.get(); }
    qreal descriptionHeight() const { return m_descriptionHeight; }
    EditableTextCell *descriptionCell() const { return m_descriptionCell.get(); }
    size_t tagCount() const { return m_tagCells.size(); }
    EditableTagCell *tagCell(size_t i) const { return m_tagCells[i].get(); }
    using ZDPublishViewController::tagCellEndOfTagCharacterPressed;

    bool allowPublish = true;

private:
    TestAuthenticator *m_auth;
    FormOptions m_options;
};

class FormDelegate : public ZDPublishViewControllerDelegate
{
public:
    void publishViewControllerPublished(ZDPublishViewController *) override
    {
        events << u"published"_s;
        if (destroyOnMessage)
            destroyOnMessage();
    }
    void publishViewControllerCancelled(ZDPublishViewController *) override
    {
        events << u"cancelled"_s;
        if (destroyOnMessage)
            destroyOnMessage();
    }
    QStringList events;
    std::function<void()> destroyOnMessage;
};

inline ZDAlertView *visibleAlert(const QPointer<ZDAlertView> &alert)
{
    return alert && alert->isVisibleAlert() ? alert.data() : nullptr;
}

// Gives `cell` the focus and types `text` into it.
inline void typeInto(EditableTextCell *cell, const QString &text)
{
    cell->becomeFirstResponder();
    QTest::keyClicks(cell->editor(), text);
}

// A form in a navigation controller in a phone-sized window.
struct Sheet
{
    Sheet(TestAuthenticator *auth, FormOptions options = {}, QSize size = QSize(320, 480))
    {
        form = ZDPublishViewController::create<TestForm>(auth, options);
        form->setDelegate(&delegate);
        form->setSDSize(12 * 1024 * 1024);
        form->setHDSize(48 * 1024 * 1024);
        navigation = std::make_unique<ZDNavigationController>(form.get());
        window = navigation->view();
        window->resize(size);
    }
    ~Sheet()
    {
        navigation.reset();
        form.reset();
    }
    void show()
    {
        window->show();
        QVERIFY(QTest::qWaitForWindowExposed(window));
        QTest::qWait(50); // viewDidAppear runs on the next turn
    }
    ZDTableView *table() const { return form->tableView(); }
    void tap(ZDIndexPath ip)
    {
        const QRect row = table()->rectForRowAtIndexPath(ip);
        table()->scrollToRowAtIndexPath(ip, ZDTableView::ScrollPosition::Middle, false);
        QTest::mouseClick(table()->contentWidget(), Qt::LeftButton, {},
                          QPoint(row.left() + 4, row.center().y()));
    }
    // Drags the table's content by `dy` points from `start`, as a finger would.
    void drag(const QPoint &start, int dy) { dragBy(table()->contentWidget(), start, dy); }
    // The row `index` of the form's part `part`, e.g. row(&ZDSectionIndices::category).
    ZDIndexPath row(qintptr ZDSectionIndices::*part, int index = 0) const
    {
        return {int(form->sectionIndices().*part), index};
    }
    ZDTableViewCell *cell(ZDIndexPath ip) const { return table()->cellForRowAtIndexPath(ip); }
    ZDFooterContainerView *footer() const
    {
        return qobject_cast<ZDFooterContainerView *>(table()->tableFooterView());
    }
    void activate()
    {
        window->activateWindow();
        QVERIFY(QTest::qWaitForWindowActive(window));
    }
    // Waits for the category wheel to come to rest at the foot of the form.
    void waitForWheel() const
    {
        QTRY_COMPARE(form->pickerContainer()->geometry().bottom(), form->view()->height() - 1);
    }
    // Waits for the sign-in dialog and fills it in as Ann with `password`;
    // null if no dialog came, for the caller to check.
    ZDAlertView *fillSignIn(const QString &password)
    {
        // The lambda lets a failed wait return from it rather than from here.
        [this] { QTRY_VERIFY(visibleAlert(form->authenticationAlert())); }();
        ZDAlertView *dialog = form->authenticationAlert();
        if (dialog) {
            QTest::keyClicks(dialog->textFieldAtIndex(0), u"ann"_s);
            QTest::keyClicks(dialog->textFieldAtIndex(1), password);
        }
        return dialog;
    }
    QPushButton *publishButton() const { return navigation->rightButton(); }
    void save(const QString &name) const
    {
        const QString dir = qEnvironmentVariable("ZD_SCREENSHOT_DIR", QDir::tempPath());
        QDir().mkpath(dir);
        QVERIFY(window->grab().save(dir + u'/' + name));
    }

    FormDelegate delegate;
    std::unique_ptr<TestForm> form;
    std::unique_ptr<ZDNavigationController> navigation;
    QWidget *window = nullptr;
};

// Ann's signed-in authenticator, made before and kept after the sheet that uses it.
struct SignedInAuthenticator
{
    SignedInAuthenticator() { auth.setSignedIn(u"Ann"_s); }
    TestAuthenticator auth;
};

// A shown sheet whose authenticator is signed in.
struct SignedInSheet : SignedInAuthenticator, Sheet
{
    explicit SignedInSheet(FormOptions options = {}, QSize size = QSize(320, 480))
        : Sheet(&auth, options, size)
    {
        show();
    }
};

// The on-screen keyboard, for the length of a test.
struct KeyboardOn
{
    KeyboardOn() { ZDKeyboard::shared().setEnabled(true); }
    ~KeyboardOn()
    {
        ZDKeyboard::shared().orderOutAutomaticKeyboard();
        ZDKeyboard::shared().setEnabled(false);
    }
};
