#include "Processes.h"
#include "SecretStore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

#include <glib.h>
#include <sys/stat.h>

// Each case runs in a child process of its own, under the D-Bus session it needs (a process keeps the
// session bus of its first call), from an empty data folder and keyring. The child runs the same function.
namespace {

const char* const peerVariable = "VELMORA_SECRETS_PEER";

QString secretsPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) + QStringLiteral("/secrets.json");
}

QByteArray fileBytes()
{
    QFile file(secretsPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFileBytes(const QByteArray& bytes)
{
    QFile file(secretsPath());
    return QDir().mkpath(QFileInfo(file).path()) && file.open(QFile::WriteOnly) && file.write(bytes) == bytes.size();
}

// The keyring's items under a target, as the desktop's own tool lists them: (secret, count).
QPair<QString, int> keyringItems(const QString& name)
{
    QProcess process;
    process.start("secret-tool", {"search", "--all", "--unlock", "target", "TavrinStudio/" + name});
    process.waitForFinished(10000);
    const QString output = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    const auto match = QRegularExpression("^secret = (.*)$", QRegularExpression::MultilineOption).match(output);
    return {match.captured(1), int(output.count(QRegularExpression("^\\[/", QRegularExpression::MultilineOption)))};
}

// In the parent: runs the current case in a child on `bus`, and tells so.
bool inParent(ChildBus bus)
{
    if (!qEnvironmentVariableIsEmpty(peerVariable))
        return false;
    const ChildOutcome outcome = runCaseInChild(QStringLiteral(VELMORA_TEST_OUTPUT), peerVariable, "child", bus);
    // Without any Secret Service the store stays silent: no warning reaches the terminal.
    QTest::qVerify(outcome.passed && (outcome.errors.trimmed().isEmpty() || bus == ChildBus::Keyring),
                   "outcome", qPrintable(outcome.report), __FILE__, __LINE__);
    return true;
}

} // namespace

class tst_SecretStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
        QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
        // In a child, a GLib warning or critical from the store's calls fails the case outright.
        if (!qEnvironmentVariableIsEmpty(peerVariable))
            g_log_set_always_fatal(GLogLevelFlags(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
    }

    void keyringAndFileTogether()
    {
        if (inParent(ChildBus::Keyring))
            return;
        // Written twice, a secret is one keyring item under its target, replaced rather than duplicated.
        const QString stream = QStringLiteral("stream-Otro RTMP"), value = QStringLiteral("clave-ñandú-✓");
        QVERIFY(storeSecret(stream, QStringLiteral("an older key")) && storeSecret(stream, value));
        QCOMPARE(keyringItems(stream), qMakePair(value, 1));
        // A secret only in the keyring reads through; the file is read first.
        QVERIFY(storeSecret("apibible", "bible-key-42") && storeSecret("openai", "sk-in-both"));
        QVERIFY(writeFileBytes(R"({"openai":"sk-edited-in-file"})"));
        QCOMPARE(readSecret("apibible"), QStringLiteral("bible-key-42"));
        QCOMPARE(readSecret("openai"), QStringLiteral("sk-edited-in-file"));
        // An empty value removes the secret from both, and nothing else.
        QVERIFY(storeSecret("openai", QString()));
        QCOMPARE(fileBytes(), QByteArray("{}"));
        QCOMPARE(keyringItems("openai").second, 0);
        QCOMPARE(readSecret("apibible"), QStringLiteral("bible-key-42"));
        // A file that cannot be written (a folder, even for root) leaves the key to the keyring.
        QVERIFY(QFile::remove(secretsPath()) && QDir().mkpath(secretsPath()));
        QVERIFY(storeSecret("stream-Facebook", "fb-key"));
        QCOMPARE(readSecret("stream-Facebook"), QStringLiteral("fb-key"));
    }

    // Without a Secret Service the file serves alone, owner read/write only, until unwritable; failing at once.
    void fileServesAlone()
    {
        if (inParent(ChildBus::Nowhere))
            return;
        QVERIFY(writeFileBytes(R"({"apibible":"b"})")); // readable by all before
        QCOMPARE(::chmod(QFile::encodeName(secretsPath()).constData(), 0666), 0);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(storeSecret("openai", "k1"));
        QVERIFY2(timer.elapsed() < 3000, qPrintable(QString::number(timer.elapsed())));
        QCOMPARE(fileBytes(), QByteArray(R"({"apibible":"b","openai":"k1"})"));
        struct stat info{};
        QCOMPARE(::stat(QFile::encodeName(secretsPath()).constData(), &info), 0);
        QCOMPARE(info.st_mode & 07777, 0600u);
        QVERIFY(QFile::remove(secretsPath()) && QDir().mkpath(secretsPath()));
        QVERIFY(!storeSecret("stream-Facebook", "fb-key"));
        QCOMPARE(readSecret("stream-Facebook"), QString());
    }
};

QTEST_GUILESS_MAIN(tst_SecretStore)
#include "tst_secretstore.moc"
