#include "publish/ZDPublishViewController.h"

#include "auth/ZDAuthenticator.h"
#include "core/ZDAssert.h"
#include "core/ZDNotificationCenter.h"
#include "host/FileSizeFormatter.h"
#include "publish/ZDFooterContainerView.h"
#include "publish/ZDFormKeyboardRoom_p.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDKeyboard.h"

#include <QAccessible>
#include <QApplication>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QShortcut>
#include <QTimer>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

QString L(const char *key)
{
    return ZDLocalizedString(QString::fromLatin1(key));
}

// A quality row's size: a saturated size is the least the video takes.
QString sizeText(qint32 size)
{
    const QString bytes = FileSizeFormatter(float(size), 1);
    return size == std::numeric_limits<qint32>::max() ? L("SIZE_OR_MORE_FORMAT_PARENS").arg(bytes)
                                                      : L("SIZE_FORMAT_PARENS").arg(bytes);
}

// Each tag row's field says where it stands among the tags ("2 of 5"), also
// while the list grows and shrinks: told to all of them after every change.
void describeTagPlaces(const std::vector<std::unique_ptr<EditableTagCell>> &tags)
{
    for (size_t i = 0; i < tags.size(); ++i) {
        if (QWidget *editor = tags[i]->editor()) {
            editor->setAccessibleName(L("TAGS"));
            editor->setAccessibleDescription(
                L("LIST_POSITION_FORMAT").arg(qsizetype(i) + 1).arg(tags.size()));
        }
    }
}

constexpr qreal kRowHeight = 40.0;
constexpr qreal kAccessRowHeight = 52.0;
constexpr qreal kInitialDescriptionHeight = 120.0;
constexpr qreal kLogoMargin = 15.0;

// The view above the first section. It lends the form's logo image view and
// gives it back before it goes, so the table may delete it at will.
class LogoHeader : public QWidget
{
public:
    LogoHeader(QLabel *logo, const QRectF &frame, const QRectF &logoFrame) : m_logo(logo)
    {
        setGeometry(frame.toRect());
        logo->setParent(this);
        logo->setGeometry(logoFrame.toRect());
        m_logoX = logoFrame.x();
        logo->show();
    }
    ~LogoHeader() override
    {
        if (m_logo && m_logo->parent() == this)
            m_logo->setParent(nullptr);
    }
    qreal logoX() const { return m_logoX; }

private:
    QPointer<QLabel> m_logo;
    qreal m_logoX = 0;
};

} // namespace

qint32 ZDSaturatedSize(qint64 bytes)
{
    return qint32(std::clamp<qint64>(bytes, std::numeric_limits<qint32>::min(),
                                     std::numeric_limits<qint32>::max()));
}

float ZDDescriptionRowHeight(float contentHeight)
{
    const float height = contentHeight + 20.0f;
    return height < float(kInitialDescriptionHeight) ? float(kInitialDescriptionHeight) : height;
}

bool ZDDescriptionRowShouldResize(float current, float target)
{
    return std::fabs(current - target) > 5.0f;
}

// --- construction and teardown ---------------------------------------------------

ZDPublishViewController::ZDPublishViewController(QObject *parent)
    : ZDViewController(parent),
      m_room(std::make_unique<ZDFormKeyboardRoom>(this, [this]() -> std::optional<ZDIndexPath> {
          // Only the first tag row is looked at.
          if (m_tableView && !m_tagCells.empty() && m_tagCells.front()->isFirstResponder())
              return m_tableView->indexPathForCell(m_tagCells.front().get());
          return std::nullopt;
      }))
{
    auto &center = ZDNotificationCenter::defaultCenter();
    center.addObserver(this, ZDKeyboardDidShowNotification, nullptr,
                       [this](const ZDNotification &note) { _automaticKeyboardDidShow(note); });
    center.addObserver(this, ZDKeyboardDidHideNotification, nullptr,
                       [this](const ZDNotification &note) { _automaticKeyboardDidHide(note); });
    navigationItem()->setTitle(L("PUBLISH_VIDEO"));
    auto publish = std::make_unique<ZDBarButtonItem>(L("PUBLISH"), ZDBarButtonItem::Style::Done,
                                                     [this] { _publish(); });
    publish->setEnabled(false);
    navigationItem()->setRightBarButtonItem(std::move(publish));
    navigationItem()->setLeftBarButtonItem(std::make_unique<ZDBarButtonItem>(
        ZDBarButtonItem::SystemItem::Cancel, [this] { _cancel(); }));
}

