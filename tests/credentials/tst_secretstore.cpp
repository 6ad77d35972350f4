#include "ChildCase.h"
#include "GstPtr.h"
#include "SecretStore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

#include <gio/gio.h>
#include <sys/stat.h>

// Each case runs in a child process of its own, under the D-Bus session it needs: a private bus
// with a freshly unlocked gnome-keyring, no bus, a bus address that leads nowhere, or a Secret
// Service that never answers. A process keeps the session bus of its first call, and every case
// starts from an empty data folder and keyring. The child runs the same test function.
class tst_SecretStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void keyringAndFileTogether();
    void fileCannotBeWritten_data();
    void fileCannotBeWritten();

    void fileServesAlone_data();
    void fileServesAlone();
    void silentSecretServiceIsBounded();
};

namespace {

const char* const peerVariable = "VELMORA_SECRETS_PEER";
const QString keyring = QStringLiteral("keyring");
const QString noBus = QStringLiteral("none");
const QString busNowhere = QStringLiteral("nowhere");
const QString silentService = QStringLiteral("silent");

QString childPeer()
{
    return qEnvironmentVariable(peerVariable);
}

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
    QDir().mkpath(QFileInfo(secretsPath()).path());
    QFile file(secretsPath());
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size();
}

// The keyring's items under a target, as the desktop's own tool lists them: (secret, count).
QPair<QString, int> keyringItems(const QString& name)
{
    QProcess process;
    process.start(QStringLiteral("secret-tool"),
                  {QStringLiteral("search"), QStringLiteral("--all"), QStringLiteral("--unlock"),
                   QStringLiteral("target"), QStringLiteral("TavrinStudio/") + name});
    if (!process.waitForFinished(10000)) {
        process.kill();
        process.waitForFinished();
        return {QString(), -1};
    }
    const QString output = QString::fromUtf8(process.readAllStandardOutput() + process.readAllStandardError());
    const int count = int(output.count(QRegularExpression(QStringLiteral("^\\[/"), QRegularExpression::MultilineOption)));
    const QRegularExpressionMatch secret =
        QRegularExpression(QStringLiteral("^secret = (.*)$"), QRegularExpression::MultilineOption).match(output);
    return {secret.hasMatch() ? secret.captured(1) : QString(), count};
}

GDBusMessage* dropMethodCalls(GDBusConnection*, GDBusMessage* message, gboolean incoming, gpointer)
{
    if (incoming && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
        g_object_unref(message);
        return nullptr;
    }
    return message;
}

// Owns the Secret Service's bus name on a connection of its own and drops every call made to it:
// to a caller, a keyring daemon that has stopped answering.
class SilentSecretService
{
public:
    bool start()
    {
        GError* rawError = nullptr;
        const gstptr::String address(g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SESSION, nullptr, &rawError));
        gstptr::Error error(rawError);
        if (!address)
            return false;
        connection.reset(g_dbus_connection_new_for_address_sync(
            address.get(),
            GDBusConnectionFlags(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                 G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, &rawError));
        error.reset(rawError);
        if (!connection)
            return false;
        g_dbus_connection_add_filter(connection.get(), dropMethodCalls, nullptr, nullptr);
        constexpr guint32 doNotQueue = 4;
        const gstptr::Variant reply(g_dbus_connection_call_sync(
            connection.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
            "RequestName", g_variant_new("(su)", "org.freedesktop.secrets", doNotQueue), G_VARIANT_TYPE("(u)"),
            G_DBUS_CALL_FLAGS_NONE, 5000, nullptr, &rawError));
        error.reset(rawError);
        if (!reply)
            return false;
        guint32 result = 0;
        g_variant_get(reply.get(), "(u)", &result);
        constexpr guint32 primaryOwner = 1;
        return result == primaryOwner;
    }

private:
    gstptr::GlibObject<GDBusConnection> connection;
};

