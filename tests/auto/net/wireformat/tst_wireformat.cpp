// Wire formats checked by implementations this project did not write: Python's
// standard library and the npm package busboy parse our multipart bodies, Python
// percent-encodes the same random strings, md5sum digests the same buffers.

#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDAdditions.h"
#include "net/ZDDigest.h"
#include "net/ZDFileUpload.h"
#include "net/ZDJSON_p.h"
#include "net/ZDMultipart_p.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QString sourceDir()
{
    return qEnvironmentVariable("ZD_SOURCE_DIR");
}

QString python()
{
    for (const QString &candidate : {u"/usr/bin/python3"_s, u"python3"_s}) {
        const QString found = QStandardPaths::findExecutable(candidate);
        if (!found.isEmpty())
            return found;
        if (QFileInfo(candidate).isExecutable())
            return candidate;
    }
    return {};
}

struct Run
{
    int exitCode = -1;
    QByteArray out;
    QByteArray err;
};

Run run(const QString &program, const QStringList &args, const QByteArray &input = {})
{
    QProcess process;
    process.start(program, args);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(120000);
    return {process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1,
            process.readAllStandardOutput(), process.readAllStandardError()};
}

QString randomString(QRandomGenerator &rng, int maxLength)
{
    QString text;
    const int length = int(rng.bounded(maxLength + 1));
    for (int i = 0; i < length; ++i) {
        switch (rng.bounded(4)) {
        case 0: // ASCII, controls and punctuation included
            text += QChar(char16_t(rng.bounded(0x80)));
            break;
        case 1: // Latin-1 and other two-byte characters
            text += QChar(char16_t(0x80 + rng.bounded(0x780)));
            break;
        case 2: { // the rest of the BMP, surrogates excluded
            char16_t c = char16_t(0x800 + rng.bounded(0xF800 - 0x800));
            if (QChar::isSurrogate(c))
                c = 0x4E00;
            text += QChar(c);
            break;
        }
        default: // outside the BMP
            text +=
                QString::fromUcs4(std::array{char32_t(0x10000 + rng.bounded(0xFFFFF))}.data(), 1);
            break;
        }
    }
    return text;
}

// The parts a multipart parser reports, as JSON: [{name, filename?, type?, data(hex)}].
QJsonArray expectedParts(const QVariantMap &params)
{
    QJsonArray parts;
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        QJsonObject part{{u"name"_s, it.key()}};
        QByteArray data;
        if (it.value().metaType() == QMetaType::fromType<ZDFileUpload>()) {
            const auto upload = it.value().value<ZDFileUpload>();
            part[u"filename"_s] = upload.name();
            data = upload.data();
        } else if (it.value().typeId() == QMetaType::QByteArray) {
            data = it.value().toByteArray();
        } else {
            data = ZDAdditions::textualDescription(it.value()).toUtf8();
        }
        part[u"data"_s] = QString::fromLatin1(data.toHex());
        parts.append(part);
    }
    return parts;
}

const QString kBoundary = u"0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0"_s;

struct Parsed
{
    QString parser; // which one, and what it said on failure
    QJsonArray parts;
    QStringList types;
};

// What each independent parser finds in `body`: the named parts without their
// content types, which come apart. The empty part between two sequences or
// after the closing delimiter is reported by some parsers and not by others.
QList<Parsed> parsedByOthers(const QString &python, const QString &node, const QByteArray &body)
{
    const QString peers = sourceDir() + u"/tests/peers/"_s;
    const std::pair<QString, QString> parsers[] = {{python, peers + u"parse_multipart.py"_s},
                                                   {node, peers + u"parse_multipart.js"_s}};
    QList<Parsed> found;
    for (const auto &[program, script] : parsers) {
        const Run result =
            run(program, {script, u"multipart/form-data; boundary="_s + kBoundary}, body);
        Parsed parsed{
            script + u": "_s + QString::fromUtf8(result.err + result.out.left(2000)), {}, {}};
        for (const auto &part : QJsonDocument::fromJson(result.out).array()) {
            QJsonObject object = part.toObject();
            if (object.value(u"name"_s).toString().isEmpty())
                continue;
            parsed.types.append(object.take(u"type"_s).toString());
            parsed.parts.append(object);
        }
        found.append(parsed);
    }
    return found;
}

} // namespace

