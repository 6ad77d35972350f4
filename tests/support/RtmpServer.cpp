#include "RtmpServer.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHostAddress>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpServer>
#include <QTcpSocket>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int startAttempts = 3;
constexpr int acceptTimeoutMs = 20000;
constexpr int toolTimeoutMs = 30000;

const QString moduleFolder = QStringLiteral("/usr/lib/nginx/modules/");

// nginx takes double-quoted strings; the folders here come from the build tree.
QString quoted(const QString& path)
{
    QString escaped = path;
    escaped.replace(QLatin1Char('\\'), QStringLiteral("\\\\"))
        .replace(QLatin1Char('"'), QStringLiteral("\\\""));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

bool runTool(const QString& program, const QStringList& arguments, const QString& workingFolder,
             QString* failure)
{
    QProcess process;
    process.setWorkingDirectory(workingFolder);
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForStarted(toolTimeoutMs)) {
        *failure = program + QStringLiteral(" could not start: ") + process.errorString();
        return false;
    }
    if (!process.waitForFinished(toolTimeoutMs)) {
        process.kill();
        process.waitForFinished(toolTimeoutMs);
        *failure = program + QStringLiteral(" did not finish");
        return false;
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        *failure = program + QLatin1Char(' ') + arguments.join(QLatin1Char(' ')) +
                   QStringLiteral(" failed: ") + QString::fromLocal8Bit(process.readAll());
        return false;
    }
    return true;
}

bool writeText(const QString& path, const QString& text, QString* failure)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text.toUtf8()) < 0) {
        *failure = QStringLiteral("cannot write ") + path + QStringLiteral(": ") + file.errorString();
        return false;
    }
    return true;
}

} // namespace

RtmpServer::RtmpServer(const QString& folder, bool tls) : dir(QDir(folder).absolutePath()), tls(tls)
{
    running = start();
}

RtmpServer::~RtmpServer()
{
    stop();
}

quint16 RtmpServer::freePort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    const quint16 port = probe.serverPort();
    probe.close();
    return port;
}

QString RtmpServer::url(const QString& key) const
{
    return QStringLiteral("rtmp://127.0.0.1:%1/app/%2").arg(rtmpPort).arg(key);
}

QString RtmpServer::tlsUrl(const QString& key, const QString& host) const
{
    return QStringLiteral("rtmps://%1:%2/app/%3").arg(host).arg(rtmpsPort).arg(key);
}

QString RtmpServer::recording(const QString& key) const
{
    return dir + QLatin1Char('/') + key + QStringLiteral(".flv");
}

bool RtmpServer::publishEnded(const QString& key) const
{
    return QFileInfo::exists(dir + QLatin1Char('/') + key + QStringLiteral(".ended"));
}

QString RtmpServer::caCertificate() const
{
    return dir + QStringLiteral("/test-ca.crt");
}

QString RtmpServer::log() const
{
    QFile file(dir + QStringLiteral("/error.log"));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll()) : QString();
}

