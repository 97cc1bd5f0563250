// Multipart bodies from arbitrary keys, values and file names: the body is the
// delimiter-framed sequence of exactly as many parts as entries, and each part's
// content appears intact.
#include "FuzzSupport.h"

#include "net/ZDFileUpload.h"
#include "net/ZDMultipart_p.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), qsizetype(size));
    // Fields are separated by 0x01; each field's first byte picks its kind.
    const QList<QByteArray> fields = input.split('\x01');
    QVariantMap params;
    for (qsizetype i = 0; i + 1 < fields.size(); i += 2) {
        // Keys and file names are written as they are; line breaks in them would
        // end the part header early, which the walk below does not model.
        const auto clean = [](QByteArray bytes) {
            return QString::fromUtf8(bytes.replace('\r', '_').replace('\n', '_'));
        };
        const QString key = clean(fields[i]);
        const QByteArray &value = fields[i + 1];
        const char kind = value.isEmpty() ? 0 : value[0];
        const QByteArray rest = value.mid(1);
        if (kind % 3 == 0) {
            params.insert(key, QString::fromUtf8(rest));
        } else if (kind % 3 == 1) {
            params.insert(key, rest);
        } else {
            ZDFileUpload upload;
            upload.setName(clean(rest.left(rest.size() / 2)));
            upload.setData(rest.mid(rest.size() / 2));
            params.insert(key, QVariant::fromValue(upload));
        }
    }
    const QString boundary = QStringLiteral("7D2C1B0A-0000-4000-8000-00000000FUZZ");
    const ZDBodySegments segments = zdMultipartSegments(params, boundary);
    const QByteArray body = "prefix" + zdJoinSegments(segments);
    FUZZ_CHECK(zdMultipartParamData(params, boundary) == body.mid(6));
    const QByteArray delimiter = "--" + boundary.toLatin1() + "\r\n";
    FUZZ_CHECK(body.startsWith(QByteArray("prefix" + delimiter)));
    FUZZ_CHECK(body.endsWith(delimiter));
    qsizetype at = 6;
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        FUZZ_CHECK(body.mid(at, delimiter.size()) == delimiter);
        at = body.indexOf("\r\n\r\n", at) + 4;
        QByteArray content;
        if (it.value().metaType() == QMetaType::fromType<ZDFileUpload>())
            content = it.value().value<ZDFileUpload>().data();
        else if (it.value().typeId() == QMetaType::QByteArray)
            content = it.value().toByteArray();
        else
            content = it.value().toString().toUtf8();
        FUZZ_CHECK(body.mid(at, content.size()) == content);
        at += content.size();
        FUZZ_CHECK(body.mid(at, 2) == "\r\n");
        at += 2;
    }
    FUZZ_CHECK(at + delimiter.size() == body.size());
    return 0;
}
