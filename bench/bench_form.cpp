// The publishing form's speed: from making the form to its first rendered
// frame, and one row-selection round trip (press and release on a quality row,
// through the table to the form and back to the cells).
#include "BenchSupport.h"

#include "auth/ZDAuthenticator.h"
#include "host/EditableTextCell.h"
#include "publish/ZDPublishViewController.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDNavigationController.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QKeyEvent>
#include <QMouseEvent>

#include <algorithm>
#include <vector>

namespace {

class SignedIn : public ZDAuthenticator
{
public:
    SignedIn() { m_authenticatorState = ZDAuthenticatorStateSignedIn; }
    void authenticateWithUsernamePassword(const QString &, const QString &) override {}
};

class Form : public ZDPublishViewController
{
public:
    explicit Form(ZDAuthenticator *auth) : m_auth(auth)
    {
        setShowHDSection(true);
        setEnableHDSection(true);
    }
    ZDAuthenticator *authenticator() override { return m_auth; }
    QString termsOfUseString() override { return QStringLiteral("Terms apply."); }
    QUrl termsOfUseURL() override { return QUrl(QStringLiteral("https://video.example/terms")); }
    std::optional<QList<ZDCategory>> categories() override
    {
        return QList<ZDCategory>{
            ZDCategory::categoryWithDisplayNameValue(QStringLiteral("Travel"), 1)};
    }
    std::optional<ZDCellList> accessCells() override
    {
        ZDCellList cells;
        for (int i = 0; i < 3; ++i)
            cells.push_back(std::make_shared<ZDTableViewCell>());
        return cells;
    }

private:
    ZDAuthenticator *m_auth;
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

void click(QWidget *target, const QPoint &at)
{
    const QPointF global = target->mapToGlobal(QPointF(at));
    QMouseEvent press(QEvent::MouseButtonPress, QPointF(at), global, Qt::LeftButton, Qt::LeftButton,
                      Qt::NoModifier);
    QMouseEvent release(QEvent::MouseButtonRelease, QPointF(at), global, Qt::LeftButton,
                        Qt::NoButton, Qt::NoModifier);
    QApplication::sendEvent(target, &press);
    QApplication::sendEvent(target, &release);
}

} // namespace

int main(int argc, char **argv)
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ZDDevice::setKind(ZDDeviceKind::Phone);
    SignedIn auth;

    std::vector<double> firstFrame;
    for (int i = 0; i < 30; ++i) {
        QElapsedTimer timer;
        timer.start();
        auto form = ZDPublishViewController::create<Form>(&auth);
        ZDNavigationController navigation(form.get());
        QWidget *window = navigation.view();
        window->resize(320, 480);
        window->show();
        const QPixmap frame = window->grab(); // renders every widget once
        firstFrame.push_back(double(timer.nsecsElapsed()) / 1e6);
        window->hide();
        QApplication::processEvents();
        if (frame.isNull())
            return 1;
    }
    bench::report("form_create_to_first_frame", median(firstFrame), "ms");

    auto form = ZDPublishViewController::create<Form>(&auth);
    ZDNavigationController navigation(form.get());
    QWidget *window = navigation.view();
    window->resize(320, 480);
    window->show();
    QApplication::processEvents();
    ZDTableView *table = form->tableView();
    const int hd = int(form->sectionIndices().hd);
    const int rounds = 2000;
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < rounds; ++i) {
        const QRect row = table->rectForRowAtIndexPath({hd, i % 2});
        click(table->contentWidget(), QPoint(row.left() + 4, row.center().y()));
    }
    const double perRound = double(timer.nsecsElapsed()) / 1e3 / rounds;
    if (form->selectedOption() != (rounds - 1) % 2)
        return 1;
    bench::report("form_row_selection_round_trip", perRound, "us");

    // Typing into the blank tag row adds the next row: the 500th.
    const auto typeInto = [](QWidget *editor, const QString &text) {
        QKeyEvent press(QEvent::KeyPress, Qt::Key_unknown, Qt::NoModifier, text);
        QApplication::sendEvent(editor, &press);
    };
    const auto blankTag = [&] {
        // The blank row is the last row of the tags section.
        const int tags = int(form->sectionIndices().tags);
        const int last = table->numberOfRowsInSection(tags) - 1;
        return static_cast<EditableTagCell *>(table->cellForRowAtIndexPath({tags, last}));
    };
    for (int i = 0; i < 498; ++i)
        typeInto(blankTag()->editor(), QStringLiteral("tag%1").arg(i));
    QElapsedTimer tagTimer;
    tagTimer.start();
    typeInto(blankTag()->editor(), QStringLiteral("tag498")); // adds row 500
    const double addTag = double(tagTimer.nsecsElapsed()) / 1e6;
    QApplication::processEvents();
    if (table->numberOfRowsInSection(int(form->sectionIndices().tags)) != 500)
        return 1;
    bench::report("form_add_500th_tag_row", addTag, "ms");

    // One keystroke at the end of a 10,000-character description.
    auto *description = static_cast<EditableTextCell *>(table->cellForRowAtIndexPath({0, 1}));
    QString text;
    while (text.size() < 10000)
        text += QStringLiteral("A summer evening by the sea, with friends and music. ");
    description->setTextValue(text.left(10000));
    description->becomeFirstResponder();
    typeInto(description->editor(), QStringLiteral("x")); // lets the row take its height
    std::vector<double> keystrokes;
    for (int i = 0; i < 50; ++i) {
        QElapsedTimer keyTimer;
        keyTimer.start();
        typeInto(description->editor(), QStringLiteral("y"));
        keystrokes.push_back(double(keyTimer.nsecsElapsed()) / 1e6);
    }
    bench::report("form_keystroke_in_10k_description", median(keystrokes), "ms");
    return 0;
}