void ZDPublishViewController::_finishConstruction()
{
    if (m_constructed)
        return;
    m_constructed = true;
    _updatePublishButton();
    ZDAuthenticator *auth = authenticator();
    auto &center = ZDNotificationCenter::defaultCenter();
    center.addObserver(this, ZDAuthenticatorStateChangeNotification, auth,
                       [this](const ZDNotification &note) { _authenticatorStateChanged(note); });
    center.addObserver(this, ZDAuthenticatorFailureNotification, auth,
                       [this](const ZDNotification &note) { _authenticatorFailed(note); });
}

ZDPublishViewController::~ZDPublishViewController()
{
    ZDNotificationCenter::defaultCenter().removeObserver(this);
    m_room.reset(); // the wheel goes with it
    // The cells go before the view (deleted by the base) that shows them; the
    // table lets go of them as they go.
}

// --- the subclass's answers --------------------------------------------------------

ZDAuthenticator *ZDPublishViewController::authenticator()
{
    ZD_ABSTRACT("ZDPublishViewController::authenticator");
}

QString ZDPublishViewController::termsOfUseString()
{
    ZD_ABSTRACT("ZDPublishViewController::termsOfUseString");
}

QUrl ZDPublishViewController::termsOfUseURL()
{
    ZD_ABSTRACT("ZDPublishViewController::termsOfUseURL");
}

QPixmap ZDPublishViewController::headerLogo()
{
    return QPixmap();
}

std::optional<QList<ZDCategory>> ZDPublishViewController::categories()
{
    return std::nullopt;
}

std::optional<ZDCellList> ZDPublishViewController::accessCells()
{
    return std::nullopt;
}

ZDAlertView *ZDPublishViewController::accountAlert()
{
    return nullptr;
}

bool ZDPublishViewController::checkParametersAndWarn()
{
    return true;
}

// --- the view ------------------------------------------------------------------------

QWidget *ZDPublishViewController::loadView()
{
    _finishConstruction(); // for a form made without create()
    QWidget *view = ZDViewController::loadView();
    m_descriptionHeight = kInitialDescriptionHeight;

    m_tableView = new ZDTableView(view);
    // Escape puts a focused wheel away, and is otherwise the Cancel button of
    // the sheet (an alert over it takes its own Escape first: it holds the
    // focus, outside this view).
    auto *escape = new QShortcut(QKeySequence(Qt::Key_Escape), view);
    escape->setContext(Qt::WidgetWithChildrenShortcut);
    connect(escape, &QShortcut::activated, this, [this] {
        if (ZDPickerView *wheel = picker(); wheel && wheel->hasFocus()) {
            _hidePicker();
            return;
        }
        if (ZDBarButtonItem *cancel = navigationItem()->leftBarButtonItem())
            cancel->trigger();
    });
    auto *layout = new QVBoxLayout(view);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(m_tableView);
    m_tableView->setDataSource(this);
    m_tableView->setDelegate(this);

    m_headerImageView = std::make_unique<QLabel>();
    m_headerImageView->setPixmap(headerLogo());

    m_titleCell = std::make_unique<EditableTextCell>(QRect(), false);
    m_titleCell->setDelegate(this);
    m_titleCell->setPlaceholder(L("TITLE"));
    m_descriptionCell = std::make_unique<EditableTextCell>(QRect(), true);
    m_descriptionCell->setPlaceholder(L("DESCRIPTION"));
    m_descriptionCell->setDelegate(this);

    m_categoryCell = std::make_unique<ZDCategoryCell>();
    m_categoryCell->textLabel()->setText(L("CATEGORY"));
    m_categoryCell->setCategoryString(QStringLiteral(" "));

    m_accountCell = std::make_unique<ZDTableViewCell>(ZDTableViewCell::Style::Default);
    _updateAccountCell();

    for (auto &cell : m_optionCells)
        cell = std::make_unique<EditableTextCell>(EditableTextCell::QualityOptionCell);

    m_accessCells = accessCells();

    m_tagCells.clear();
    _addNewTagCell();

    // Each present part takes the next section number.
    qintptr next = 0;
    m_sectionIndices = ZDSectionIndices();
    m_sectionIndices.title = next++;
    if (m_showHDSection)
        m_sectionIndices.hd = next++;
    m_sectionIndices.tags = next++;
    if (categories())
        m_sectionIndices.category = next++;
    if (m_accessCells)
        m_sectionIndices.access = next++;
    m_sectionIndices.account = next;

    m_footerContainer = std::make_unique<ZDFooterContainerView>(QRect());
    connect(m_footerContainer->termsButton(), &QPushButton::clicked, this,
            &ZDPublishViewController::_termsButtonPressed);
    m_tableView->setTableFooterView(m_footerContainer.get());
    m_room->attach(view, m_tableView, m_footerContainer.get());
    m_tableView->reloadData();

    if (m_accessCells && !m_accessCells->empty())
        tableViewDidSelectRowAtIndexPath(m_tableView, {int(m_sectionIndices.access), 0});
    return view;
}

