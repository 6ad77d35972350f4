#include "i18n.h"
#include "i18n_english.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QSet>
#include <QTest>

class tst_I18n : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { tavrin_i18n::language() = QStringLiteral("es"); }
    void translate_data();
    void translate();
    void tableKeysAreUnique();
    void everyTextInTheCodeHasEnglish();
};

void tst_I18n::translate_data()
{
    QTest::addColumn<QString>("language");
    QTest::addColumn<QByteArray>("spanish");
    QTest::addColumn<QString>("expected");

    QTest::newRow("es never consults the table") << "es" << QByteArray("AL AIRE  →") << "AL AIRE  →";
    QTest::newRow("en known key") << "en" << QByteArray("AL AIRE  →") << "ON AIR  →";
    QTest::newRow("en key with different blanks is another key") << "en" << QByteArray("AL AIRE →") << "AL AIRE →";
    QTest::newRow("en unknown text unchanged") << "en" << QByteArray("Texto que nadie tradujo") << "Texto que nadie tradujo";
    QTest::newRow("en lost signal keeps the source's words")
        << "en" << QByteArray("Fuente sin señal: Cámara USB [v4l2 error]") << "Source lost signal: Cámara USB [v4l2 error]";
    QTest::newRow("en prefix is case-sensitive") << "en" << QByteArray("fuente sin señal: x") << "fuente sin señal: x";
    QTest::newRow("unset language behaves as Spanish") << "" << QByteArray("Escena 1") << "Escena 1";
}

void tst_I18n::translate()
{
    QFETCH(QString, language);
    QFETCH(QByteArray, spanish);
    QFETCH(QString, expected);

    tavrin_i18n::language() = language;
    QCOMPARE(T(spanish.constData()), expected);
}

void tst_I18n::tableKeysAreUnique()
{
    QSet<QString> keys;
    for (const auto& [spanish, english] : tavrin_i18n::englishPairs()) {
        const QString key = QString::fromUtf8(spanish);
        QVERIFY2(!keys.contains(key), qPrintable(QStringLiteral("duplicate key: ") + key));
        QVERIFY2(*english, qPrintable(QStringLiteral("empty English for: ") + key));
        keys.insert(key);
    }
    QCOMPARE(tavrin_i18n::english().size(), keys.size());
}

// Reads C string literals as the compiler would for the escapes the code uses.
static QString unescape(const QString& literal)
{
    QString out;
    for (qsizetype i = 0; i < literal.size(); ++i) {
        if (literal[i] != u'\\' || i + 1 == literal.size()) {
            out += literal[i];
            continue;
        }
        const QChar next = literal[++i];
        out += next == u'n' ? QChar(u'\n') : next == u't' ? QChar(u'\t') : next;
    }
    return out;
}

// Every text of the sources that can reach the operator must have an English row, or it would stay
// Spanish in the English interface without a report: the literals passed to T, the texts thrown
// (shown through T where they are caught) and those a pipeline leaves in its error field, which the
// window shows through T as well. Adjacent literals are joined as the compiler joins them.
void tst_I18n::everyTextInTheCodeHasEnglish()
{
    const QRegularExpression call(
        QStringLiteral(R"re((?:\bT|_error|\bfail|\b(?:error|reason)\s*=)\s*\(?((?:\s*"(?:[^"\\]|\\.)*")+)\s*[);+])re"));
    const QRegularExpression piece(QStringLiteral(R"re("((?:[^"\\]|\\.)*)")re"));
    const auto& table = tavrin_i18n::english();
    QStringList missing;
    int found = 0;
    for (const char* folder : {"app", "core", "scene", "media", "translation", "bible", "credentials"}) {
        QDirIterator files(QStringLiteral(VELMORA_SOURCE_DIR "/") + QLatin1String(folder),
                           {QStringLiteral("*.cpp"), QStringLiteral("*.h")}, QDir::Files,
                           QDirIterator::Subdirectories);
        while (files.hasNext()) {
            QFile file(files.next());
            QVERIFY(file.open(QIODevice::ReadOnly));
            const QString source = QString::fromUtf8(file.readAll());
            for (auto match = call.globalMatch(source); match.hasNext();) {
                QString key;
                for (auto part = piece.globalMatch(match.next().captured(1)); part.hasNext();)
                    key += unescape(part.next().captured(1));
                ++found;
                if (!table.contains(key) && !missing.contains(key))
                    missing.append(key);
            }
        }
    }
    QVERIFY(found > 300);
    QVERIFY2(missing.isEmpty(), qPrintable(QStringLiteral("no English for: ") + missing.join(QStringLiteral(" | "))));
}

QTEST_GUILESS_MAIN(tst_I18n)
#include "tst_i18n.moc"
