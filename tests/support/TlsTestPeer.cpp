#include "TlsTestPeer.h"

#include <QFile>
#include <QProcess>
#include <QSslKey>
#include <QSslSocket>
#include <QTemporaryDir>

namespace {

QString certificateFolder(const char* name)
{
    static QTemporaryDir folder;
    return folder.filePath(QString::fromLatin1(name));
}

} // namespace

QString testCertificateFile()
{
    return certificateFolder("c.pem");
}

QString testKeyFile()
{
    return certificateFolder("k.pem");
}

bool trustTestCertificate()
{
    static const bool made = [] {
        const QStringList arguments =
            QStringLiteral("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                           " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1")
                .split(u' ');
        if (QProcess::execute(QStringLiteral("openssl"),
                              arguments + QStringList{QStringLiteral("-keyout"), testKeyFile(),
                                                      QStringLiteral("-out"), testCertificateFile()}))
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
    const int lengthBytes = length <= 125 ? 0 : length <= 65535 ? 2 : 8;
    QByteArray bytes(1, char(first));
    bytes.append(char((lengthBytes == 0 ? length : lengthBytes == 2 ? 126 : 127) | (masked ? 0x80 : 0)));
    for (int shift = 8 * (lengthBytes - 1); shift >= 0; shift -= 8)
        bytes.append(char(length >> shift));
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
