#pragma once

#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"
#include "host/EditableTextCell.h"
#include "publish/ZDCategory.h"
#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDPickerView.h"
#include "toolkit/ZDTableView.h"
#include "toolkit/ZDViewController.h"

#include <QPixmap>
#include <QPointer>
#include <QUrl>

#include <array>
#include <memory>
#include <optional>
#include <vector>

class QLabel;
class ZDAuthenticator;
class ZDFooterContainerView;
class ZDFormKeyboardRoom;
class ZDPublishViewController;
struct ZDNotification;

// Hears that the user published or cancelled. The form does not hold its
// delegate. The delegate may destroy the form (and its navigation controller)
// from inside either message; the form touches nothing of itself afterwards.
class ZD_EXPORT ZDPublishViewControllerDelegate : public virtual ZDWeakTarget
{
public:
    virtual void publishViewControllerPublished(ZDPublishViewController *controller) = 0;
    virtual void publishViewControllerCancelled(ZDPublishViewController *controller) = 0;
};

// The table section of each part of the form; -1 where the part is absent.
struct ZD_EXPORT ZDSectionIndices
{
    qintptr title = -1;
    qintptr hd = -1;
    qintptr tags = -1;
    qintptr category = -1;
    qintptr access = -1;
    qintptr account = -1;
    friend bool operator==(const ZDSectionIndices &, const ZDSectionIndices &) = default;
};

using ZDCellList = std::vector<std::shared_ptr<ZDTableViewCell>>;

// A byte count for the form's 32-bit sizes: as it is where it fits, else the
// nearest 32-bit value (2,147,483,647 for anything of 2 GiB or more), never a
// wrapped one.
ZD_EXPORT qint32 ZDSaturatedSize(qint64 bytes);

// The description row's height for its text's content height: 20 points more
// than the text, never below 120. Heights are single precision.
ZD_EXPORT float ZDDescriptionRowHeight(float contentHeight);
// Whether the row moves from `current` to `target`: only by more than 5 points,
// so small changes do not lay out the table on every keystroke.
ZD_EXPORT bool ZDDescriptionRowShouldResize(float current, float target);

