#pragma once

#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QPointer>
#include <QSslConfiguration>
#include <QSslServer>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <functional>
#include <utility>

// An HTTP/1.1 stand-in for a web service on 127.0.0.1: it keeps every request and answers each with `answer`, one
// per connection. While `holding`, answers wait for release(), so that a test sees what the client does meanwhile.
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

    std::function<Response(const Request&)> answer = [](const Request&) { return Response{404, "{}", false}; };
    QList<Request> requests;
    bool holding = false;
    int answered = 0;        // answers written out and their connections closed
    int openConnections = 0; // connections accepted and not yet closed

    bool listen(); // on a free loopback port
    QString endpoint() const { return QStringLiteral("http://127.0.0.1:%1/v1/").arg(server.serverPort()); }
    void release(); // sends the answers held so far and stops holding
    static QByteArray json(const QJsonObject& object) { return QJsonDocument(object).toJson(QJsonDocument::Compact); }

private:
    void serve(QTcpSocket* socket);
    void send(QTcpSocket* socket, const Response& response);

    QTcpServer server;
    QList<std::pair<QPointer<QTcpSocket>, Response>> held;
};

// A certificate for 127.0.0.1 made once per process, which its TLS clients then trust (only the anchor is the
// test's own); false when openssl failed. Call it before the client sockets are made.
bool trustTestCertificate();
QSslConfiguration testServerConfiguration(); // what a server on loopback answers TLS with

// A frame as a WebSocket server writes it, final; `announced` overrides the length it states.
QByteArray serverFrame(quint8 first, const QByteArray& payload, quint64 announced = ~0ull, bool masked = false);

// A TLS server on 127.0.0.1 that keeps what its one client sends and writes whatever a test gives it.
struct RawTlsPeer
{
    RawTlsPeer();
    bool handshaken() const { return socket && fromClient.contains("\r\n\r\n"); } // the HTTP request is whole

    QSslServer server;
    QSslSocket* socket = nullptr;
    QByteArray fromClient;
};