// Starts the current case (function and data row) in a child process under the given peer and
// fails with the child's output unless it passed.
void runChild(const QString& peer)
{
    const ChildBus bus = peer == keyring         ? ChildBus::Keyring
                         : peer == silentService ? ChildBus::Empty
                         : peer == busNowhere    ? ChildBus::Nowhere
                                                 : ChildBus::None;
    const ChildOutcome outcome = runCaseInChild(QStringLiteral(VELMORA_TEST_OUTPUT), peerVariable, peer, bus);
    QVERIFY2(outcome.passed, qPrintable(outcome.report));
    // Without any Secret Service the store stays silent: no warning reaches the terminal.
    if (peer == noBus || peer == busNowhere)
        QVERIFY2(outcome.errors.trimmed().isEmpty(), qPrintable(outcome.report));
}

} // namespace

void tst_SecretStore::initTestCase()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Lorvane"));
    QCoreApplication::setApplicationName(QStringLiteral("TavrinStudio"));
    // In a child, a GLib warning or critical from the store's calls fails the case outright.
    if (!childPeer().isEmpty())
        g_log_set_always_fatal(GLogLevelFlags(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_CRITICAL));
}

void tst_SecretStore::keyringAndFileTogether()
{
    if (childPeer().isEmpty())
        return runChild(keyring);

    // Written twice, a secret is one keyring item under its target, replaced rather than duplicated.
    const QString stream = QStringLiteral("stream-Otro RTMP");
    const QString value = QStringLiteral("clave-ñandú-✓");
    QVERIFY(storeSecret(stream, QStringLiteral("an older key")));
    QVERIFY(storeSecret(stream, value));
    QCOMPARE(fileBytes(), QJsonDocument(QJsonObject{{stream, value}}).toJson(QJsonDocument::Compact));
    QCOMPARE(keyringItems(stream), qMakePair(value, 1));

    // A secret only in the keyring reads through; the file is read first.
    QVERIFY(storeSecret(QStringLiteral("apibible"), QStringLiteral("bible-key-42")));
    QVERIFY(storeSecret(QStringLiteral("openai"), QStringLiteral("sk-in-both")));
    QVERIFY(writeFileBytes(R"({"openai":"sk-edited-in-file"})"));
    QCOMPARE(readSecret(QStringLiteral("apibible")), QStringLiteral("bible-key-42"));
    QCOMPARE(readSecret(QStringLiteral("openai")), QStringLiteral("sk-edited-in-file"));
    QCOMPARE(keyringItems(QStringLiteral("openai")).first, QStringLiteral("sk-in-both"));

    // An empty value removes the secret from both, and nothing else.
    QVERIFY(storeSecret(QStringLiteral("openai"), QString()));
    QCOMPARE(fileBytes(), QByteArray("{}"));
    QCOMPARE(readSecret(QStringLiteral("openai")), QString());
    QCOMPARE(keyringItems(QStringLiteral("openai")).second, 0);
    QCOMPARE(readSecret(QStringLiteral("apibible")), QStringLiteral("bible-key-42"));
}

void tst_SecretStore::fileCannotBeWritten_data()
{
    QTest::addColumn<QString>("peer");

    QTest::newRow("keyring takes the key") << keyring;
    QTest::newRow("nothing holds") << noBus;
}

void tst_SecretStore::fileCannotBeWritten()
{
    QFETCH(QString, peer);
    if (childPeer().isEmpty())
        return runChild(peer);

    // A folder where the file should be, which not even root can write as a file.
    QVERIFY(QDir().mkpath(secretsPath()));
    const QString held = peer == keyring ? QStringLiteral("fb-key") : QString();
    QCOMPARE(storeSecret(QStringLiteral("stream-Facebook"), QStringLiteral("fb-key")), !held.isEmpty());
    QCOMPARE(readSecretFile(QStringLiteral("stream-Facebook")), QString());
    QCOMPARE(readSecret(QStringLiteral("stream-Facebook")), held);
}

