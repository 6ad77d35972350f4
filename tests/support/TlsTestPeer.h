#pragma once

#include <QByteArray>
#include <QSslConfiguration>
#include <QSslServer>
#include <QString>

class QSslSocket;

// A certificate for 127.0.0.1 made once per test process, which this process's TLS clients then
// trust: verification stays on, only the anchor is the test's own. False when openssl failed.
// Call it before the client sockets are made: they copy the default configuration then.
bool trustTestCertificate();
// The certificate's files, for a peer in another process.
QString testCertificateFile();
QString testKeyFile();
// What a server on loopback answers TLS with.
QSslConfiguration testServerConfiguration();

// A frame as a WebSocket server writes it, final; `announced` overrides the length it states.
QByteArray serverFrame(quint8 first, const QByteArray& payload, quint64 announced = ~0ull, bool masked = false);

// A TLS server on 127.0.0.1 that keeps what its one client sends and writes whatever a test gives it.
struct RawTlsPeer
{
    RawTlsPeer();
    // The client's HTTP request has arrived whole.
    bool handshaken() const;

    QSslServer server;
    QSslSocket* socket = nullptr;
    QByteArray fromClient;
};
