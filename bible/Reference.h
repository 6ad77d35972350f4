#pragma once

#include <QtGlobal>

class QString;

namespace bible {

// A parsed Bible reference. `book` indexes books(); -1 means no reference. `verse` 0 means the
// whole chapter; `endVerse` equals `verse` when no range was given. No bound is checked here:
// only a Bible's contents know how many chapters and verses a book has.
struct Ref
{
    qint32 book = -1;
    qint32 chapter = 0;
    qint32 verse = 0;
    qint32 endVerse = 0;
};

// Free-form reference as the operator types it, Spanish or English, with or without accents,
// abbreviated or whole: "Juan 3:16", "1 Co 13:4-7", "II Reyes 2", "salmo 23". Never throws;
// anything it cannot read gives book -1.
Ref parse(const QString& text);

// The reference written back in the display language: the Spanish name for "es", else the
// English one. Empty for no book.
QString formatRef(const Ref& ref, const QString& language);

// Canonical decomposition without the non-spacing marks, lower-cased: "Génesis" -> "genesis".
QString normalise(const QString& text);

} // namespace bible
