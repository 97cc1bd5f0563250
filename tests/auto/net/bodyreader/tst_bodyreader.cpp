// The reader that hands a body of several pieces to the transport, read here
// without a transport: in steps of every size across the pieces' borders, again
// from any offset, and with its file going away or shrinking under it.

#include "net/ZDBodyReader_p.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

class tst_BodyReader : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void readsTheWholeBodyInStepsOfAnySize_data();
    void readsTheWholeBodyInStepsOfAnySize();
    void readsAgainFromAnyOffset_data();
    void readsAgainFromAnyOffset();
    void namesAFileThatCannotBeReadToItsEnd_data();
    void namesAFileThatCannotBeReadToItsEnd();

private:
    // Memory, part of the file, an empty piece, the file's start, memory.
    ZDBodySegments pieces() const
    {
        return {ZDBodySegment(QByteArray("<head>")), ZDBodySegment::file(m_path, 4, 8),
                ZDBodySegment(QByteArray()), ZDBodySegment::file(m_path, 10),
                ZDBodySegment(QByteArray("</tail>"))};
    }
    static QByteArray whole() { return "<head>456789AB0123456789</tail>"; }
    static QByteArray readToTheEnd(ZDBodyReader &reader, qint64 step)
    {
        QByteArray read;
        QByteArray buffer(step, '\0');
        while (const qint64 got = reader.read(buffer.data(), step)) {
            if (got < 0)
                return "failed";
            read += buffer.first(got);
        }
        return read;
    }

    QTemporaryDir m_dir;
    QString m_path;
};

void tst_BodyReader::init()
{
    QVERIFY(m_dir.isValid());
    m_path = m_dir.filePath(QStringLiteral("video.bin"));
    QFile file(m_path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write("0123456789ABCDEF");
}

void tst_BodyReader::readsTheWholeBodyInStepsOfAnySize_data()
{
    QTest::addColumn<qint64>("step");
    QTest::newRow("a byte at a time") << qint64(1);
    QTest::newRow("odd steps across every border") << qint64(5);
    QTest::newRow("the length of a piece") << qint64(6);
    QTest::newRow("all at once") << qint64(4096);
}

void tst_BodyReader::readsTheWholeBodyInStepsOfAnySize()
{
    QFETCH(qint64, step);
    ZDBodyReader reader(pieces());
    QCOMPARE(readToTheEnd(reader, step), whole());
    char more = 0;
    QCOMPARE(reader.read(&more, 1), 0); // the end stays the end
    QVERIFY(reader.unreadableFilePath().isEmpty());
}

void tst_BodyReader::readsAgainFromAnyOffset_data()
{
    QTest::addColumn<qint64>("readFirst");
    QTest::addColumn<qint64>("offset");
    QTest::newRow("from the start, after all was read") << qint64(whole().size()) << qint64(0);
    QTest::newRow("into a memory piece") << qint64(2) << qint64(3);
    QTest::newRow("onto a border") << qint64(20) << qint64(6);
    QTest::newRow("into a file piece, behind the reading") << qint64(16) << qint64(9);
    QTest::newRow("into the file's second piece, ahead") << qint64(0) << qint64(17);
    QTest::newRow("at the end") << qint64(3) << qint64(whole().size());
}

void tst_BodyReader::readsAgainFromAnyOffset()
{
    QFETCH(qint64, readFirst);
    QFETCH(qint64, offset);
    ZDBodyReader reader(pieces());
    QByteArray buffer(readFirst, '\0');
    QCOMPARE(reader.read(buffer.data(), readFirst), readFirst);
    QVERIFY(reader.rewind(offset));
    QCOMPARE(readToTheEnd(reader, 7), whole().mid(offset));

    QVERIFY(!reader.rewind(whole().size() + 1));
    QVERIFY(!reader.rewind(-1));
}

void tst_BodyReader::namesAFileThatCannotBeReadToItsEnd_data()
{
    QTest::addColumn<qint64>("readFirst");
    QTest::addColumn<qint64>("truncateTo"); // -1: the file is removed
    QTest::addColumn<bool>("readAgain");
    QTest::newRow("gone before its piece") << qint64(6) << qint64(-1) << false;
    QTest::newRow("gone between two of its pieces") << qint64(14) << qint64(-1) << false;
    QTest::newRow("shrunk while its piece is read") << qint64(8) << qint64(9) << false;
    QTest::newRow("shrunk before its second piece") << qint64(14) << qint64(5) << false;
    QTest::newRow("gone before the body is sent again")
        << qint64(whole().size()) << qint64(-1) << true;
}

void tst_BodyReader::namesAFileThatCannotBeReadToItsEnd()
{
    QFETCH(qint64, readFirst);
    QFETCH(qint64, truncateTo);
    QFETCH(bool, readAgain);
    ZDBodyReader reader(pieces());
    QByteArray buffer(readFirst, '\0');
    QCOMPARE(reader.read(buffer.data(), readFirst), readFirst);
    QCOMPARE(buffer, whole().first(readFirst));
    if (truncateTo < 0)
        QVERIFY(QFile::remove(m_path));
    else
        QVERIFY(QFile::resize(m_path, truncateTo));
    if (readAgain)
        QVERIFY(reader.rewind(0));
    QCOMPARE(readToTheEnd(reader, 4096), QByteArray("failed"));
    QCOMPARE(reader.unreadableFilePath(), m_path);
}

QTEST_APPLESS_MAIN(tst_BodyReader)
#include "tst_bodyreader.moc"