bool RtmpServer::start()
{
    if (!QDir().mkpath(dir)) {
        failure = QStringLiteral("cannot create ") + dir;
        return false;
    }
    // Not every PATH holds the sbin folders.
    QString program = QStandardPaths::findExecutable(QStringLiteral("nginx"));
    if (program.isEmpty())
        program = QStandardPaths::findExecutable(
            QStringLiteral("nginx"), {QStringLiteral("/usr/sbin"), QStringLiteral("/usr/local/sbin")});
    if (program.isEmpty()) {
        failure = QStringLiteral("nginx not found (packages nginx-light libnginx-mod-rtmp)");
        return false;
    }
    const QString rtmpModule = moduleFolder + QStringLiteral("ngx_rtmp_module.so");
    const QString streamModule = moduleFolder + QStringLiteral("ngx_stream_module.so");
    if (!QFileInfo::exists(rtmpModule)) {
        failure = QStringLiteral("nginx RTMP module missing: ") + rtmpModule;
        return false;
    }
    if (tls && !QFileInfo::exists(streamModule)) {
        failure = QStringLiteral("nginx stream module missing: ") + streamModule;
        return false;
    }
    if (tls && !makeCertificates())
        return false;

    // A port picked as free can be taken before nginx binds it; then nginx exits and we try again.
    for (int attempt = 0; attempt < startAttempts; ++attempt) {
        rtmpPort = freePort();
        rtmpsPort = tls ? freePort() : 0;
        if (rtmpPort == 0 || (tls && (rtmpsPort == 0 || rtmpsPort == rtmpPort))) {
            failure = QStringLiteral("no free loopback port");
            continue;
        }
        QFile::remove(dir + QStringLiteral("/error.log"));
        if (!writeConfig(rtmpModule, streamModule))
            return false;

        nginx = std::make_unique<QProcess>();
        nginx->setProcessChannelMode(QProcess::MergedChannels);
        nginx->setWorkingDirectory(dir);
        // Its own group, led by the master: the workers and what they start can be ended together.
        nginx->setChildProcessModifier([] { ::setpgid(0, 0); });
        nginx->start(program,
                     {QStringLiteral("-c"), dir + QStringLiteral("/nginx.conf"), QStringLiteral("-p"),
                      dir + QLatin1Char('/'), QStringLiteral("-e"), dir + QStringLiteral("/error.log")});
        if (!nginx->waitForStarted(acceptTimeoutMs)) {
            failure = QStringLiteral("nginx could not start: ") + nginx->errorString();
            nginx.reset();
            return false;
        }
        group = nginx->processId();
        guardGroup();
        if (waitUntilAccepting())
            return true;
        stop();
    }
    return false;
}

bool RtmpServer::makeCertificates()
{
    const QString openssl = QStandardPaths::findExecutable(QStringLiteral("openssl"));
    if (openssl.isEmpty()) {
        failure = QStringLiteral("openssl not found");
        return false;
    }
    // A test authority of its own, and a server certificate that names the loopback both ways, so
    // that clients can keep full verification, host name included.
    if (!writeText(dir + QStringLiteral("/server.ext"),
                   QStringLiteral("basicConstraints=critical,CA:FALSE\n"
                                  "keyUsage=critical,digitalSignature\n"
                                  "extendedKeyUsage=serverAuth\n"
                                  "subjectAltName=IP:127.0.0.1,DNS:localhost\n"
                                  "subjectKeyIdentifier=hash\n"
                                  "authorityKeyIdentifier=keyid,issuer\n"),
                   &failure))
        return false;
    const QString ecKey = QStringLiteral(" -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes");
    for (const QString& command :
         {QStringLiteral("req -x509") + ecKey +
              QStringLiteral(" -keyout test-ca.key -out test-ca.crt -days 30 -subj /CN=velmora-test-ca"
                             " -addext basicConstraints=critical,CA:TRUE"
                             " -addext keyUsage=critical,keyCertSign,cRLSign"),
          QStringLiteral("req") + ecKey +
              QStringLiteral(" -keyout server.key -out server.csr -subj /CN=localhost"),
          QStringLiteral("x509 -req -in server.csr -CA test-ca.crt -CAkey test-ca.key -CAcreateserial"
                         " -out server.crt -days 30 -extfile server.ext")}) {
        if (!runTool(openssl, command.split(QLatin1Char(' ')), dir, &failure))
            return false;
    }
    return true;
}