void ZDPublishViewController::didReceiveMemoryWarning()
{
    // The wheel outlives an unloaded view: take it out before the view goes.
    if (isViewLoaded() && !view()->isVisible())
        m_room->keepWheelThroughUnload();
    ZDViewController::didReceiveMemoryWarning();
}

void ZDPublishViewController::viewDidUnload()
{
    ZDViewController::viewDidUnload();
    // What the user typed goes with the cells; selectedOption stays.
    m_tableView = nullptr;
    m_headerImageView.reset();
    m_titleCell.reset();
    m_descriptionCell.reset();
    m_categoryCell.reset();
    for (auto &cell : m_optionCells)
        cell.reset();
    m_accessCells.reset();
    m_accountCell.reset();
    m_tagCells.clear();
}

void ZDPublishViewController::viewWillAppear(bool animated)
{
    ZDViewController::viewWillAppear(animated);
    // A desktop window has no status bar to restyle.
    _footerFrameDidChangeWithSplitKeyboard(false);
}

void ZDPublishViewController::viewDidAppear(bool animated)
{
    ZDViewController::viewDidAppear(animated);
    ZDAuthenticator *auth = authenticator();
    if (auth->authenticatorState() != ZDAuthenticatorStateSignedIn)
        auth->loadCredentials();
    if (auth->authenticatorState() != ZDAuthenticatorStateSignedIn)
        _showAuthenticationDialog();
}

// --- results -------------------------------------------------------------------------

QString ZDPublishViewController::videoTitle() const
{
    return m_titleCell ? m_titleCell->textValue() : QString();
}

QString ZDPublishViewController::videoDescription() const
{
    return m_descriptionCell ? m_descriptionCell->textValue() : QString();
}

QStringList ZDPublishViewController::videoTags() const
{
    QStringList tags;
    for (const auto &cell : m_tagCells) {
        if (!cell->textValue().isEmpty())
            tags << cell->textValue();
    }
    return tags;
}

std::optional<ZDCategory> ZDPublishViewController::videoCategory()
{
    const std::optional<QList<ZDCategory>> all = categories();
    if (!all)
        return std::nullopt;
    // Before the wheel is made its selected row reads as 0.
    const int row = picker() ? picker()->selectedRowInComponent(0) : 0;
    return row >= 0 && row < all->size() ? std::optional(all->at(row)) : std::nullopt;
}

// --- publishing and cancelling ------------------------------------------------------

void ZDPublishViewController::_publish()
{
    if (!checkParametersAndWarn())
        return;
    // The delegate may destroy the form: nothing of it is touched afterwards.
    if (ZDPublishViewControllerDelegate *target = m_delegate.get())
        target->publishViewControllerPublished(this);
}

