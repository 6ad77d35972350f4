#pragma once

#include <QString>

namespace bible {

struct Ref;
class Local;

// What a verse layer shows from a built-in Bible: the passage, the reference with the Bible's id
// ("Juan 3:16 · RV1909") and the reference alone ("Juan 3:16").
struct Passage
{
    QString text;
    QString reference;
    QString name;
};

// The text of `ref` in `bible`, with the reference written in `language` ("es" or "en"). A whole
// chapter or a range numbers each verse ("1 JEHOVÁ es mi pastor; ... 2 En lugares ..."); one verse
// comes bare. A range past the chapter's end stops at its last verse. Throws std::runtime_error:
// "Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23" for no book or chapter, "Biblia incluida no
// disponible" for a Bible that did not load, "Esa cita no existe en la Biblia" for a chapter or
// verse the Bible lacks.
Passage passageText(const Ref& ref, const Local& bible, const QString& language);

// The same from the built-in Bible that serves `verseLanguage` (a value of verseLanguageFor):
// English text for "en"; Spanish for everything else, "api" and "other:" included, since the
// online Bible and the translation start from the Spanish text.
Passage builtInPassage(const Ref& ref, const QString& verseLanguage);

// The language verses are shown in: `choice` ("auto", "es", "en", "api") unless it is "auto"
// (or empty); then it follows the subtitle translation language, by its English or Spanish name:
// "en", "es", or "other:" + the name in lower case ("other:français").
QString verseLanguageFor(const QString& choice, const QString& translationLanguage);

} // namespace bible
