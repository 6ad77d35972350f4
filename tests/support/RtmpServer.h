#pragma once

#include <QString>

#include <memory>

class QProcess;

// A real RTMP peer for tests: nginx with its RTMP module on a free loopback port, recording every
// published stream as <folder>/<key>.flv. With `tls` it also takes RTMPS through nginx's stream module,
// with a certificate for 127.0.0.1 and localhost signed by a test authority made here (caCertificate()).
// The constructor returns once the ports accept connections, or with ok() false and errorString() set.
// nginx runs in a process group of its own, which stop() (and the destructor) ends whole, and which a
// watchdog child ends when this process dies, however it dies: no worker is ever left behind.
class RtmpServer
{
public:
    explicit RtmpServer(const QString& folder, bool tls = false);
    ~RtmpServer();
    RtmpServer(const RtmpServer&) = delete;
    RtmpServer& operator=(const RtmpServer&) = delete;

    bool ok() const { return running; }
    QString errorString() const { return failure; }
    // Stops nginx, gracefully first so that what was received is on disk; bounded, safe to repeat.
    void stop();

    quint16 port() const { return rtmpPort; }
    QString url(const QString& key) const
    {
        return QStringLiteral("rtmp://127.0.0.1:%1/app/%2").arg(rtmpPort).arg(key);
    }
    QString tlsUrl(const QString& key, const QString& host = QStringLiteral("127.0.0.1")) const
    {
        return QStringLiteral("rtmps://%1:%2/app/%3").arg(host).arg(rtmpsPort).arg(key);
    }
    QString recording(const QString& key) const { return dir + u'/' + key + QStringLiteral(".flv"); }
    // Whether a publisher of `key` has come and gone, as nginx saw it.
    bool publishEnded(const QString& key) const;
    QString caCertificate() const { return dir + QStringLiteral("/test-ca.crt"); }
    QString folder() const { return dir; }
    // nginx's own error log, for failure messages.
    QString log() const;
    // A loopback port that nothing listened on a moment ago.
    static quint16 freePort();

private:
    bool start();
    bool run(const QStringList& arguments);
    bool waitUntilAccepting();
    void guardGroup();

    QString dir;
    bool tls = false;
    bool running = false;
    QString failure;
    quint16 rtmpPort = 0;
    quint16 rtmpsPort = 0;
    std::unique_ptr<QProcess> nginx;
    qint64 group = 0;
    qint64 watchdog = 0;
    int lifeline = -1; // the write end of the watchdog's pipe; closing it, or dying, releases it
};