void ZDPublishViewController::_cancel()
{
    if (ZDPublishViewControllerDelegate *target = m_delegate.get())
        target->publishViewControllerCancelled(this);
}

void ZDPublishViewController::showAlertWithTitleMessage(const QString &title,
                                                        const QString &message)
{
    auto *alert = new ZDAlertView(title, message, nullptr, L("OK"));
    alert->show(isViewLoaded() ? view()->window() : nullptr);
}

// --- sign-in and account --------------------------------------------------------------

bool ZDPublishViewController::_isAuthenticated()
{
    return authenticator()->authenticatorState() == ZDAuthenticatorStateSignedIn;
}

void ZDPublishViewController::_updatePublishButton()
{
    navigationItem()->rightBarButtonItem()->setEnabled(_isAuthenticated());
}

QString ZDPublishViewController::accountString()
{
    if (_isAuthenticated())
        return L("ACCOUNT_NAME_FORMAT").arg(authenticator()->account());
    return L("ACCOUNT_BLANK");
}

void ZDPublishViewController::_updateAccountCell()
{
    if (!m_accountCell)
        return;
    const bool signedIn = _isAuthenticated();
    m_accountCell->textLabel()->setAlignment(Qt::AlignCenter);
    m_accountCell->textLabel()->setText(accountString());
    m_accountCell->setUserInteractionEnabled(signedIn);
    m_accountCell->textLabel()->setEnabled(signedIn);
}

void ZDPublishViewController::_showAuthenticationDialog()
{
    m_authenticationAlert = authenticator()->authenticationDialogWithTargetAction(
        this, [this] { authReturnKeyPressed(); });
    if (!m_authenticationAlert)
        return;
    m_authenticationAlert->setDelegate(this);
    m_authenticationAlert->show(isViewLoaded() ? view()->window() : nullptr);
}

void ZDPublishViewController::authReturnKeyPressed()
{
    if (m_authenticationAlert)
        m_authenticationAlert->dismissWithClickedButtonIndex(
            m_authenticationAlert->firstOtherButtonIndex(), true);
}

void ZDPublishViewController::_authenticatorStateChanged(const ZDNotification &)
{
    _updatePublishButton();
    _updateAccountCell();
    // The sign-in dialog may still be closing (a sign-in can finish inside its
    // button press), and its closing moves the focus on: look afterwards.
    if (_isAuthenticated())
        QTimer::singleShot(0, this, [this] { _focusTitleUnlessARowHasIt(); });
}

void ZDPublishViewController::_focusTitleUnlessARowHasIt()
{
    if (!isViewLoaded() || !m_tableView || !m_titleCell || !_isAuthenticated())
        return;
    // An alert over the form keeps its focus; a row the user went to keeps it.
    if (m_authenticationAlert || m_accountAlert || m_authenticationFailedAlert)
        return;
    const QWidget *focus = view()->window()->focusWidget();
    if (focus && m_tableView->isAncestorOf(focus))
        return;
    if (QWidget *editor = m_titleCell->editor())
        editor->setFocus(Qt::OtherFocusReason);
}

void ZDPublishViewController::_authenticatorFailed(const ZDNotification &)
{
    m_authenticationFailedAlert = new ZDAlertView(
        L("AUTHENTICATION_FAILED_TITLE"), L("AUTHENTICATION_FAILED_BODY"), this, L("OK_BUTTON"));
    m_authenticationFailedAlert->show(isViewLoaded() ? view()->window() : nullptr);
}

