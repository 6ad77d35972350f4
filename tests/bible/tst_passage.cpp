#include "Books.h"
#include "Local.h"
#include "Passage.h"
#include "Reference.h"

#include <QJsonArray>
#include <QTest>

#include <stdexcept>

namespace {

// Book indices, so the tables read as references.
enum : int { Genesis = 0, Judges = 6, Psalms = 18, Zephaniah = 35, John = 42, Hebrews = 57, John3 = 63 };

const bible::Local& bibleFor(const QString& language)
{
    static const bible::Local absent(QStringLiteral(":/bible-xx-none.qz"));
    return language == "none" ? absent : language == "en" ? bible::english() : bible::spanish();
}

} // namespace

class tst_Passage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void parse_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QList<int>>("ref"); // book, chapter, verse, end verse
        QTest::newRow("iii juan, whole chapter") << "iii juan 1" << QList<int>{John3, 1, 0, 0};
        QTest::newRow("en dash range") << QStringLiteral("Salmos 23:1\u20133") << QList<int>{Psalms, 23, 1, 3};
        QTest::newRow("GÉNESIS, dot, tabs and blanks, glued") << "\tGÉNESIS1 . 28 - 30 " << QList<int>{Genesis, 1, 28, 30};
        QTest::newRow("chapter overflows an int") << "Juan 99999999999:1" << QList<int>{John, 0, 1, 1};
        QTest::newRow("ju resolves by the longest candidate") << "ju 1:1" << QList<int>{Judges, 1, 1, 1};
        QTest::newRow("he exact beats the earlier hechos") << "he 11:1" << QList<int>{Hebrews, 11, 1, 1};
        QTest::newRow("ze ties, the first book met wins") << "ze 1:1" << QList<int>{Zephaniah, 1, 1, 1};
        for (const char* bad : {"j 3:16", "Genesis", "Romanos 8:28-", "Juan 3:16:17", "iiii juan 1:1"})
            QTest::newRow(bad) << bad << QList<int>{-1, 0, 0, 0};
    }

    void parse()
    {
        QFETCH(QString, text);
        const bible::Ref ref = bible::parse(text);
        QTEST((QList<int>{ref.book, ref.chapter, ref.verse, ref.endVerse}), "ref");
    }

    void format()
    {
        const auto formatted = [](const char* typed, const char* language = "es") {
            return bible::formatRef(bible::parse(typed), language);
        };
        QCOMPARE(formatted("1 Co 13:4\u20137"), "1 Corintios 13:4-7"); // an en dash written as a hyphen
        QCOMPARE(formatted("Rom 8:28-20"), "Romanos 8:28"); // a reversed end is dropped
        QCOMPARE(formatted("Juan 3:16", "ES"), "John 3:16");  // only exactly "es" is Spanish
        QCOMPARE(formatted("Genesis"), "");
    }

    void lookup_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("language"); // of the Bible: "es", "en", or "none" for one that did not load
        QTest::addColumn<int>("first");        // the verses shown, of the chapter named; 0 for an error
        QTest::addColumn<int>("last");
        QTest::addColumn<QString>("outcome"); // the reference shown, or the error message
        QTest::newRow("whole chapter") << "Juan 3" << "es" << 1 << 36 << "Juan 3 · RV1909";
        QTest::newRow("one verse comes bare") << "Juan 3:16" << "es" << 16 << 16 << "Juan 3:16 · RV1909";
        QTest::newRow("range stops at chapter end") << "Juan 3:16-999" << "es" << 16 << 36 << "Juan 3:16-999 · RV1909";
        QTest::newRow("Spanish name, English Bible") << "Juan 3:16-18" << "en" << 16 << 18 << "John 3:16-18 · KJV";
        const QString unknown = QStringLiteral("Cita no reconocida. Ejemplo: Juan 3:16 o Salmos 23");
        const QString missing = QStringLiteral("Esa cita no existe en la Biblia");
        QTest::newRow("book without chapter") << "Genesis" << "en" << 0 << 0 << unknown;
        QTest::newRow("chapter 0") << "Juan 0:1" << "es" << 0 << 0 << unknown;
        QTest::newRow("no such chapter") << "Juan 22" << "es" << 0 << 0 << missing;
        QTest::newRow("verse past the end") << "Juan 3:37-40" << "es" << 0 << 0 << missing;
        QTest::newRow("Bible did not load") << "Juan 3:16" << "none" << 0 << 0 << "Biblia incluida no disponible";
        // The operator's typing mistake is named even when the Bible is missing too.
        QTest::newRow("bad reference, no Bible") << "xyz" << "none" << 0 << 0 << unknown;
    }

    // A range or a chapter numbers each verse, single blanks between; one verse comes without its number.
    void lookup()
    {
        QFETCH(QString, typed);
        QFETCH(QString, language);
        QFETCH(int, first);
        QFETCH(int, last);
        QFETCH(QString, outcome);
        const bible::Ref ref = bible::parse(typed);
        bible::Passage passage;
        try {
            passage = bible::passageText(ref, bibleFor(language), language);
        } catch (const std::runtime_error& error) {
            QCOMPARE(QString::fromUtf8(error.what()), outcome);
            QCOMPARE(first, 0);
            return;
        }
        const QJsonArray chapter = bibleFor(language).books.at(ref.book).toArray().at(ref.chapter - 1).toArray();
        QStringList expected;
        for (int n = first; n <= last; ++n)
            expected << (first == last ? QString() : QString::number(n) + u' ') + chapter.at(n - 1).toString();
        QVERIFY(first > 0);
        QCOMPARE(passage.text, expected.join(u' '));
        QCOMPARE(passage.reference, outcome);
        QCOMPARE(passage.name, outcome.section(QStringLiteral(" · "), 0, 0));
    }

    // The language verses are shown in, and the built-in Bible that serves it: the online Bible and the
    // translation start from the Spanish text.
    void verseLanguage_data()
    {
        QTest::addColumn<QString>("choice");
        QTest::addColumn<QString>("translation");
        QTest::addColumn<QString>("language");
        QTest::addColumn<QString>("reference");
        const QString es = QStringLiteral("Juan 3:16 · RV1909"), en = QStringLiteral("John 3:16 · KJV");
        QTest::newRow("auto trimmed, by prefix") << "auto" << "  Inglés (US) " << "en" << en;
        QTest::newRow("auto Français") << "auto" << "Français" << "other:français" << es;
        QTest::newRow("empty choice is auto") << "" << "Spanish" << "es" << es;
        QTest::newRow("en over Spanish subtitles") << "en" << "Español" << "en" << en;
    }

    void verseLanguage()
    {
        QFETCH(QString, choice);
        QFETCH(QString, translation);
        QFETCH(QString, language);
        QCOMPARE(bible::verseLanguageFor(choice, translation), language);
        QTEST(bible::builtInPassage(bible::parse(QStringLiteral("jn 3:16")), language).reference, "reference");
    }
};

QTEST_GUILESS_MAIN(tst_Passage)
#include "tst_passage.moc"
