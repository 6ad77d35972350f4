#include "Passage.h"

#include "Local.h"
#include "Reference.h"

#include <QJsonArray>
#include <QStringList>

#include <algorithm>
#include <stdexcept>

namespace bible {

namespace {

[[noreturn]] void fail(const char* text)
{
    throw std::runtime_error(text);
}

} // namespace

Passage passageText(const Ref& ref, const Local& bible, const QString& language)
{
    if (ref.book < 0 || ref.chapter < 1)
        fail("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
    if (!bible.valid)
        fail("Biblia incluida no disponible");
    if (ref.book >= bible.books.size())
        fail("Esa cita no existe en la Biblia");
    const QJsonArray book = bible.books.at(ref.book).toArray();
    if (ref.chapter > book.size())
        fail("Esa cita no existe en la Biblia");
    const QJsonArray chapter = book.at(ref.chapter - 1).toArray();

    const int last = int(chapter.size());
    const int first = ref.verse == 0 ? 1 : ref.verse;
    const int end = ref.verse == 0 ? last : std::min(ref.endVerse, last);
    if (first < 1 || first > end)
        fail("Esa cita no existe en la Biblia");

    Passage passage;
    if (first == end) {
        passage.text = chapter.at(first - 1).toString();
    } else {
        QString text;
        for (int verse = first; verse <= end; ++verse) {
            if (verse > first)
                text += u' ';
            text += QString::number(verse);
            text += u' ';
            text += chapter.at(verse - 1).toString();
        }
        passage.text = text;
    }
    passage.name = formatRef(ref, language);
    passage.reference = passage.name + QStringLiteral(" · ") + bible.id;
    return passage;
}

Passage builtInPassage(const Ref& ref, const QString& verseLanguage)
{
    const bool english = verseLanguage == QLatin1String("en");
    // The reference is checked before a Bible is chosen, so a bad one never unpacks a Bible.
    if (ref.book < 0 || ref.chapter < 1)
        fail("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
    return passageText(ref, english ? bible::english() : bible::spanish(),
                       english ? QStringLiteral("en") : QStringLiteral("es"));
}

QString verseLanguageFor(const QString& choice, const QString& translationLanguage)
{
    if (!choice.isEmpty() && choice != QLatin1String("auto"))
        return choice;
    const QString name = translationLanguage.trimmed().toLower();
    if (name.startsWith(QLatin1String("spanish")) || name.startsWith(QLatin1String("espa")))
        return QStringLiteral("es");
    if (name.startsWith(QLatin1String("english")) || name.startsWith(QLatin1String("ingl")))
        return QStringLiteral("en");
    return QStringLiteral("other:") + name;
}

} // namespace bible