void ZDPublishViewController::alertViewWillDismissWithButtonIndex(ZDAlertView *alert,
                                                                  int buttonIndex)
{
    // The delegate may destroy the form from inside; stop touching it then.
    QPointer<ZDPublishViewController> self(this);
    if (alert == m_authenticationAlert) {
        if (buttonIndex != alert->cancelButtonIndex()) {
            const auto text = [alert](int index) {
                const QLineEdit *field = alert->textFieldAtIndex(index);
                return field ? field->text() : QString();
            };
            authenticator()->authenticateWithUsernamePassword(text(0), text(1));
        } else if (ZDPublishViewControllerDelegate *target = m_delegate.get()) {
            // Cancelling the sign-in cancels the whole publication.
            target->publishViewControllerCancelled(this);
        }
        if (self && m_authenticationAlert == alert)
            m_authenticationAlert = nullptr;
    } else if (alert == m_accountAlert) {
        if (buttonIndex != alert->cancelButtonIndex()) {
            authenticator()->invalidateAuthentication();
            // Signing out from the form closes it, by design.
            if (ZDPublishViewControllerDelegate *target = self ? m_delegate.get() : nullptr)
                target->publishViewControllerCancelled(this);
        }
        if (self)
            m_accountAlert = nullptr;
    } else if (alert == m_authenticationFailedAlert) {
        _showAuthenticationDialog();
        m_authenticationFailedAlert = nullptr;
    }
}

// --- the table -------------------------------------------------------------------------

int ZDPublishViewController::numberOfSectionsInTableView(ZDTableView *)
{
    return int(m_sectionIndices.account + 1);
}

int ZDPublishViewController::tableViewNumberOfRowsInSection(ZDTableView *, int section)
{
    const ZDSectionIndices &s = m_sectionIndices;
    if (section == s.title || section == s.hd)
        return 2;
    if (section == s.tags)
        return int(m_tagCells.size());
    if (section == s.category || section == s.account)
        return 1;
    if (section == s.access)
        return m_accessCells ? int(m_accessCells->size()) : 0;
    ZD_ABSTRACT("ZDPublishViewController::tableViewNumberOfRowsInSection");
}

ZDTableViewCell *ZDPublishViewController::tableViewCellForRowAtIndexPath(ZDTableView *,
                                                                         ZDIndexPath indexPath)
{
    const ZDSectionIndices &s = m_sectionIndices;
    const int section = indexPath.section;
    const int row = indexPath.row;
    if (section == s.title) {
        // The editors are named by what they hold, for screen readers.
        EditableTextCell *cell = row == 0 ? m_titleCell.get() : m_descriptionCell.get();
        if (QWidget *editor = cell->editor())
            editor->setAccessibleName(L(row == 0 ? "TITLE" : "DESCRIPTION"));
        return cell;
    }
    if (section == s.hd) {
        prepareOptionCell(row);
        return m_optionCells[size_t(row)].get();
    }
    if (section == s.tags) {
        describeTagPlaces(m_tagCells);
        return m_tagCells[size_t(row)].get();
    }
    if (section == s.category)
        return m_categoryCell.get();
    if (section == s.access)
        return (*m_accessCells)[size_t(row)].get();
    if (section == s.account)
        return m_accountCell.get();
    return nullptr;
}

void ZDPublishViewController::prepareOptionCell(int row)
{
    EditableTextCell *cell = m_optionCells[size_t(row)].get();
    cell->setChosen(row == m_selectedOption);
    if (row != 0) {
        cell->mainLabel()->setText(L("HD"));
        if (m_enableHDSection) {
            cell->sizeLabel()->setText(sizeText(m_HDSize));
            cell->setUserInteractionEnabled(true);
            cell->setAccessibleName(QString());
        } else {
            // The raw key on screen is what services expect here.
            cell->sizeLabel()->setText(QStringLiteral("REQUIRES_WIFI"));
            cell->setUserInteractionEnabled(false);
            // A screen reader says the words the raw key stands for.
            cell->setAccessibleName(L("HD") + u", " + L("REQUIRES_WIFI"));
            cell->setTextColor(QColor::fromRgbF(0.7f, 0.7f, 0.7f, 1.0f));
        }
    } else {
        cell->mainLabel()->setText(L("STANDARD_DEFINITION"));
        cell->sizeLabel()->setText(sizeText(m_SDSize));
    }
}

