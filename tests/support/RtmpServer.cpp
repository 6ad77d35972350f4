#include "RtmpServer.h"
#include "Processes.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

#include <csignal>
#include <gio/gio.h>
#include <unistd.h>

// A test authority, and a server certificate naming the loopback both ways: clients keep full verification.
static const char* const certificates =
    "cd \"$0\"; set -e; printf 'basicConstraints=critical,CA:FALSE\\nkeyUsage=critical,digitalSignature\\n"
    "extendedKeyUsage=serverAuth\\nsubjectAltName=IP:127.0.0.1,DNS:localhost\\n"
    "subjectKeyIdentifier=hash\\nauthorityKeyIdentifier=keyid,issuer\\n' >server.ext\n"
    "ec='-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes'\n"
    "openssl req -x509 $ec -keyout test-ca.key -out test-ca.crt -days 30 -subj /CN=velmora-test-ca"
    " -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign\n"
    "openssl req $ec -keyout server.key -out server.csr -subj /CN=localhost\n"
    "openssl x509 -req -in server.csr -CA test-ca.crt -CAkey test-ca.key -CAcreateserial -out server.crt"
    " -days 30 -extfile server.ext";

quint16 RtmpServer::freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost, 0) ? probe.serverPort() : 0;
}

QString RtmpServer::log() const
{
    QFile file(dir + QStringLiteral("/error.log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

RtmpServer::RtmpServer(const QString& folder, bool tls) : dir(QDir(folder).absolutePath()), tls(tls)
{
    running = start();
}

bool RtmpServer::start()
{
    const QString program = QStandardPaths::findExecutable(
        QStringLiteral("nginx"), qEnvironmentVariable("PATH").split(u':') << QStringLiteral("/usr/sbin"));
    const QString modules = QStringLiteral("/usr/lib/nginx/modules/ngx_");
    if (!QDir().mkpath(dir) || program.isEmpty() || !QFileInfo::exists(modules + "rtmp_module.so") ||
        (tls && !QFileInfo::exists(modules + "stream_module.so"))) {
        failure = QStringLiteral("no folder %1, or no nginx with its rtmp and stream modules "
                                 "(packages nginx-light libnginx-mod-rtmp)").arg(dir);
        return false;
    }
    int exitCode = 0;
    const QString openssl = tls ? runTool("sh", {"-c", certificates, dir}, &exitCode) : QString();
    if (exitCode != 0) {
        failure = "openssl failed: " + openssl;
        return false;
    }
    // A port picked as free can be taken before nginx binds it; then nginx exits and we try again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        rtmpPort = freePort();
        rtmpsPort = tls ? freePort() : 0;
        if (rtmpPort == 0 || (tls && (rtmpsPort == 0 || rtmpsPort == rtmpPort))) {
            failure = QStringLiteral("no free loopback port");
            continue;
        }
        QFile::remove(dir + QStringLiteral("/error.log")); // what log() shows is this run's
        // Started as root, the workers would otherwise run as www-data and could not write the records.
        const QString config =
            QStringLiteral("load_module %1rtmp_module.so;\n%2%3daemon off;\nworker_processes 1;\npid nginx.pid;\n"
                           "error_log error.log;\nevents { worker_connections 64; }\n"
                           "rtmp { server { listen 127.0.0.1:%4;\n"
                           "  application app { live on; record all; record_path \"%5\"; record_unique off;\n"
                           "  exec_publish_done /usr/bin/touch \"%5/$name.ended\"; } } }\n%6")
                .arg(modules, tls ? "load_module " + modules + "stream_module.so;\n" : "",
                     ::geteuid() == 0 ? "user root;\n" : "", QString::number(rtmpPort), dir,
                     tls ? QStringLiteral("stream { server { listen 127.0.0.1:%1 ssl; ssl_certificate server.crt;\n"
                                          "  ssl_certificate_key server.key; proxy_pass 127.0.0.1:%2; } }\n")
                               .arg(rtmpsPort)
                               .arg(rtmpPort)
                         : "");
        QFile file(dir + QStringLiteral("/nginx.conf"));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(config.toUtf8()) < 0) {
            failure = QStringLiteral("cannot write in ") + dir;
            return false;
        }
        file.close();
        nginx = std::make_unique<QProcess>();
        nginx->setProcessChannelMode(QProcess::MergedChannels);
        nginx->setWorkingDirectory(dir);
        // Its own group, led by the master: the workers and what they start can be ended together.
        nginx->setChildProcessModifier([] { ::setpgid(0, 0); });
        nginx->start(program, {QStringLiteral("-c"), file.fileName(), QStringLiteral("-p"), dir + u'/',
                               QStringLiteral("-e"), dir + QStringLiteral("/error.log")});
        if (!nginx->waitForStarted(20000)) {
            failure = QStringLiteral("nginx could not start: ") + nginx->errorString();
            nginx.reset();
            return false;
        }
        group = nginx->processId();
        // The watchdog ends nginx's group when its input closes: when stop() lets it go, or this process dies however
        // it dies. In a session of its own, what ends ours (Ctrl-C, timeout(1)) does not end it first.
        watchdog = std::make_unique<QProcess>();
        watchdog->setChildProcessModifier([] { ::setsid(); });
        watchdog->start(QStringLiteral("sh"), {"-c", "read x; kill -CONT -$0; kill -KILL -$0", QString::number(group)});
        // Between probes, a bounded wait that ends at once if nginx gave up (a port taken, a bad configuration).
        const QDeadlineTimer deadline(20000);
        bool up = watchdog->waitForStarted();
        for (const quint16 wanted : {rtmpPort, rtmpsPort})
            for (QTcpSocket probe; up && wanted != 0; probe.abort()) {
                probe.connectToHost(QHostAddress::LocalHost, wanted);
                if (probe.waitForConnected(200))
                    break;
                up = nginx->state() == QProcess::Running && !nginx->waitForFinished(100) && !deadline.hasExpired();
            }
        if (up)
            return true;
        failure = QStringLiteral("nginx exited or did not accept connections in time: ") +
                  QString::fromLocal8Bit(nginx->readAll()) + log();
        stop();
    }
    return false;
}

void RtmpServer::stop()
{
    running = false;
    if (!nginx)
        return;
    if (nginx->state() != QProcess::NotRunning) {
        // Graceful quit first (a frozen server is woken for it), so that a recording holds all the client sent.
        ::kill(-pid_t(group), SIGCONT);
        ::kill(pid_t(group), SIGQUIT);
        if (!nginx->waitForFinished(5000)) {
            nginx->kill();
            nginx->waitForFinished(3000);
        }
    }
    // Let go, the watchdog ends what is left of the group, even a frozen worker.
    watchdog->closeWriteChannel();
    if (!watchdog->waitForFinished(3000))
        ::kill(-pid_t(group), SIGKILL);
    watchdog.reset();
    nginx.reset();
}

TlsTrust::TlsTrust(const QString& caFile)
{
    GTlsBackend* backend = g_tls_backend_get_default();
    GError* error = nullptr;
    GTlsDatabase* database = nullptr;
    if (!backend || !g_tls_backend_supports_tls(backend))
        failure = QStringLiteral("GIO has no TLS backend (package glib-networking)");
    else if (!(database = g_tls_file_database_new(caFile.toLocal8Bit().constData(), &error)))
        failure = QStringLiteral("cannot load %1: %2").arg(caFile, QString::fromUtf8(error ? error->message : "?"));
    g_clear_error(&error);
    // Connections pick the default database up when they verify, so this reaches elements that never heard of it.
    if (database) {
        g_tls_backend_set_default_database(backend, database);
        g_object_unref(database);
    }
}

TlsTrust::~TlsTrust()
{
    if (ok()) // back to the system store
        g_tls_backend_set_default_database(g_tls_backend_get_default(), nullptr);
}
