#pragma once

#include <QSslConfiguration>
#include <QSslServer>
#include <QSslSocket>

// A certificate for 127.0.0.1 made once per process, which its TLS clients then trust (only the anchor is the
// test's own); false when openssl failed. Call it before the client sockets are made.
bool trustTestCertificate();
QString testCertificateFile(); // the certificate's files, for a peer in another process
QString testKeyFile();
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