QString ZDPublishViewController::tableViewTitleForFooterInSection(ZDTableView *, int section)
{
    if (section != m_sectionIndices.account)
        return QString();
    // The text is plain and takes no focus; the terms button after it is the
    // keyboard's way to the terms, so it carries the text as its description.
    const QString terms = termsOfUseString();
    if (m_footerContainer)
        m_footerContainer->termsButton()->setAccessibleDescription(terms);
    return terms;
}

QString ZDPublishViewController::tableViewAccessibleListNameForSection(ZDTableView *, int section)
{
    return section == m_sectionIndices.tags ? L("TAGS") : QString();
}

qreal ZDPublishViewController::tableViewHeightForRowAtIndexPath(ZDTableView *,
                                                                ZDIndexPath indexPath)
{
    if (indexPath.section == m_sectionIndices.title)
        return indexPath.row == 1 ? m_descriptionHeight : kRowHeight;
    if (indexPath.section == m_sectionIndices.access)
        return kAccessRowHeight;
    return kRowHeight;
}

qreal ZDPublishViewController::tableViewHeightForHeaderInSection(ZDTableView *, int section)
{
    if (section != 0)
        return 0;
    // In points: a logo drawn for a high-density screen takes its nominal size.
    return (m_headerImageView ? m_headerImageView->pixmap().deviceIndependentSize().height() : 0) +
           2 * kLogoMargin;
}

QWidget *ZDPublishViewController::tableViewViewForHeaderInSection(ZDTableView *tableView,
                                                                  int section)
{
    if (section != 0 || !m_headerImageView)
        return nullptr;
    const qreal width = tableView->viewport()->width();
    const QSizeF logo = m_headerImageView->pixmap().deviceIndependentSize();
    return new LogoHeader(
        m_headerImageView.get(), QRectF(0, 0, width, logo.height() + 2 * kLogoMargin),
        QRectF((width - logo.width()) * 0.5, kLogoMargin, logo.width(), logo.height()));
}

void ZDPublishViewController::tableViewDidSelectRowAtIndexPath(ZDTableView *tableView,
                                                               ZDIndexPath indexPath)
{
    const ZDSectionIndices &s = m_sectionIndices;
    const int section = indexPath.section;
    const int row = indexPath.row;
    if (section != s.category)
        _hidePicker();

    if (section == s.category) {
        // A row reached by keyboard hands the focus on to the wheel; a tap
        // leaves no focus anywhere.
        const bool byKeyboard = QApplication::focusWidget() == m_categoryCell.get();
        orderOutKeyboard();
        _showPicker();
        if (QWidget *focus = tableView->window()->focusWidget())
            focus->clearFocus();
        if (ZDPickerView *wheel = picker(); wheel && byKeyboard)
            wheel->setFocus(Qt::OtherFocusReason);
    } else if (section == s.tags) {
        m_tagCells[size_t(row)]->becomeFirstResponder();
    } else if (section == s.title) {
        (row == 0 ? m_titleCell : m_descriptionCell)->becomeFirstResponder();
    } else if (section == s.hd) {
        m_optionCells[size_t(m_selectedOption)]->setChosen(false);
        tableView->deselectRowAtIndexPath(indexPath, true);
        m_optionCells[size_t(row)]->setChosen(true);
        m_selectedOption = row;
        if (!ZDDevice::isTablet())
            orderOutKeyboard();
    } else if (section == s.access) {
        if (m_accessRow < m_accessCells->size())
            (*m_accessCells)[m_accessRow]->setChosen(false);
        tableView->deselectRowAtIndexPath(indexPath, true);
        (*m_accessCells)[size_t(row)]->setChosen(true);
        m_accessRow = quintptr(row);
        if (!ZDDevice::isTablet())
            orderOutKeyboard();
    } else if (section == s.account) {
        // The keyboard goes before the alert comes, so that the alert hands
        // the focus back to the row a keyboard user left, or to nothing after
        // a tap took it from a text field, never to a field that would bring
        // the keyboard back.
        if (!ZDDevice::isTablet())
            orderOutKeyboard();
        if (_isAuthenticated()) {
            m_accountAlert = accountAlert();
            if (m_accountAlert) {
                m_accountAlert->setDelegate(this);
                m_accountAlert->show(tableView->window());
            }
        }
        tableView->deselectRowAtIndexPath(indexPath, true);
    }
}