class tst_WireFormat : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void multipartBodiesParseWithIndependentParsers_data();
    void multipartBodiesParseWithIndependentParsers();
    void escapingAgreesWithPythonOverRandomStrings();
    void md5AgreesWithMd5sumOverRandomBuffers();
    void jsonAgreesWithPythonOnGeneratedDocuments();

private:
    QString m_python;
    QString m_node;
};

void tst_WireFormat::initTestCase()
{
    m_python = python();
    m_node = QStandardPaths::findExecutable(u"node"_s);
    if (m_python.isEmpty())
        QFAIL("python3 is missing: run tools/install-deps");
    if (m_node.isEmpty() || !QFileInfo::exists(sourceDir() + u"/tests/peers/node_modules/busboy"_s))
        QFAIL("node or busboy is missing: run tools/install-deps");
}

void tst_WireFormat::multipartBodiesParseWithIndependentParsers_data()
{
    QTest::addColumn<QVariantMap>("signedParams");
    QTest::addColumn<QVariantMap>("unsignedParams");
    QTest::addColumn<QString>("parsedFileName"); // empty: the file's name as it was given

    ZDFileUpload video;
    video.setName(u"Trip \"to\" the sea.MOV"_s);
    video.setData(randomBytes(300000, 7) + "\r\n--");
    ZDFileUpload photo;
    photo.setName(u"caf\u00e9.jpg"_s);
    photo.setData("\xff\xd8\xff\xe0");

    QTest::newRow("text only") << QVariantMap{{u"title"_s, u"Trip"_s}} << QVariantMap{}
                               << QString();
    QTest::newRow("signed and unsigned") << QVariantMap{{u"title"_s, u"\u00c9t\u00e9 \U0001F600"_s},
                                                        {u"tags"_s, u"a,b"_s},
                                                        {u"size"_s, 1080}}
                                         << QVariantMap{{u"video"_s, QVariant::fromValue(video)},
                                                        {u"thumb"_s, QVariant::fromValue(photo)},
                                                        {u"raw"_s, QByteArray("\x00\x01", 2)}}
                                         << QString();
    QTest::newRow("empty values") << QVariantMap{{u"empty"_s, QString()}}
                                  << QVariantMap{{u"e"_s, QByteArray()}} << QString();

    // Whatever a user's file name holds, it stays inside its part, its line
    // breaks as %0D and %0A (quotes and backslashes come back as they were).
    const auto named = [](const QString &fileName) {
        ZDFileUpload upload;
        upload.setName(fileName);
        upload.setData("payload\r\nwith a line break");
        return QVariantMap{{u"video"_s, QVariant::fromValue(upload)}, {u"zz"_s, u"last"_s}};
    };
    QTest::newRow("file name with CR LF and a forged header")
        << named(u"clip\r\nContent-Type: text/html\r\n.mov"_s) << QVariantMap{}
        << u"clip%0D%0AContent-Type: text/html%0D%0A.mov"_s;
    QTest::newRow("file name with bare LF, bare CR")
        << named(u"a\nb\rc.jpg"_s) << QVariantMap{} << u"a%0Ab%0Dc.jpg"_s;
    QTest::newRow("file name with line breaks beside quotes and backslashes")
        << named(u"\n\"\r\\\"; name=\"x.mov"_s) << QVariantMap{} << u"%0A\"%0D\\\"; name=\"x.mov"_s;
    QTest::newRow("file name with an empty line, then a forged part")
        << named(u"x\r\n\r\n--0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0\r\nContent-Disposition: "
                 u"form-data; name=\"admin\"\r\n\r\n1"_s)
        << QVariantMap{}
        << u"x%0D%0A%0D%0A--0F1E2D3C-4B5A-6978-8796-A5B4C3D2E1F0%0D%0AContent-Disposition: "
           u"form-data; name=\"admin\"%0D%0A%0D%0A1"_s;
}

