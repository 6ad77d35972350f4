#include "Reference.h"

#include "Books.h"

#include <QRegularExpression>
#include <QString>
#include <QStringList>

namespace bible {

QString normalise(const QString& text)
{
    const QString decomposed = text.normalized(QString::NormalizationForm_D);
    QString out;
    out.reserve(decomposed.size());
    for (const QChar c : decomposed) {
        if (c.category() != QChar::Mark_NonSpacing)
            out += c.toLower();
    }
    return out;
}

// Candidates of one book in the order they are tried: aliases, then the Spanish and English
// names normalised like the input.
static const QList<QStringList>& candidates()
{
    static const QList<QStringList> all = [] {
        QList<QStringList> list;
        for (const Book& book : books()) {
            QStringList names = QString::fromUtf8(book.aliases).split(u'|');
            names << normalise(QString::fromUtf8(book.spanish)) << normalise(QString::fromUtf8(book.english));
            list << names;
        }
        return list;
    }();
    return all;
}

// An exact match ends the search; otherwise the longest candidate that begins with the name wins,
// the first met among equals. A one-letter name never matches by prefix.
static int findBook(const QString& name)
{
    int best = -1;
    qsizetype bestLength = 0;
    const QList<QStringList>& all = candidates();
    for (int book = 0; book < all.size(); ++book) {
        for (const QString& candidate : all[book]) {
            if (candidate == name)
                return book;
            if (name.size() >= 2 && candidate.startsWith(name) && candidate.size() > bestLength) {
                best = book;
                bestLength = candidate.size();
            }
        }
    }
    return best;
}

Ref parse(const QString& text)
{
    QString input = normalise(text).simplified();

    // "ii reyes 2" reads "2 reyes 2"; the longest run of i's is tried first.
    for (int n = 3; n >= 1; --n) {
        const QString prefix = QString(n, u'i') + u' ';
        if (input.startsWith(prefix)) {
            input = QString::number(n) + u' ' + input.mid(prefix.size());
            break;
        }
    }

    static const QRegularExpression pattern(QStringLiteral(
        "^(\\d?\\s*[a-z ]+?)\\s*(\\d+)(?:\\s*[:.,]\\s*(\\d+)(?:\\s*[-\u2013]\\s*(\\d+))?)?\\s*$"));
    const QRegularExpressionMatch match = pattern.match(input);
    if (!match.hasMatch())
        return {};

    const QString name = match.captured(1).simplified();
    if (name.isEmpty())
        return {};
    const int book = findBook(name);
    if (book < 0)
        return {};

    Ref ref;
    ref.book = book;
    ref.chapter = match.captured(2).toInt(); // 0 when the digits overflow an int
    ref.verse = match.hasCaptured(3) ? match.captured(3).toInt() : 0;
    ref.endVerse = match.hasCaptured(4) ? match.captured(4).toInt() : ref.verse;
    return ref;
}

QString formatRef(const Ref& ref, const QString& language)
{
    if (ref.book < 0 || ref.book >= static_cast<qint32>(books().size()))
        return {};
    const Book& book = books()[static_cast<std::size_t>(ref.book)];
    QString text = QString::fromUtf8(language == QLatin1String("es") ? book.spanish : book.english) + u' '
        + QString::number(ref.chapter);
    if (ref.verse > 0)
        text += u':' + QString::number(ref.verse);
    if (ref.endVerse > ref.verse)
        text += u'-' + QString::number(ref.endVerse);
    return text;
}

} // namespace bible
