#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPointer>
#include <QString>
#include <QTcpServer>

#include <functional>
#include <utility>

class QJsonObject;
class QTcpSocket;

// A small HTTP/1.1 server on 127.0.0.1 that stands in for a web service (API.Bible, the AI service):
// it keeps every request it was sent and answers each with `answer`, one request per connection.
// While `holding`, answers wait for release(): the window in which a test looks at what the client
// does before its answer arrives.
class StandInHttpServer
{
public:
    struct Request // header names in lower case
    {
        QByteArray method, target;
        QMap<QByteArray, QByteArray> headers;
        QByteArray body;
    };
    struct Response
    {
        int status = 200;
        QByteArray body;
        bool silent = false; // read the request and never answer
        bool drop = false;   // close the connection without an answer
        int delayMs = 0;     // answer this much later, so that answers can overtake each other
        QList<std::pair<QByteArray, QByteArray>> headers{};
        QByteArray contentType = "application/json";
    };

    StandInHttpServer() = default;
    StandInHttpServer(const StandInHttpServer&) = delete;
    StandInHttpServer& operator=(const StandInHttpServer&) = delete;

    std::function<Response(const Request&)> answer = [](const Request&) {
        return Response{404, "{}", false};
    };
    QList<Request> requests;
    bool holding = false;
    int answered = 0;        // answers written out and their connections closed
    int openConnections = 0; // connections accepted and not yet closed

    bool listen(); // on a free loopback port
    QString endpoint() const { return QStringLiteral("http://127.0.0.1:%1/v1/").arg(server.serverPort()); }
    void release();                                    // sends the answers held so far and stops holding
    static QByteArray json(const QJsonObject& object); // a body as the services write it

private:
    void serve(QTcpSocket* socket);
    void send(QTcpSocket* socket, const Response& response);

    QTcpServer server;
    QList<std::pair<QPointer<QTcpSocket>, Response>> held;
};