void ZDPublishViewController::scrollViewWillBeginDragging(ZDTableView *)
{
    _hidePicker();
}

// --- rows that grow, the picker and the keyboard's room --------------------------------

void ZDPublishViewController::_addNewTagCell()
{
    auto cell = std::make_unique<EditableTagCell>(QRect());
    cell->setPlaceholder(m_tagCells.empty() ? L("TAGS") : L("NEW_TAG"));
    cell->setDelegate(this);
    m_tagCells.push_back(std::move(cell));
}

qint32 ZDPublishViewController::_indexOfBlankTagCellOtherThan(const EditableTagCell *other) const
{
    // From the end: among several blank rows the last one wins.
    for (qint32 i = qint32(m_tagCells.size()) - 1; i >= 0; --i) {
        const EditableTagCell *cell = m_tagCells[size_t(i)].get();
        if (cell != other && cell->textValue().isEmpty())
            return i;
    }
    return -1;
}

void ZDPublishViewController::textCellTextChanged(EditableTextCell *cell, const QString &text)
{
    const auto tag = std::find_if(m_tagCells.begin(), m_tagCells.end(),
                                  [cell](const auto &tagCell) { return tagCell.get() == cell; });
    const int tags = int(m_sectionIndices.tags);
    if (tag != m_tagCells.end()) {
        const qint32 blank = _indexOfBlankTagCellOtherThan(tag->get());
        if (!text.isEmpty() && blank == -1) {
            _addNewTagCell();
            m_tableView->beginUpdates();
            m_tableView->insertRowsAtIndexPaths({{tags, int(m_tagCells.size()) - 1}},
                                                ZDTableView::RowAnimation::Top);
            m_tableView->endUpdates();
            describeTagPlaces(m_tagCells);
        } else if (text.isEmpty() && blank >= 0) {
            // The emptied row stays; the other blank row goes. Its widget lives
            // until the row has slid away.
            EditableTagCell *leaving = m_tagCells[size_t(blank)].release();
            m_tagCells.erase(m_tagCells.begin() + blank);
            m_tableView->beginUpdates();
            m_tableView->deleteRowsAtIndexPaths({{tags, blank}},
                                                blank == 0 ? ZDTableView::RowAnimation::Bottom
                                                           : ZDTableView::RowAnimation::Top);
            m_tableView->endUpdates();
            describeTagPlaces(m_tagCells);
            leaving->setDelegate(nullptr);
            QTimer::singleShot(int(ZDDevice::kRowAnimationDuration * 1000) + 100, leaving,
                               [leaving] { delete leaving; });
        }
        return;
    }
    if (cell != m_descriptionCell.get())
        return;
    const float target = ZDDescriptionRowHeight(float(cell->contentSize().height()));
    if (ZDDescriptionRowShouldResize(float(m_descriptionHeight), target)) {
        m_descriptionHeight = target;
        cell->setKeepsFocus(true);
        m_tableView->beginUpdates();
        m_tableView->endUpdates();
        cell->setKeepsFocus(false);
    }
}

void ZDPublishViewController::textCellDidBeginEditing(EditableTextCell *cell)
{
    if (!m_tableView)
        return;
    if (const auto indexPath = m_tableView->indexPathForCell(cell))
        m_tableView->selectRowAtIndexPath(*indexPath, true, ZDTableView::ScrollPosition::Middle);
    if (ZDDevice::isTablet())
        _unshrinkView();
}

void ZDPublishViewController::textCellReturnPressed(EditableTextCell *cell)
{
    if (cell == m_titleCell.get())
        m_descriptionCell->becomeFirstResponder();
}