// Each parser prints the parts it found as JSON; we compare them with what we
// put in.
void tst_WireFormat::multipartBodiesParseWithIndependentParsers()
{
    QFETCH(QVariantMap, signedParams);
    QFETCH(QVariantMap, unsignedParams);
    QFETCH(QString, parsedFileName);
    ZDBodySegments segments = zdMultipartSegments(signedParams, kBoundary);
    if (!unsignedParams.isEmpty())
        segments += zdMultipartSegments(unsignedParams, kBoundary);
    QJsonArray expected = expectedParts(signedParams);
    for (const auto &part : expectedParts(unsignedParams))
        expected.append(part);
    for (qsizetype i = 0; i < expected.size() && !parsedFileName.isEmpty(); ++i) {
        QJsonObject part = expected[i].toObject();
        if (part.contains(u"filename"_s))
            part[u"filename"_s] = parsedFileName;
        expected[i] = part;
    }
    for (const Parsed &parsed : parsedByOthers(m_python, m_node, zdJoinSegments(segments))) {
        QVERIFY2(parsed.parts == expected, qPrintable(parsed.parser));
        // The content type follows the name's extension, never a forged line.
        QVERIFY2(!parsed.types.contains(u"text/html"_s), qPrintable(parsed.parser));
    }
}

void tst_WireFormat::escapingAgreesWithPythonOverRandomStrings()
{
    QRandomGenerator rng(20261122);
    QStringList inputs;
    for (int i = 0; i < 3000; ++i)
        inputs << randomString(rng, 40);
    inputs << u"a b&c=d/\u00e9~"_s << u"!*'();:@&=+$,/?%#[]"_s;
    QJsonArray array;
    for (const QString &input : inputs)
        array.append(input);
    const QByteArray script = "import sys, json, urllib.parse\n"
                              "for s in json.load(sys.stdin):\n"
                              "    print(urllib.parse.quote(s, safe='', encoding='utf-8'))\n";
    const Run result = run(m_python, {u"-c"_s, QString::fromLatin1(script)},
                           QJsonDocument(array).toJson(QJsonDocument::Compact));
    QVERIFY2(result.exitCode == 0, result.err.constData());
    const QList<QByteArray> lines = result.out.split('\n');
    QCOMPARE(lines.size(), inputs.size() + 1);
    for (qsizetype i = 0; i < inputs.size(); ++i) {
        QCOMPARE(ZDAdditions::urlParameterEscapedString(inputs[i]), QString::fromLatin1(lines[i]));
    }
}

void tst_WireFormat::md5AgreesWithMd5sumOverRandomBuffers()
{
    const QString md5sum = QStandardPaths::findExecutable(u"md5sum"_s);
    QVERIFY(!md5sum.isEmpty());
    QRandomGenerator rng(1321);
    for (int size : {0, 1, 55, 56, 63, 64, 65, 1000, 1 << 20}) {
        const QByteArray buffer = randomBytes(size, rng.generate());
        const Run result = run(md5sum, {u"-"_s}, buffer);
        QCOMPARE(ZDCreateMD5WithData(buffer), QString::fromLatin1(result.out.left(32)));
    }
}

