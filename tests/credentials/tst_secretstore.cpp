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
#include <QTemporaryDir>
#include <QTest>

#include <gio/gio.h>
#include <sys/stat.h>

// Each case runs in a child process of its own, started by this test under the D-Bus session it
// needs: a private bus with a freshly unlocked gnome-keyring, no bus at all, a bus address that
// leads nowhere, or a bus whose Secret Service takes calls and never answers. A process keeps the
// session bus of its first call, and every case starts from an empty data folder and keyring.
// The child runs the same test function; the environment variable below tells it which it is.
class tst_SecretStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void writtenSecretReadsBack_data();
    void writtenSecretReadsBack();
    void secretOnlyInStoreReadsThrough();
    void fileIsReadFirst();
    void emptyValueRemovesSecret();
    void fileFailsStoreHolds();

    void permissionsAreOwnerOnly_data();
    void permissionsAreOwnerOnly();
    void fileNotAnObjectReadsEmpty_data();
    void fileNotAnObjectReadsEmpty();
    void noSecretServiceFileServes_data();
    void noSecretServiceFileServes();
    void bothFailingGivesFalse_data();
    void bothFailingGivesFalse();
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

int fileMode()
{
    struct stat info{};
    return ::stat(QFile::encodeName(secretsPath()).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
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
    const QString function = QString::fromLatin1(QTest::currentTestFunction());
    const QString tag = QString::fromUtf8(QTest::currentDataTag());
    const QString caseName = tag.isEmpty() ? function : function + u':' + tag;

    QString folderName = tag.isEmpty() ? function : function + u'-' + tag;
    folderName.replace(QRegularExpression(QStringLiteral("[^A-Za-z0-9_-]")), QStringLiteral("_"));
    const QString folder = QStringLiteral(VELMORA_TEST_OUTPUT) + u'/' + folderName;
    QDir(folder).removeRecursively();
    QVERIFY(QDir().mkpath(folder + QStringLiteral("/home")));
    // The runtime folder holds sockets, whose paths must stay short.
    const QTemporaryDir runtime;
    QVERIFY(runtime.isValid());

    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), folder + QStringLiteral("/home"));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), folder + QStringLiteral("/data"));
    environment.insert(QStringLiteral("XDG_CONFIG_HOME"), folder + QStringLiteral("/config"));
    environment.insert(QStringLiteral("XDG_CACHE_HOME"), folder + QStringLiteral("/cache"));
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), runtime.path());
    environment.insert(QString::fromLatin1(peerVariable), peer);
    // No display: nothing may fall back to an X11 bus or a graphical unlock prompt.
    environment.remove(QStringLiteral("DISPLAY"));
    environment.remove(QStringLiteral("WAYLAND_DISPLAY"));
    environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    if (peer == busNowhere)
        environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                           QStringLiteral("unix:path=") + runtime.path() + QStringLiteral("/no-bus"));

    const QString self = QCoreApplication::applicationFilePath();
    QString program = self;
    QStringList arguments{caseName};
    if (peer == keyring || peer == silentService) {
        for (const char* tool : {"dbus-run-session", "gnome-keyring-daemon", "secret-tool"})
            QVERIFY2(!QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty(),
                     qPrintable(QStringLiteral("%1 is missing: tools/deps.sh test installs it").arg(QLatin1String(tool))));
        program = QStringLiteral("dbus-run-session");
        if (peer == keyring)
            arguments = {QStringLiteral("--"), QStringLiteral("sh"), QStringLiteral("-c"),
                         QStringLiteral("printf %s test-password | gnome-keyring-daemon --unlock --components=secrets "
                                        ">/dev/null || { echo 'gnome-keyring-daemon did not start' >&2; exit 97; }; "
                                        "exec \"$0\" \"$1\""),
                         self, caseName};
        else
            arguments = {QStringLiteral("--"), self, caseName};
    }

    QProcess process;
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    QVERIFY2(process.waitForStarted(10000), qPrintable(program + QStringLiteral(" did not start")));
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        QFAIL(qPrintable(caseName + QStringLiteral(" did not finish within 60 s")));
    }
    const QString output = QString::fromUtf8(process.readAllStandardOutput());
    const QString errors = QString::fromUtf8(process.readAllStandardError());
    const QString report = QStringLiteral("%1 under \"%2\" gave:\n%3\n%4").arg(caseName, peer, output, errors);
    QVERIFY2(process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0, qPrintable(report));
    // Without any Secret Service the store stays silent: no warning reaches the terminal.
    if (peer == noBus || peer == busNowhere)
        QVERIFY2(errors.trimmed().isEmpty(), qPrintable(report));
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

void tst_SecretStore::writtenSecretReadsBack_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("value");

    QTest::newRow("ai key") << QStringLiteral("openai") << QStringLiteral("sk-proj-Abc123_xyz-789");
    QTest::newRow("stream row with a space") << QStringLiteral("stream-Otro RTMP") << QStringLiteral("clave-ñandú-✓");
    QTest::newRow("long key") << QStringLiteral("apibible") << QString(300, u'k');
}

