#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDFileUpload.h"

#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

ZDFileUpload fileNamed(const QString &name, const QByteArray &data)
{
    ZDFileUpload upload;
    upload.setName(name);
    upload.setData(data);
    return upload;
}

} // namespace

class tst_Multipart : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void boundaryIsAnUpperCaseUuidKeptForTheRequest();
    void emptyDictionaryIsTheDelimiterAlone();
    void partsFollowMapOrderWithTheirKinds();
    void fileContentTypeFollowsLowerCasedExtension_data();
    void fileContentTypeFollowsLowerCasedExtension();
    void fileNameQuotesAndBackslashesAreEscapedButKeysAreNot();
    void fileUploadReadsWholeFileOrReportsNull();
    void streamedFilePartMakesTheSameBytes();
};

void tst_Multipart::boundaryIsAnUpperCaseUuidKeptForTheRequest()
{
    InspectableRequest request;
    const QString boundary = request.HTTPRequestBoundary();
    static const QRegularExpression uuid(
        u"^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$"_s);
    QVERIFY2(uuid.match(boundary).hasMatch(), qPrintable(boundary));
    QCOMPARE(request.HTTPRequestBoundary(), boundary);
    QVERIFY(InspectableRequest().HTTPRequestBoundary() != boundary);
}

void tst_Multipart::emptyDictionaryIsTheDelimiterAlone()
{
    InspectableRequest request;
    QCOMPARE(request._multipartParamData({}),
             "--" + request.HTTPRequestBoundary().toLatin1() + "\r\n");
}

void tst_Multipart::partsFollowMapOrderWithTheirKinds()
{
    InspectableRequest request;
    const QByteArray d = "--" + request.HTTPRequestBoundary().toLatin1() + "\r\n";
    ZDFileUpload unreadable; // null data: an empty content
    unreadable.setName(u"gone.bin"_s);
    const QVariantMap params{
        {u"a-bytes"_s, QByteArray("\x00\xff", 2)},
        {u"b-number"_s, 1080},
        {u"c-file"_s, QVariant::fromValue(fileNamed(u"clip.mov"_s, "MOOV"))},
        {u"d-empty-file"_s, QVariant::fromValue(unreadable)},
        {u"e-text"_s, u"\u00e9t\u00e9"_s},
    };
    const QByteArray expected =
        d +
        "Content-Disposition: form-data; name=\"a-bytes\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n" +
        QByteArray("\x00\xff", 2) + "\r\n" + d +
        "Content-Disposition: form-data; name=\"b-number\"\r\n\r\n1080\r\n" + d +
        "Content-Disposition: form-data; name=\"c-file\"; filename=\"clip.mov\"\r\n"
        "Content-Type: video/quicktime\r\n\r\nMOOV\r\n" +
        d +
        "Content-Disposition: form-data; name=\"d-empty-file\"; filename=\"gone.bin\"\r\n"
        "Content-Type: application/octet-stream\r\n\r\n\r\n" +
        d + "Content-Disposition: form-data; name=\"e-text\"\r\n\r\n\xc3\xa9t\xc3\xa9\r\n" + d;
    QCOMPARE(request._multipartParamData(params), expected);
}

void tst_Multipart::fileContentTypeFollowsLowerCasedExtension_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("contentType");
    QTest::newRow("mov upper") << u"Clip.MOV"_s << QByteArray("video/quicktime");
    QTest::newRow("jpg") << u"a.jpg"_s << QByteArray("image/jpeg");
    QTest::newRow("jpeg mixed") << u"a.JpEg"_s << QByteArray("image/jpeg");
    QTest::newRow("png") << u"dir.mov/a.png"_s << QByteArray("image/png");
    QTest::newRow("last extension only")
        << u"a.jpeg.txt"_s << QByteArray("application/octet-stream");
    QTest::newRow("none") << u"README"_s << QByteArray("application/octet-stream");
    QTest::newRow("dot in directory only")
        << u"v.mov/clip"_s << QByteArray("application/octet-stream");
    QTest::newRow("empty name") << QString() << QByteArray("application/octet-stream");
}

void tst_Multipart::fileContentTypeFollowsLowerCasedExtension()
{
    QFETCH(QString, name);
    QFETCH(QByteArray, contentType);
    InspectableRequest request;
    const QByteArray body =
        request._multipartParamData({{u"f"_s, QVariant::fromValue(fileNamed(name, "x"))}});
    QVERIFY2(body.contains(QByteArray("\"\r\nContent-Type: " + contentType + "\r\n\r\nx\r\n")),
             body.constData());
}

void tst_Multipart::fileNameQuotesAndBackslashesAreEscapedButKeysAreNot()
{
    InspectableRequest request;
    const QByteArray body = request._multipartParamData(
        {{u"k\"ey"_s, QVariant::fromValue(fileNamed(u"a\"b\\c.png"_s, "x"))}});
    const QByteArray expected = "name=\"k\"ey\"; filename=\"a\\\"b\\\\c.png\"";
    QVERIFY2(body.contains(expected), body.constData());
}

void tst_Multipart::fileUploadReadsWholeFileOrReportsNull()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(u"holiday clip.MOV"_s);
    const QByteArray contents = randomBytes(7000);
    QVERIFY(writeFile(path, contents));

    const ZDFileUpload upload(path);
    QCOMPARE(upload.name(), u"holiday clip.MOV"_s);
    QCOMPARE(upload.data(), contents);

    const QString emptyPath = dir.filePath(u"empty.png"_s);
    QVERIFY(writeFile(emptyPath, {}));
    QVERIFY(!ZDFileUpload(emptyPath).data().isNull());
    QVERIFY(ZDFileUpload(emptyPath).data().isEmpty());

    const ZDFileUpload missing(dir.filePath(u"missing.mov"_s));
    QCOMPARE(missing.name(), u"missing.mov"_s);
    QVERIFY(missing.data().isNull());
    QVERIFY(ZDFileUpload(dir.path()).data().isNull());
}

void tst_Multipart::streamedFilePartMakesTheSameBytes()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"a \"quoted\\ clip.MOV"_s);
    QVERIFY(writeFile(path, randomBytes(300000)));

    InspectableRequest request;
    for (const QString &candidate : {path, dir.filePath(u"missing.png"_s), dir.path()}) {
        const QByteArray inMemory = request._multipartParamData(
            {{u"v"_s, QVariant::fromValue(ZDFileUpload(candidate))}, {u"w"_s, u"after"_s}});
        const QByteArray streamed = request._multipartParamData(
            {{u"v"_s, QVariant::fromValue(ZDStreamedFileUpload(candidate))}, {u"w"_s, u"after"_s}});
        QCOMPARE(streamed.size(), inMemory.size());
        QVERIFY(streamed == inMemory);
    }
    QCOMPARE(ZDStreamedFileUpload(path).name(), u"a \"quoted\\ clip.MOV"_s);
}

QTEST_GUILESS_MAIN(tst_Multipart)
#include "tst_multipart.moc"
