#include "StandInHttpServer.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
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

QByteArray StandInHttpServer::json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
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
        Request request;
        const QList<QByteArray> lines = buffer->left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
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
            QTimer::singleShot(response.delayMs, socket,
                               [this, socket, response] { send(socket, response); });
        else if (holding)
            held.append({QPointer<QTcpSocket>(socket), response});
        else
            send(socket, response);
    });
}

void StandInHttpServer::send(QTcpSocket* socket, const Response& response)
{
    QObject::connect(socket, &QTcpSocket::disconnected, socket, [this] { ++answered; });
    static const QMap<int, QByteArray> reasons{
        {200, "OK"},        {401, "Unauthorized"},      {403, "Forbidden"},
        {404, "Not Found"}, {429, "Too Many Requests"}, {500, "Internal Server Error"}};
    QByteArray head =
        "HTTP/1.1 " + QByteArray::number(response.status) + ' ' + reasons.value(response.status, "Status");
    for (const auto& [name, value] : response.headers)
        head += "\r\n" + name + ": " + value;
    socket->write(head + "\r\nContent-Type: " + response.contentType + "\r\nContent-Length: " +
                  QByteArray::number(response.body.size()) + "\r\nConnection: close\r\n\r\n" + response.body);
    socket->disconnectFromHost();
}