void tst_SecretStore::writtenSecretReadsBack()
{
    if (childPeer().isEmpty())
        return runChild(keyring);
    QFETCH(QString, name);
    QFETCH(QString, value);

    QVERIFY(storeSecret(name, QStringLiteral("an older key")));
    QVERIFY(storeSecret(name, value));

    QCOMPARE(readSecret(name), value);
    QCOMPARE(readSecretFile(name), value);
    QCOMPARE(fileBytes(), QJsonDocument(QJsonObject{{name, value}}).toJson(QJsonDocument::Compact));
    // The keyring holds one item under the documented target, replaced rather than duplicated.
    const auto [secret, count] = keyringItems(name);
    QCOMPARE(count, 1);
    QCOMPARE(secret, value);
}

void tst_SecretStore::secretOnlyInStoreReadsThrough()
{
    if (childPeer().isEmpty())
        return runChild(keyring);

    QVERIFY(storeSecret(QStringLiteral("apibible"), QStringLiteral("bible-key-42")));
    QVERIFY(storeSecret(QStringLiteral("openai"), QStringLiteral("sk-kept")));
    QJsonObject secrets = readSecretsFile();
    secrets.remove(QStringLiteral("apibible"));
    QVERIFY(writeFileBytes(QJsonDocument(secrets).toJson(QJsonDocument::Compact)));

    QCOMPARE(readSecretFile(QStringLiteral("apibible")), QString());
    QCOMPARE(readSecret(QStringLiteral("apibible")), QStringLiteral("bible-key-42"));
    QCOMPARE(readSecretFile(QStringLiteral("openai")), QStringLiteral("sk-kept"));
}

void tst_SecretStore::fileIsReadFirst()
{
    if (childPeer().isEmpty())
        return runChild(keyring);

    QVERIFY(storeSecret(QStringLiteral("openai"), QStringLiteral("sk-in-both")));
    QVERIFY(writeFileBytes(R"({"openai":"sk-edited-in-file"})"));

    QCOMPARE(readSecret(QStringLiteral("openai")), QStringLiteral("sk-edited-in-file"));
    QCOMPARE(keyringItems(QStringLiteral("openai")).first, QStringLiteral("sk-in-both"));
}

void tst_SecretStore::emptyValueRemovesSecret()
{
    if (childPeer().isEmpty())
        return runChild(keyring);

    QVERIFY(storeSecret(QStringLiteral("openai"), QStringLiteral("sk-to-remove")));
    QVERIFY(storeSecret(QStringLiteral("stream-YouTube"), QStringLiteral("yt-key")));
    QVERIFY(storeSecret(QStringLiteral("openai"), QString()));

    QCOMPARE(fileBytes(), QByteArray(R"({"stream-YouTube":"yt-key"})"));
    QCOMPARE(readSecretFile(QStringLiteral("openai")), QString());
    QCOMPARE(readSecret(QStringLiteral("openai")), QString());
    QCOMPARE(keyringItems(QStringLiteral("openai")).second, 0);
    QCOMPARE(readSecret(QStringLiteral("stream-YouTube")), QStringLiteral("yt-key"));

    // Emptying a secret that was never there holds as well.
    QVERIFY(storeSecret(QStringLiteral("apibible"), QString()));
    QCOMPARE(readSecret(QStringLiteral("apibible")), QString());
}

void tst_SecretStore::fileFailsStoreHolds()
{
    if (childPeer().isEmpty())
        return runChild(keyring);

    // A folder where the file should be: the file write fails, the keyring still takes the key.
    QVERIFY(QDir().mkpath(secretsPath()));
    QVERIFY(storeSecret(QStringLiteral("stream-Facebook"), QStringLiteral("fb-key")));
    QCOMPARE(readSecretFile(QStringLiteral("stream-Facebook")), QString());
    QCOMPARE(readSecret(QStringLiteral("stream-Facebook")), QStringLiteral("fb-key"));
}

void tst_SecretStore::permissionsAreOwnerOnly_data()
{
    QTest::addColumn<QByteArray>("existing");
    QTest::addColumn<int>("existingMode");
    QTest::addColumn<QString>("value");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("new file") << QByteArray() << 0 << QStringLiteral("k1") << QByteArray(R"({"openai":"k1"})");
    QTest::newRow("readable by all before") << QByteArray(R"({"apibible":"b"})") << 0666 << QStringLiteral("k1")
                                            << QByteArray(R"({"apibible":"b","openai":"k1"})");
    QTest::newRow("entry removed") << QByteArray(R"({"openai":"old","apibible":"b"})") << 0644 << QString()
                                   << QByteArray(R"({"apibible":"b"})");
}

void tst_SecretStore::permissionsAreOwnerOnly()
{
    if (childPeer().isEmpty())
        return runChild(noBus);
    QFETCH(QByteArray, existing);
    QFETCH(int, existingMode);
    QFETCH(QString, value);
    QFETCH(QByteArray, expected);

    if (existingMode != 0) {
        QVERIFY(writeFileBytes(existing));
        QCOMPARE(::chmod(QFile::encodeName(secretsPath()).constData(), mode_t(existingMode)), 0);
    }
    QVERIFY(storeSecret(QStringLiteral("openai"), value));
    QCOMPARE(fileBytes(), expected);
    QCOMPARE(fileMode(), 0600);
}