bool RtmpServer::writeConfig(const QString& rtmpModule, const QString& streamModule)
{
    QString config;
    config += QStringLiteral("load_module %1;\n").arg(quoted(rtmpModule));
    if (tls)
        config += QStringLiteral("load_module %1;\n").arg(quoted(streamModule));
    // Started as root, the workers would otherwise run as www-data and could not write the records.
    if (::geteuid() == 0)
        config += QStringLiteral("user root;\n");
    config +=
        QStringLiteral("daemon off;\n"
                       "worker_processes 1;\n"
                       "pid %1;\n"
                       "error_log %2;\n"
                       "events { worker_connections 64; }\n")
            .arg(quoted(dir + QStringLiteral("/nginx.pid")), quoted(dir + QStringLiteral("/error.log")));
    config += QStringLiteral("rtmp {\n"
                             "  server {\n"
                             "    listen 127.0.0.1:%1;\n"
                             "    application app {\n"
                             "      live on; record all; record_path %2; record_unique off;\n"
                             "      exec_publish_done /usr/bin/touch %3;\n"
                             "    }\n"
                             "  }\n"
                             "}\n")
                  .arg(rtmpPort)
                  .arg(quoted(dir), quoted(dir + QStringLiteral("/$name.ended")));
    if (tls) {
        config +=
            QStringLiteral("stream {\n"
                           "  server {\n"
                           "    listen 127.0.0.1:%1 ssl;\n"
                           "    ssl_certificate %2;\n"
                           "    ssl_certificate_key %3;\n"
                           "    proxy_pass 127.0.0.1:%4;\n"
                           "  }\n"
                           "}\n")
                .arg(rtmpsPort)
                .arg(quoted(dir + QStringLiteral("/server.crt")), quoted(dir + QStringLiteral("/server.key")))
                .arg(rtmpPort);
    }
    return writeText(dir + QStringLiteral("/nginx.conf"), config, &failure);
}

bool RtmpServer::waitUntilAccepting()
{
    const QDeadlineTimer deadline(acceptTimeoutMs);
    QList<quint16> pending = {rtmpPort};
    if (tls)
        pending.append(rtmpsPort);
    while (!pending.isEmpty()) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, pending.first());
        if (probe.waitForConnected(200)) {
            probe.abort();
            pending.removeFirst();
            continue;
        }
        // Between probes: a bounded wait that ends at once if nginx gave up (a port taken, a bad
        // configuration).
        if (nginx->state() == QProcess::NotRunning || nginx->waitForFinished(100)) {
            failure = QStringLiteral("nginx exited: ") + QString::fromLocal8Bit(nginx->readAll()) + log();
            return false;
        }
        if (deadline.hasExpired()) {
            failure = QStringLiteral("nginx did not accept connections in time: ") + log();
            return false;
        }
    }
    return true;
}

// A forked child that blocks on a pipe only this process writes to. When the pipe closes, because
// this process died (a crash, SIGKILL, a failed test's abort), it ends nginx's whole group. It leaves
// this process's group first, or what ends the group (Ctrl-C, timeout(1)) would end it too. Between
// fork and exit it makes only async-signal-safe calls.
void RtmpServer::guardGroup()
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return;
    const pid_t target = pid_t(group);
    const pid_t child = ::fork();
    if (child == 0) {
        ::setsid();
        ::close(ends[1]);
        char byte;
        while (::read(ends[0], &byte, 1) < 0 && errno == EINTR) {
        }
        ::kill(-target, SIGCONT);
        ::kill(-target, SIGKILL);
        ::_exit(0);
    }
    ::close(ends[0]);
    if (child < 0) {
        ::close(ends[1]);
        return;
    }
    watchdog = child;
    lifeline = ends[1];
}

void RtmpServer::endGroup()
{
    if (group > 0) {
        // SIGKILL ends even a frozen process; the workers need no grace once the master has gone.
        ::kill(-pid_t(group), SIGKILL);
        group = 0;
    }
    if (watchdog > 0) {
        // Another server's watchdog may hold this one's pipe open too: end it directly.
        ::close(lifeline);
        ::kill(pid_t(watchdog), SIGKILL);
        ::waitpid(pid_t(watchdog), nullptr, 0);
        watchdog = 0;
        lifeline = -1;
    }
}

void RtmpServer::stop()
{
    running = false;
    if (!nginx)
        return;
    if (nginx->state() != QProcess::NotRunning) {
        // Graceful quit first: connections that are closing get read to the end, so a recording
        // holds everything the client sent. A frozen server is woken for it. Then harder, each step
        // bounded.
        ::kill(-pid_t(group), SIGCONT);
        ::kill(pid_t(group), SIGQUIT);
        if (!nginx->waitForFinished(5000)) {
            nginx->kill();
            nginx->waitForFinished(3000);
        }
    }
    endGroup();
    nginx.reset();
}