namespace {

// A random JSON text, valid by construction: nested containers, strings with
// every kind of escape and raw non-ASCII text, numbers in their various forms.
QByteArray randomJSON(QRandomGenerator &rng, int depth)
{
    const auto pick = [&](std::initializer_list<const char *> choices) {
        return QByteArray(*(choices.begin() + rng.bounded(int(choices.size()))));
    };
    switch (depth > 4 ? rng.bounded(4) : rng.bounded(6)) {
    case 0:
        return pick({"true", "false", "null", "0", "-0", "1e3", "-12.5E-2", "9223372036854775807",
                     "-9223372036854775808", "18446744073709551615", "3.141592653589793",
                     "1.7976931348623157e308", "5e-324", "0.1"});
    case 1:
        return QByteArray::number(qint64(rng.generate64()) >> rng.bounded(64));
    case 2:
    case 3: {
        QByteArray text = "\"";
        const int length = int(rng.bounded(12));
        for (int i = 0; i < length; ++i) {
            text += pick({"a", "Z", " ", "\\\"", "\\\\", "\\/", "\\b", "\\f", "\\n", "\\r", "\\t",
                          "\\u00e9", "\\u20AC", "\\ud83d\\ude00", "\xc3\xa9", "\xe2\x82\xac",
                          "\xf0\x9f\x98\x80", "\\u0000"});
        }
        return text + "\"";
    }
    case 4: {
        QByteArray array = "[";
        const int count = int(rng.bounded(5));
        for (int i = 0; i < count; ++i)
            array += (i ? ", " : "") + randomJSON(rng, depth + 1);
        return array + "]";
    }
    default: {
        QByteArray object = "{";
        const int count = int(rng.bounded(5));
        for (int i = 0; i < count; ++i) {
            object += (i ? "," : "") + QByteArray("\n\"k") + QByteArray::number(rng.bounded(4)) +
                      "\" : " + randomJSON(rng, depth + 1);
        }
        return object + "}";
    }
    }
}

// Our parsed value written back as JSON with every number exact (QJsonValue
// would turn 64-bit unsigned integers into doubles).
QByteArray exactJSON(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::QVariantMap: {
        QByteArrayList members;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            members << exactJSON(it.key()) + ':' + exactJSON(it.value());
        return '{' + members.join(',') + '}';
    }
    case QMetaType::QVariantList: {
        QByteArrayList items;
        for (const QVariant &item : value.toList())
            items << exactJSON(item);
        return '[' + items.join(',') + ']';
    }
    case QMetaType::QString: {
        const QByteArray array =
            QJsonDocument(QJsonArray{value.toString()}).toJson(QJsonDocument::Compact);
        return array.mid(1, array.size() - 2);
    }
    case QMetaType::Double:
        return QByteArray::number(value.toDouble(), 'g', 17);
    case QMetaType::Bool:
        return value.toBool() ? "true" : "false";
    case QMetaType::Nullptr:
        return "null";
    default:
        return value.toString().toLatin1(); // qint64 and quint64, in decimal
    }
}

// The text with one random byte dropped, replaced or inserted: mostly invalid.
QByteArray mutated(QRandomGenerator &rng, QByteArray text)
{
    static const char alphabet[] = "{}[]\",:.-+eE0123456789 tfn\\u\x01\xff";
    const qsizetype at = text.isEmpty() ? 0 : qsizetype(rng.bounded(int(text.size())));
    const char byte = alphabet[rng.bounded(int(sizeof alphabet - 1))];
    switch (rng.bounded(3)) {
    case 0:
        return text.remove(at, 1);
    case 1:
        if (!text.isEmpty())
            text[at] = byte;
        return text;
    default:
        return text.insert(at, byte);
    }
}

} // namespace