// The screen on which the user describes a video before it is published: title,
// description, tags, an optional quality choice, an optional category, the
// service's access rows and the account row. A service subclasses it and
// supplies its authenticator, terms of use, logo, categories, access rows,
// account alert and parameter check.
//
// Make a form with ZDPublishViewController::create<YourForm>(...): the form
// asks its subclass for the authenticator as soon as it is made, which C++
// allows only once the subclass is constructed. (A form made with a plain
// constructor finishes the same steps when its view is first loaded.)
//
// The publish button is enabled exactly while the authenticator is signed in
// (state 2). When the form appears signed out it loads stored credentials and,
// if still signed out, shows the authenticator's sign-in dialog. A failed
// sign-in shows an alert and then the dialog again; cancelling the dialog or
// signing out through the account alert cancels the form. Once signed in, the
// title field takes the keyboard focus unless the user has already put it on
// a row of the form, so that typing starts with the title and the first Tab
// goes on to the description.
class ZD_EXPORT ZDPublishViewController : public ZDViewController,
                                          public ZDTableViewDataSource,
                                          public ZDTableViewDelegate,
                                          public ZDAlertViewDelegate,
                                          public ZDPickerViewDelegate,
                                          public EditableTextCellDelegate
{
    Q_OBJECT

public:
    template <class Form, class... Args> static std::unique_ptr<Form> create(Args &&...args)
    {
        auto form = std::make_unique<Form>(std::forward<Args>(args)...);
        form->_finishConstruction();
        return form;
    }

    explicit ZDPublishViewController(QObject *parent = nullptr);
    ~ZDPublishViewController() override;

    ZDPublishViewControllerDelegate *delegate() const { return m_delegate.get(); }
    // Not owned.
    void setDelegate(ZDPublishViewControllerDelegate *delegate) { m_delegate = delegate; }

    bool showHDSection() const { return m_showHDSection; }
    // Read once, when the view is built.
    void setShowHDSection(bool show) { m_showHDSection = show; }
    bool enableHDSection() const { return m_enableHDSection; }
    void setEnableHDSection(bool enable) { m_enableHDSection = enable; }
    // The estimated upload sizes in bytes that the quality rows show. They are
    // 32-bit: a larger size is given as ZDSaturatedSize(bytes), which stops at
    // 2,147,483,647 instead of wrapping, and a row whose size is exactly that
    // shows it as a least ("2.1 GB or more", in the decimal units of
    // FileSizeFormatter), since the true size is not known.
    // Read when the rows are shown.
    qint32 SDSize() const { return m_SDSize; }
    void setSDSize(qint32 size) { m_SDSize = size; }
    qint32 HDSize() const { return m_HDSize; }
    void setHDSize(qint32 size) { m_HDSize = size; }
    // 0 standard, 1 high definition; changed only by tapping a quality row.
    qint32 selectedOption() const { return m_selectedOption; }

    QString videoTitle() const;
    QString videoDescription() const;
    QStringList videoTags() const;
    std::optional<ZDCategory> videoCategory();

    // --- what a service subclass supplies --------------------------------------
    // Abstract (the base stops the program): the service's authenticator.
    virtual ZDAuthenticator *authenticator();
    // Abstract: the text under the account section.
    virtual QString termsOfUseString();
    // Abstract: where the terms button leads.
    virtual QUrl termsOfUseURL();
    // The logo above the first section; none in the base.
    virtual QPixmap headerLogo();
    // The categories in wheel order; none (no category section) in the base.
    virtual std::optional<QList<ZDCategory>> categories();
    // The access rows; none (no access section) in the base. An empty list
    // makes an empty section.
    virtual std::optional<ZDCellList> accessCells();
    // The alert offered when the signed-in account row is tapped: a cancel and a
    // sign-out button. The caller shows it; it deletes itself once dismissed.
    virtual ZDAlertView *accountAlert();
    // Whether the form may be published; an override warns the user and answers
    // false. The base answers true.
    virtual bool checkParametersAndWarn();

    // Shows an alert with one "OK" button.
    void showAlertWithTitleMessage(const QString &title, const QString &message);

    // Drops the keyboard focus of the form's window and removes the keyboard room.
    void resignResponder();
    // Drops the keyboard focus and sends the keyboard away.
    void orderOutKeyboard();

    // --- what the form answers as its table's source and delegate ---------------
    int numberOfSectionsInTableView(ZDTableView *tableView) override;
    int tableViewNumberOfRowsInSection(ZDTableView *tableView, int section) override;
    ZDTableViewCell *tableViewCellForRowAtIndexPath(ZDTableView *tableView,
                                                    ZDIndexPath indexPath) override;
    QString tableViewTitleForFooterInSection(ZDTableView *tableView, int section) override;
    // The tag rows are one list, "Tags", for assistive technology.
    QString tableViewAccessibleListNameForSection(ZDTableView *tableView, int section) override;
    qreal tableViewHeightForRowAtIndexPath(ZDTableView *tableView, ZDIndexPath indexPath) override;
    qreal tableViewHeightForHeaderInSection(ZDTableView *tableView, int section) override;
    QWidget *tableViewViewForHeaderInSection(ZDTableView *tableView, int section) override;
    void tableViewDidSelectRowAtIndexPath(ZDTableView *tableView, ZDIndexPath indexPath) override;
    void scrollViewWillBeginDragging(ZDTableView *tableView) override;

    void alertViewWillDismissWithButtonIndex(ZDAlertView *alertView, int buttonIndex) override;

    // --- the category wheel -----------------------------------------------------------
    int numberOfComponentsInPickerView(ZDPickerView *pickerView) override;
    int pickerViewNumberOfRowsInComponent(ZDPickerView *pickerView, int component) override;
    qreal pickerViewRowHeightForComponent(ZDPickerView *pickerView, int component) override;
    std::optional<QString> pickerViewTitleForRowForComponent(ZDPickerView *pickerView, int row,
                                                             int component) override;
    void pickerViewDidSelectRowInComponent(ZDPickerView *pickerView, int row,
                                           int component) override;

    // --- editing: the cells' callbacks --------------------------------------------
    // Typing into a tag row adds a blank row when no other exists; emptying one
    // takes away another blank row; the description row grows with its text.
    void textCellTextChanged(EditableTextCell *cell, const QString &text) override;
    // Selects the edited row and scrolls it to the middle.
    void textCellDidBeginEditing(EditableTextCell *cell) override;
    // Return in the title moves to the description.
    void textCellReturnPressed(EditableTextCell *cell) override;
    // The end-of-tag character moves to the blank tag row.
    void tagCellEndOfTagCharacterPressed(EditableTagCell *cell) override;

    void viewWillAppear(bool animated) override;
    void viewDidAppear(bool animated) override;

    // For hosts and tests: the form's table and the alerts it shows.
    ZDTableView *tableView() const { return m_tableView; }
    ZDSectionIndices sectionIndices() const { return m_sectionIndices; }
    ZDAlertView *authenticationAlert() const { return m_authenticationAlert; }
    ZDAlertView *shownAccountAlert() const { return m_accountAlert; }
    ZDAlertView *authenticationFailedAlert() const { return m_authenticationFailedAlert; }
    ZDPickerView *picker() const;
    QWidget *pickerContainer() const;
    bool isShowingPicker() const;
    // The table is shortened for the keyboard or the category wheel.
    bool isViewShrunk() const;
    // The index of the chosen access row (the first one until the user taps
    // another); meaningless while the service supplies no access rows.
    quintptr accessRow() const { return m_accessRow; }

    void _finishConstruction();

protected:
    QWidget *loadView() override;
    void viewDidUnload() override;

public:
    void didReceiveMemoryWarning() override;

protected:
    void _publish();
    void _cancel();
    bool _isAuthenticated();
    void _updatePublishButton();
    void _updateAccountCell();
    QString accountString();
    void authReturnKeyPressed();
    void _authenticatorStateChanged(const ZDNotification &notification);
    void _authenticatorFailed(const ZDNotification &notification);
    void _focusTitleUnlessARowHasIt();
    void _showAuthenticationDialog();
    void _addNewTagCell();
    qint32 _indexOfBlankTagCellOtherThan(const EditableTagCell *other) const;
    void _showPicker();
    void _hidePicker();
    void _shrinkView();
    void _unshrinkView();
    void _footerFrameDidChangeWithSplitKeyboard(bool splitKeyboard);
    void _automaticKeyboardDidShow(const ZDNotification &notification);
    void _automaticKeyboardDidHide(const ZDNotification &notification);
    void _termsButtonPressed();

    // The form's fields; a service subclass may read them.
    QPointer<ZDTableView> m_tableView;
    std::unique_ptr<QLabel> m_headerImageView;
    std::unique_ptr<EditableTextCell> m_titleCell;
    std::unique_ptr<EditableTextCell> m_descriptionCell;
    qreal m_descriptionHeight = 0;
    std::array<std::unique_ptr<EditableTextCell>, 2> m_optionCells;
    std::vector<std::unique_ptr<EditableTagCell>> m_tagCells;
    std::unique_ptr<ZDCategoryCell> m_categoryCell;
    std::optional<ZDCellList> m_accessCells;
    quintptr m_accessRow = 0;
    std::unique_ptr<ZDTableViewCell> m_accountCell;
    std::unique_ptr<ZDFooterContainerView> m_footerContainer;
    QPointer<ZDAlertView> m_authenticationAlert;
    QPointer<ZDAlertView> m_accountAlert;
    QPointer<ZDAlertView> m_authenticationFailedAlert;
    ZDSectionIndices m_sectionIndices;
    bool m_showHDSection = false;
    bool m_enableHDSection = false;
    qint32 m_SDSize = 0;
    qint32 m_HDSize = 0;
    qint32 m_selectedOption = 0;
    ZDWeakRef<ZDPublishViewControllerDelegate> m_delegate;

private:
    void prepareOptionCell(int row);
    bool m_constructed = false;
    // The keyboard's and the wheel's room at the foot of the view; it owns the
    // wheel, which outlives view unloads.
    std::unique_ptr<ZDFormKeyboardRoom> m_room;
};
