#include "i18n.h"

#include "i18n_english.h"

namespace tavrin_i18n {

QString& language()
{
    static QString value = QStringLiteral("es");
    return value;
}

QHash<QString, QString>& english()
{
    static QHash<QString, QString> table = [] {
        QHash<QString, QString> built;
        for (const auto& [spanish, englishText] : englishPairs())
            built.insert(QString::fromUtf8(spanish), QString::fromUtf8(englishText));
        return built;
    }();
    return table;
}

} // namespace tavrin_i18n

QString T(const char* text)
{
    const QString spanish = QString::fromUtf8(text);
    if (tavrin_i18n::language() != QLatin1String("en"))
        return spanish;
    const auto& table = tavrin_i18n::english();
    if (const auto found = table.constFind(spanish); found != table.cend())
        return found.value();
    // The one message built at run time that the table cannot hold: a source's own error text follows.
    static const QString lostSignal = QStringLiteral("Fuente sin señal: ");
    if (spanish.startsWith(lostSignal))
        return QStringLiteral("Source lost signal: ") + spanish.mid(lostSignal.size());
    return spanish;
}