void tst_SecretStore::fileNotAnObjectReadsEmpty_data()
{
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<QByteArray>("afterWrite");

    const QByteArray replaced = R"({"apibible":"b-1"})";
    QTest::newRow("not JSON") << QByteArray("openai=sk-123\n") << replaced;
    QTest::newRow("empty file") << QByteArray() << replaced;
    QTest::newRow("cut short") << QByteArray(R"({"openai":"sk-12)") << replaced;
    QTest::newRow("array") << QByteArray(R"(["openai","sk-123"])") << replaced;
    QTest::newRow("string") << QByteArray(R"("sk-123")") << replaced;
}

void tst_SecretStore::fileNotAnObjectReadsEmpty()
{
    if (childPeer().isEmpty())
        return runChild(noBus);
    QFETCH(QByteArray, contents);
    QFETCH(QByteArray, afterWrite);

    QVERIFY(writeFileBytes(contents));
    QCOMPARE(readSecretsFile(), QJsonObject());
    QCOMPARE(readSecretFile(QStringLiteral("openai")), QString());
    QCOMPARE(readSecret(QStringLiteral("openai")), QString());

    QVERIFY(storeSecret(QStringLiteral("apibible"), QStringLiteral("b-1")));
    QCOMPARE(fileBytes(), afterWrite);
    QCOMPARE(fileMode(), 0600);
}

void tst_SecretStore::noSecretServiceFileServes_data()
{
    QTest::addColumn<QString>("peer");

    QTest::newRow("no session bus") << noBus;
    QTest::newRow("bus address leads nowhere") << busNowhere;
}

void tst_SecretStore::noSecretServiceFileServes()
{
    QFETCH(QString, peer);
    if (childPeer().isEmpty())
        return runChild(peer);

    // A missing bus fails at once: nothing here waits for the bound on a silent service.
    QElapsedTimer timer;
    timer.start();
    QVERIFY(storeSecret(QStringLiteral("stream-YouTube"), QStringLiteral("yt-key")));
    QCOMPARE(readSecret(QStringLiteral("stream-YouTube")), QStringLiteral("yt-key"));
    QCOMPARE(readSecret(QStringLiteral("openai")), QString());
    QVERIFY(storeSecret(QStringLiteral("stream-YouTube"), QString()));
    QCOMPARE(readSecret(QStringLiteral("stream-YouTube")), QString());
    QCOMPARE(fileBytes(), QByteArray("{}"));
    QVERIFY2(timer.elapsed() < 3000, qPrintable(QStringLiteral("took %1 ms").arg(timer.elapsed())));
}

void tst_SecretStore::bothFailingGivesFalse_data()
{
    QTest::addColumn<QString>("value");

    QTest::newRow("a key") << QStringLiteral("sk-lost");
    QTest::newRow("an empty value") << QString();
}

void tst_SecretStore::bothFailingGivesFalse()
{
    if (childPeer().isEmpty())
        return runChild(noBus);
    QFETCH(QString, value);

    // A plain file where the data folder's parent should be: the folder cannot be made, even by
    // root, and there is no Secret Service either.
    const QString parent = QFileInfo(QStandardPaths::writableLocation(QStandardPaths::AppDataLocation)).path();
    QVERIFY(QDir().mkpath(QFileInfo(parent).path()));
    QFile blocker(parent);
    QVERIFY(blocker.open(QIODevice::WriteOnly));
    blocker.close();

    QVERIFY(!storeSecret(QStringLiteral("openai"), value));
    QCOMPARE(readSecret(QStringLiteral("openai")), QString());
    QCOMPARE(readSecretsFile(), QJsonObject());
}

void tst_SecretStore::silentSecretServiceIsBounded()
{
    if (childPeer().isEmpty())
        return runChild(silentService);

    SilentSecretService service;
    QVERIFY(service.start());

    // Each call to the service is given up after its bound; the file has taken the key by then.
    QElapsedTimer timer;
    timer.start();
    QVERIFY(storeSecret(QStringLiteral("openai"), QStringLiteral("sk-silent")));
    const qint64 storeMs = timer.restart();
    QCOMPARE(readSecret(QStringLiteral("openai")), QStringLiteral("sk-silent"));
    const qint64 fileReadMs = timer.restart();
    QCOMPARE(readSecret(QStringLiteral("apibible")), QString());
    const qint64 serviceReadMs = timer.elapsed();

    // The store was really kept waiting by the service, then let go.
    QVERIFY2(storeMs > 1000 && storeMs < 10000, qPrintable(QStringLiteral("store took %1 ms").arg(storeMs)));
    QVERIFY2(serviceReadMs < 10000, qPrintable(QStringLiteral("read took %1 ms").arg(serviceReadMs)));
    // A key in the file is read without asking the service at all.
    QVERIFY2(fileReadMs < 1000, qPrintable(QStringLiteral("file read took %1 ms").arg(fileReadMs)));
}

QTEST_GUILESS_MAIN(tst_SecretStore)
#include "tst_secretstore.moc"
