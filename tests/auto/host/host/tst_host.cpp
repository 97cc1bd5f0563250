#include "TestSupport.h"

#include "host/EditableTextCell.h"
#include "host/FileSizeFormatter.h"

#include <QLabel>
#include <QLineEdit>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

class Recorder : public EditableTextCellDelegate
{
public:
    void textCellDidBeginEditing(EditableTextCell *) override { events << u"begin"_s; }
    void textCellReturnPressed(EditableTextCell *) override { events << u"return"_s; }
    void textCellTextChanged(EditableTextCell *, const QString &text) override
    {
        events << u"text:"_s + text;
    }
    void tagCellEndOfTagCharacterPressed(EditableTagCell *) override { events << u"endOfTag"_s; }
    QStringList events;
};

struct Shown
{
    explicit Shown(EditableTextCell *cell)
    {
        window.resize(320, 200);
        cell->setParent(&window);
        cell->setGeometry(10, 10, 300, cell->isMultiLine() ? 120 : 40);
        window.show();
        QVERIFY(QTest::qWaitForWindowExposed(&window));
        window.activateWindow();
    }
    QWidget window;
};

} // namespace

class tst_Host : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void singleLineCellReportsEditingTypingAndReturn();
    void multiLineCellGrowsWithItsText();
    void tagCellReportsItsEndOfTagCharacterInsteadOfTypingIt();
    void qualityOptionCellHasAMainAndASizeLabel();
    void sizesAreInDecimalUnits_data();
    void sizesAreInDecimalUnits();
};

void tst_Host::singleLineCellReportsEditingTypingAndReturn()
{
    Recorder recorder;
    auto *cell = new EditableTextCell(QRect(), false);
    cell->setDelegate(&recorder);
    cell->setPlaceholder(u"Title"_s);
    cell->setTextValue(u"set"_s); // not the user's doing: no callback
    QVERIFY(recorder.events.isEmpty());
    cell->setTextValue(QString());
    Shown shown(cell);
    cell->becomeFirstResponder();
    QTRY_VERIFY(cell->isFirstResponder());
    QTest::keyClicks(cell->editor(), u"ab"_s);
    QTest::keyClick(cell->editor(), Qt::Key_Return);
    QVERIFY2(recorder.events == (QStringList{u"begin"_s, u"text:a"_s, u"text:ab"_s, u"return"_s}),
             qPrintable(recorder.events.join(u' ')));
    QCOMPARE(cell->textValue(), u"ab"_s);
    QCOMPARE(cell->placeholder(), u"Title"_s);
}

void tst_Host::multiLineCellGrowsWithItsText()
{
    auto *cell = new EditableTextCell(QRect(), true);
    Shown shown(cell);
    cell->setPlaceholder(u"Description"_s);
    const qreal empty = cell->contentSize().height();
    cell->becomeFirstResponder();
    for (int i = 0; i < 8; ++i) {
        QTest::keyClicks(cell->editor(), u"line"_s);
        QTest::keyClick(cell->editor(), Qt::Key_Return);
    }
    QVERIFY(cell->contentSize().height() > empty + 100);
    QCOMPARE(cell->textValue().count(u'\n'), 8);
}

void tst_Host::tagCellReportsItsEndOfTagCharacterInsteadOfTypingIt()
{
    Recorder recorder;
    auto *cell = new EditableTagCell(QRect());
    Shown shown(cell);
    cell->setDelegate(&recorder);
    cell->becomeFirstResponder();
    QTest::keyClicks(cell->editor(), u"sea,"_s);
    QCOMPARE(cell->textValue(), u"sea"_s);
    QCOMPARE(recorder.events.last(), u"endOfTag"_s);
}

void tst_Host::qualityOptionCellHasAMainAndASizeLabel()
{
    EditableTextCell cell(EditableTextCell::QualityOptionCell);
    QVERIFY(cell.isQualityOptionCell());
    QVERIFY(cell.mainLabel() && cell.sizeLabel());

    // The size text moves out of the way when the row gets its checkmark.
    cell.resize(300, 44);
    cell.show();
    const int freeRight = cell.sizeLabel()->geometry().right();
    cell.setAccessoryType(ZDTableViewCell::Accessory::Checkmark);
    QVERIFY(cell.sizeLabel()->geometry().right() < freeRight);
    cell.setAccessoryType(ZDTableViewCell::Accessory::None);
    QCOMPARE(cell.sizeLabel()->geometry().right(), freeRight);
}

void tst_Host::sizesAreInDecimalUnits_data()
{
    QTest::addColumn<QString>("locale");
    QTest::addColumn<float>("size");
    QTest::addColumn<int>("style");
    QTest::addColumn<QString>("shown");
    QTest::newRow("nothing") << u"C"_s << 0.0f << 1 << u"0 bytes"_s;
    QTest::newRow("negative") << u"C"_s << -5.0f << 1 << u"0 bytes"_s;
    QTest::newRow("under a kilobyte") << u"C"_s << 999.0f << 1 << u"999 bytes"_s;
    QTest::newRow("a kilobyte is 1000 bytes") << u"C"_s << 1000.0f << 1 << u"1.0 kB"_s;
    QTest::newRow("1.5 MiB") << u"C"_s << 1572864.0f << 1 << u"1.6 MB"_s;
    QTest::newRow("largest 32-bit size") << u"C"_s << 2147483647.0f << 1 << u"2.1 GB"_s;
    QTest::newRow("German decimal comma") << u"de_DE"_s << 1572864.0f << 1 << u"1,6 MB"_s;
    QTest::newRow("spelled out") << u"C"_s << 2048.0f << 0 << u"2048 bytes"_s;
}

void tst_Host::sizesAreInDecimalUnits()
{
    QFETCH(QString, locale);
    QFETCH(float, size);
    QFETCH(int, style);
    QFETCH(QString, shown);
    QLocale::setDefault(QLocale(locale));
    QCOMPARE(FileSizeFormatter(size, style), shown);
    QLocale::setDefault(QLocale::c());
}

QTEST_MAIN(tst_Host)
#include "tst_host.moc"
