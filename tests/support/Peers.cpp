#include "Peers.h"

#include <QFile>
#include <QProcess>
#include <QSslKey>
#include <QTemporaryDir>
#include <QTimer>

#include <memory>

bool StandInHttpServer::listen()
{
    QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
        while (QTcpSocket* socket = server.nextPendingConnection())
            serve(socket);
    });
    return server.listen(QHostAddress::LocalHost, 0);
}

void StandInHttpServer::release()
{
    holding = false;
    for (const auto& [socket, response] : std::exchange(held, {}))
        if (socket)
            send(socket, response);
}

void StandInHttpServer::serve(QTcpSocket* socket)
{
    ++openConnections;
    auto buffer = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::disconnected, socket, [this, socket] {
        --openConnections;
        socket->deleteLater();
    });
    QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
        buffer->append(socket->readAll());
        const qsizetype headerEnd = buffer->indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const QList<QByteArray> lines = buffer->left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        Request request{requestLine.value(0), requestLine.value(1), {}, {}};
        for (const QByteArray& line : lines.mid(1))
            if (const qsizetype colon = line.indexOf(':'); colon > 0)
                request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        const qsizetype length = request.headers.value("content-length", "0").toLongLong();
        if (buffer->size() < headerEnd + 4 + length)
            return;
        request.body = buffer->mid(headerEnd + 4, length);
        buffer->clear();
        requests.append(request);
        const Response response = answer(request);
        if (response.silent)
            return;
        if (response.drop)
            socket->abort();
        else if (response.delayMs > 0)
            QTimer::singleShot(response.delayMs, socket, [this, socket, response] { send(socket, response); });
        else if (holding)
            held.append({QPointer<QTcpSocket>(socket), response});
        else
            send(socket, response);
    });
}

void StandInHttpServer::send(QTcpSocket* socket, const Response& response)
{
    QObject::connect(socket, &QTcpSocket::disconnected, socket, [this] { ++answered; });
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + (response.status < 400 ? " OK" : " Failed");
    for (const auto& [name, value] : response.headers)
        head += "\r\n" + name + ": " + value;
    socket->write(head + "\r\nContent-Type: " + response.contentType + "\r\nContent-Length: " +
                  QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n" + response.body);
    socket->disconnectFromHost();
}

static QTemporaryDir certificateFolder;

static QString testCertificateFile()
{
    return certificateFolder.filePath(QStringLiteral("c.pem"));
}

static QString testKeyFile()
{
    return certificateFolder.filePath(QStringLiteral("k.pem"));
}

bool trustTestCertificate()
{
    static const bool made = [] {
        if (QProcess::execute(QStringLiteral("openssl"),
                              QStringLiteral("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2"
                                             " -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1 -keyout")
                                      .split(u' ')
                                  << testKeyFile() << QStringLiteral("-out") << testCertificateFile()))
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
