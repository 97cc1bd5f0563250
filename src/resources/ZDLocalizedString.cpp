#include "resources/ZDLocalizedString.h"

#include "resources/ZDLocalizableTables_p.h"

#include <QHash>
#include <QTranslator>

#include <memory>

namespace {

constexpr char kTableContext[] = "Localizable";

// One translator per language the library has a table for, loaded once from the
// tables compiled into the library.
const QTranslator *tableForLanguage(const QString &language)
{
    static const auto tables = [] {
        QHash<QString, std::shared_ptr<QTranslator>> loaded;
        for (const ZDLocalizableTable &table : zdLocalizableTables()) {
            auto translator = std::make_shared<QTranslator>();
            if (translator->load(table.data, int(table.size)))
                loaded.insert(QString::fromLatin1(table.language), translator);
        }
        return loaded;
    }();
    const auto it = tables.constFind(language);
    return it == tables.constEnd() ? nullptr : it->get();
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
