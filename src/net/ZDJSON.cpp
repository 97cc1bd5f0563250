#include "net/ZDJSON_p.h"

#include "net/JSONHTTPRequest.h"

#include <simdjson.h>

#include <QVariantList>
#include <QVariantMap>

const QString ZDJSONErrorDomain = QStringLiteral("SimdjsonErrorDomain");

namespace {

// The parser's depth limit bounds this recursion.
QVariant toVariant(simdjson::dom::element element)
{
    using Type = simdjson::dom::element_type;
    switch (element.type()) {
    case Type::OBJECT: {
        QVariantMap map;
        for (const auto field : simdjson::dom::object(element)) {
            map.insert(QString::fromUtf8(field.key.data(), qsizetype(field.key.size())),
                       toVariant(field.value));
        }
        return map;
    }
    case Type::ARRAY: {
        QVariantList list;
        for (const auto item : simdjson::dom::array(element))
            list.append(toVariant(item));
        return list;
    }
    case Type::STRING: {
        const std::string_view text(element);
        return QString::fromUtf8(text.data(), qsizetype(text.size()));
    }
    case Type::INT64:
        return qint64(int64_t(element));
    case Type::UINT64:
        return quint64(uint64_t(element));
    case Type::DOUBLE:
        return double(element);
    case Type::BOOL:
        return bool(element);
    case Type::NULL_VALUE:
        return QVariant::fromValue(nullptr);
    }
    return {};
}

} // namespace

std::variant<QVariant, ZDError> zdParseJSON(const QByteArray &body)
{
    simdjson::dom::parser parser;
    const size_t length = size_t(body.size());
    // The parser reads a few bytes past the end; when the buffer already has that
    // much room it is parsed in place, otherwise it is copied once.
    const bool padded = size_t(body.capacity() - body.size()) >= simdjson::SIMDJSON_PADDING;
    simdjson::dom::element root;
    const simdjson::error_code code = parser.parse(body.constData(), length, !padded).get(root);
    if (code != simdjson::SUCCESS) {
        return ZDError(
            ZDJSONErrorDomain, qint64(code),
            {{ZDLocalizedDescriptionKey, QString::fromUtf8(simdjson::error_message(code))}});
    }
    return toVariant(root);
}
