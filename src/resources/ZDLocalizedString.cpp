#include "resources/ZDLocalizedString.h"

#include "resources/ZDLocalizableTables_p.h"

#include <QHash>
#include <QTranslator>

#include <memory>

namespace {

constexpr char kTableContext[] = "Localizable";

// One translator per language, loaded from the tables compiled into the
// library; null where the library has no table for that language.
const QTranslator *tableForLanguage(const QString &language)
{
    static QHash<QString, std::shared_ptr<QTranslator>> cache;
    if (auto it = cache.constFind(language); it != cache.constEnd())
        return it->get();
    std::shared_ptr<QTranslator> translator;
    for (const ZDLocalizableTable &table : zdLocalizableTables()) {
        if (QLatin1StringView(table.language) == language) {
            translator = std::make_shared<QTranslator>();
            if (!translator->load(table.data, int(table.size)))
                translator.reset();
            break;
        }
    }
    cache.insert(language, translator);
    return translator.get();
}

} // namespace

QString ZDLocalizedString(const QString &key, const QLocale &locale)
{
    const QByteArray utf8Key = key.toUtf8();
    const QString language = QLocale::languageToCode(locale.language());
    for (const QString &candidate : {language, QStringLiteral("en")}) {
        if (const QTranslator *table = tableForLanguage(candidate)) {
            const QString text = table->translate(kTableContext, utf8Key.constData());
            if (!text.isEmpty())
                return text;
        }
    }
    return QString();
}