void tst_SecretStore::fileServesAlone_data()
{
    QTest::addColumn<QString>("peer");
    QTest::addColumn<QByteArray>("existing");
    QTest::addColumn<int>("existingMode"); // 0: no file yet
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("expected");

    const QByteArray k1 = R"({"openai":"k1"})";
    QTest::newRow("new file") << noBus << QByteArray() << 0 << QStringLiteral("k1") << k1;
    QTest::newRow("bus address leads nowhere") << busNowhere << QByteArray() << 0 << QStringLiteral("k1") << k1;
    QTest::newRow("readable by all before") << noBus << QByteArray(R"({"apibible":"b"})") << 0666
                                            << QStringLiteral("k1") << QByteArray(R"({"apibible":"b","openai":"k1"})");
    QTest::newRow("entry removed") << noBus << QByteArray(R"({"openai":"old","apibible":"b"})") << 0644 << QString()
                                   << QByteArray(R"({"apibible":"b"})");
    // A file that is no JSON object reads as no secrets and is written over.
    QTest::newRow("cut short") << noBus << QByteArray(R"({"openai":"sk-12)") << 0600 << QStringLiteral("k1") << k1;
    QTest::newRow("array") << noBus << QByteArray(R"(["openai","sk-123"])") << 0600 << QStringLiteral("k1") << k1;
}

// Without a Secret Service the file serves alone, owner read/write only, and a missing bus fails
// at once: nothing here waits for the bound on a silent service.
void tst_SecretStore::fileServesAlone()
{
    QFETCH(QString, peer);
    QFETCH(QByteArray, existing);
    QFETCH(int, existingMode);
    QFETCH(QString, value);
    QFETCH(QByteArray, expected);
    if (childPeer().isEmpty())
        return runChild(peer);

    if (existingMode != 0) {
        QVERIFY(writeFileBytes(existing));
        QCOMPARE(::chmod(QFile::encodeName(secretsPath()).constData(), mode_t(existingMode)), 0);
    }
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(readSecretsFile(), QJsonDocument::fromJson(existing).object());
    QVERIFY(storeSecret(QStringLiteral("openai"), value));
    QCOMPARE(readSecret(QStringLiteral("openai")), value);
    QVERIFY2(timer.elapsed() < 3000, qPrintable(QStringLiteral("took %1 ms").arg(timer.elapsed())));
    QCOMPARE(fileBytes(), expected);
    struct stat info{};
    QCOMPARE(::stat(QFile::encodeName(secretsPath()).constData(), &info), 0);
    QCOMPARE(info.st_mode & 07777, 0600u);
}

void tst_SecretStore::silentSecretServiceIsBounded()
{
    if (childPeer().isEmpty())
        return runChild(silentService);

    SilentSecretService service;
    QVERIFY(service.start());

    // Each call to the service is kept waiting, then given up after its bound; the file has taken
    // the key by then, and a key in the file is read without asking the service at all.
    QElapsedTimer timer;
    timer.start();
    QVERIFY(storeSecret(QStringLiteral("openai"), QStringLiteral("sk-silent")));
    const qint64 storeMs = timer.restart();
    QCOMPARE(readSecret(QStringLiteral("openai")), QStringLiteral("sk-silent"));
    const qint64 fileReadMs = timer.restart();
    QCOMPARE(readSecret(QStringLiteral("apibible")), QString());
    const qint64 serviceReadMs = timer.elapsed();
    QVERIFY2(storeMs > 1000 && storeMs < 10000 && fileReadMs < 1000 && serviceReadMs < 10000,
             qPrintable(QStringLiteral("store %1 ms, file read %2 ms, service read %3 ms")
                            .arg(storeMs).arg(fileReadMs).arg(serviceReadMs)));
}

QTEST_GUILESS_MAIN(tst_SecretStore)
#include "tst_secretstore.moc"
