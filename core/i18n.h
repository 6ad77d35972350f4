#pragma once

#include <QHash>
#include <QString>

// Every user text is written in Spanish and passes through T; English comes from one table keyed
// by the Spanish text, exactly as written (punctuation and trailing blanks included).
QString T(const char* text);

namespace tavrin_i18n {

// The interface language, "es" or "en". Set once at start-up, before any window exists.
QString& language();

// Spanish key -> English text, built on first use.
QHash<QString, QString>& english();

} // namespace tavrin_i18n