void ZDPublishViewController::tagCellEndOfTagCharacterPressed(EditableTagCell *)
{
    const qint32 blankCellIndex = _indexOfBlankTagCellOtherThan(nullptr);
    ZD_ASSERT(blankCellIndex >= 0, "ZDPublishViewController::tagCellEndOfTagCharacterPressed");
    m_tagCells[size_t(blankCellIndex)]->becomeFirstResponder();
    if (const auto indexPath =
            m_tableView->indexPathForCell(m_tagCells[size_t(blankCellIndex)].get()))
        m_tableView->scrollToRowAtIndexPath(*indexPath, ZDTableView::ScrollPosition::Middle, true);
}

ZDPickerView *ZDPublishViewController::picker() const
{
    return m_room->picker();
}

QWidget *ZDPublishViewController::pickerContainer() const
{
    return m_room->pickerContainer();
}

bool ZDPublishViewController::isShowingPicker() const
{
    return m_room->isShowingPicker();
}

bool ZDPublishViewController::isViewShrunk() const
{
    return m_room->isShrunk();
}

void ZDPublishViewController::_showPicker()
{
    m_room->showPicker({int(m_sectionIndices.category), 0});
}

void ZDPublishViewController::_hidePicker()
{
    m_room->hidePicker({int(m_sectionIndices.category), 0});
}

int ZDPublishViewController::numberOfComponentsInPickerView(ZDPickerView *)
{
    return 1;
}

int ZDPublishViewController::pickerViewNumberOfRowsInComponent(ZDPickerView *, int)
{
    const std::optional<QList<ZDCategory>> all = categories();
    return all ? int(all->size()) : 0;
}

qreal ZDPublishViewController::pickerViewRowHeightForComponent(ZDPickerView *, int)
{
    return kRowHeight;
}

std::optional<QString> ZDPublishViewController::pickerViewTitleForRowForComponent(ZDPickerView *,
                                                                                  int row, int)
{
    const std::optional<QList<ZDCategory>> all = categories();
    if (!all || row < 0 || row >= all->size())
        return std::nullopt;
    return all->at(row).displayName();
}

void ZDPublishViewController::pickerViewDidSelectRowInComponent(ZDPickerView *picker, int row, int)
{
    const std::optional<QList<ZDCategory>> all = categories();
    if (row < 0 && !all) {
        m_categoryCell->setCategoryString(QStringLiteral(" "));
        return;
    }
    // The wheel is asked for its row; the argument is not used.
    const int selected = picker->selectedRowInComponent(0);
    const QString name = all && selected >= 0 && selected < all->size()
                             ? all->at(selected).displayName()
                             : QString();
    m_categoryCell->setCategoryString(name.isEmpty() ? QStringLiteral(" ") : name);
}

void ZDPublishViewController::_shrinkView()
{
    m_room->shrink();
}

void ZDPublishViewController::_unshrinkView()
{
    m_room->unshrink();
}

void ZDPublishViewController::_footerFrameDidChangeWithSplitKeyboard(bool splitKeyboard)
{
    m_room->sizeFooter(splitKeyboard);
}

void ZDPublishViewController::_automaticKeyboardDidShow(const ZDNotification &)
{
    m_room->keyboardDidShow();
}

void ZDPublishViewController::_automaticKeyboardDidHide(const ZDNotification &notification)
{
    // The split flag is read under a key that no notification sets, so it is
    // always false: a tablet's footer is sized as for a whole keyboard.
    m_room->keyboardDidHide(notification.userInfo.value(QString()).toBool());
}

void ZDPublishViewController::resignResponder()
{
    if (isViewLoaded()) {
        if (QWidget *focus = view()->window()->focusWidget())
            focus->clearFocus();
    }
    m_room->unshrink();
}

void ZDPublishViewController::orderOutKeyboard()
{
    // Only a text field of the form loses the focus: a row that a keyboard
    // user acts on keeps it, and so does an alert the form has just put up.
    if (isViewLoaded()) {
        if (QWidget *focus = view()->window()->focusWidget();
            focus && view()->isAncestorOf(focus) && focus->testAttribute(Qt::WA_InputMethodEnabled))
            focus->clearFocus();
    }
    ZDKeyboard::shared().orderOutAutomaticKeyboard();
}

void ZDPublishViewController::_termsButtonPressed()
{
    ZDDevice::openURL(termsOfUseURL());
}