// The JSON parser against Python's json module (strict: no NaN or Infinity,
// no raw control characters) on generated documents and mutations of them:
// both must accept and reject the same texts and read the same values.
// Known, deliberate differences are left out: integers beyond 64 bits and
// numbers beyond the double range (Python reads them, as big integers and as
// infinity; our parser refuses them, as RFC 8259 allows), and lone surrogate
// escapes (Python reads them into strings that have no UTF-8 form, our parser
// refuses them).
void tst_WireFormat::jsonAgreesWithPythonOnGeneratedDocuments()
{
    QRandomGenerator rng(quint32(qEnvironmentVariableIntValue("ZD_JSON_SEED")) + 8259);
    QList<QByteArray> documents;
    for (int i = 0; i < 1500; ++i) {
        QByteArray text = randomJSON(rng, 0);
        documents << text << mutated(rng, text) << mutated(rng, mutated(rng, text));
    }
    QJsonArray texts;
    for (const QByteArray &text : documents)
        texts.append(QString::fromLatin1(text.toBase64()));
    // Python marks the values our parser is allowed to refuse with "limit".
    const QByteArray script =
        "import sys, json, base64, math\n"
        "def refuse(name): raise ValueError(name)\n"
        "def beyond(v):\n"
        "    if isinstance(v, bool): return False\n"
        "    if isinstance(v, int): return not (-2**63 <= v < 2**64)\n"
        "    if isinstance(v, float): return math.isinf(v)\n"
        "    if isinstance(v, str): return any(0xD800 <= ord(c) <= 0xDFFF for c in v)\n"
        "    if isinstance(v, list): return any(beyond(x) for x in v)\n"
        "    if isinstance(v, dict): return any(beyond(k) or beyond(x) for k, x in v.items())\n"
        "    return False\n"
        "flagged = False\n"
        "def note(v):\n"
        "    global flagged\n"
        "    flagged = flagged or beyond(v)\n"
        "    return v\n"
        "def pairs(items):\n"
        "    for k, v in items: note(k); note(v)\n"
        "    return dict(items)\n"
        "for item in json.load(sys.stdin):\n"
        "    flagged = False\n"
        "    try:\n"
        "        value = json.loads(base64.b64decode(item).decode('utf-8'), "
        "parse_constant=refuse,\n"
        "                           parse_int=lambda s: note(int(s)),\n"
        "                           parse_float=lambda s: note(float(s)), "
        "object_pairs_hook=pairs)\n"
        "    except Exception:\n"
        "        print('invalid')\n"
        "        continue\n"
        "    note(value)\n"
        "    if flagged: print('limit')\n"
        "    else: print('ok ' + json.dumps(value, sort_keys=True))\n";
    const Run result = run(m_python, {u"-c"_s, QString::fromLatin1(script)},
                           QJsonDocument(texts).toJson(QJsonDocument::Compact));
    QVERIFY2(result.exitCode == 0, result.err.constData());
    const QList<QByteArray> verdicts = result.out.split('\n');
    QCOMPARE(verdicts.size(), documents.size() + 1);

    QJsonArray pairs; // [our value as JSON, Python's], for every text both accept
    for (qsizetype i = 0; i < documents.size(); ++i) {
        const QByteArray &verdict = verdicts[i];
        const auto ours = zdParseJSON(documents[i]);
        const bool weAccept = std::holds_alternative<QVariant>(ours);
        const bool pythonAccepts = verdict.startsWith("ok ");
        if (verdict == "limit") {
            QVERIFY(!weAccept);
            continue;
        }
        QVERIFY2(weAccept == pythonAccepts,
                 QByteArray(documents[i].toPercentEncoding(" {}[]\":,.-+") + " python: " + verdict)
                     .constData());
        if (!weAccept)
            continue;
        pairs.append(QJsonArray{QString::fromUtf8(exactJSON(std::get<QVariant>(ours))),
                                QString::fromUtf8(verdict.mid(3))});
    }
    QVERIFY(pairs.size() > 1000);
    // Python reads our values back from their exact JSON form and compares them
    // with its own.
    const Run check = run(m_python,
                          {u"-c"_s, u"import sys, json\n"
                                    "for i, (a, b) in enumerate(json.load(sys.stdin)):\n"
                                    "    if json.loads(a) != json.loads(b): print(i, a, b)\n"_s},
                          QJsonDocument(pairs).toJson(QJsonDocument::Compact));
    QVERIFY2(check.exitCode == 0, check.err.constData());
    QVERIFY2(check.out.isEmpty(), check.out.left(2000).constData());
}

QTEST_GUILESS_MAIN(tst_WireFormat)
#include "tst_wireformat.moc"
