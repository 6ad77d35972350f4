#include "TlsTestPeer.h"

#include <QFile>
#include <QProcess>
#include <QSslKey>
#include <QSslSocket>
#include <QTemporaryDir>

namespace {

QTemporaryDir& certificateFolder()
{
    static QTemporaryDir folder;
    return folder;
}

} // namespace

QString testCertificateFile()
{
    return certificateFolder().filePath(QStringLiteral("c.pem"));
}

QString testKeyFile()
{
    return certificateFolder().filePath(QStringLiteral("k.pem"));
}

bool trustTestCertificate()
{
    static const bool made = [] {
        const int exitCode = QProcess::execute(
            QStringLiteral("openssl"),
            {QStringLiteral("req"), QStringLiteral("-x509"), QStringLiteral("-newkey"), QStringLiteral("ec"),
             QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"), QStringLiteral("-nodes"),
             QStringLiteral("-keyout"), testKeyFile(), QStringLiteral("-out"), testCertificateFile(),
             QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1"),
             QStringLiteral("-addext"), QStringLiteral("subjectAltName=IP:127.0.0.1")});
        if (exitCode != 0)
            return false;
        QSslConfiguration trusted = QSslConfiguration::defaultConfiguration();
        trusted.addCaCertificates(testCertificateFile());
        QSslConfiguration::setDefaultConfiguration(trusted);
        return true;
    }();
    return made;
}

QSslConfiguration testServerConfiguration()
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(QSslCertificate::fromPath(testCertificateFile()).value(0));
    QFile key(testKeyFile());
    key.open(QIODevice::ReadOnly);
    configuration.setPrivateKey(QSslKey(&key, QSsl::Ec));
    configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
    return configuration;
}

QByteArray serverFrame(quint8 first, const QByteArray& payload, quint64 announced, bool masked)
{
    const quint64 length = announced == ~0ull ? quint64(payload.size()) : announced;
    QByteArray bytes(1, char(first));
    const char maskBit = masked ? char(0x80) : char(0);
    if (length <= 125) {
        bytes.append(char(length) | maskBit);
    } else if (length <= 65535) {
        bytes.append(char(126) | maskBit);
        bytes.append(char(length >> 8)).append(char(length));
    } else {
        bytes.append(char(127) | maskBit);
        for (int shift = 56; shift >= 0; shift -= 8)
            bytes.append(char(length >> shift));
    }
    const QByteArray mask("\x11\x22\x33\x44", 4);
    if (masked)
        bytes.append(mask);
    for (qsizetype i = 0; i < payload.size(); ++i)
        bytes.append(masked ? char(payload[i] ^ mask[i & 3]) : payload[i]);
    return bytes;
}

RawTlsPeer::RawTlsPeer()
{
    server.setSslConfiguration(testServerConfiguration());
    server.listen(QHostAddress::LocalHost, 0);
    QObject::connect(&server, &QSslServer::pendingConnectionAvailable, &server, [this] {
        socket = qobject_cast<QSslSocket*>(server.nextPendingConnection());
        QObject::connect(socket, &QSslSocket::readyRead, socket, [this] { fromClient += socket->readAll(); });
    });
}

bool RawTlsPeer::handshaken() const
{
    return socket && fromClient.contains("\r\n\r\n");
}
