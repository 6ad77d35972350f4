#pragma once

#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <memory>

// nginx with its RTMP module on a free loopback port, recording each stream as <folder>/<key>.flv; with `tls` also
// RTMPS, with a certificate for 127.0.0.1 and localhost from a test authority (caCertificate()). Its process group
// ends whole on stop(), and by a watchdog when this process dies, however it dies.
class RtmpServer
{
public:
    explicit RtmpServer(const QString& folder, bool tls = false);
    ~RtmpServer() { stop(); }

    bool ok() const { return running; }
    QString errorString() const { return failure; }
    void stop(); // gracefully first, so that what was received is on disk; bounded, safe to repeat

    quint16 port() const { return rtmpPort; }
    QString url(const QString& key) const { return QStringLiteral("rtmp://127.0.0.1:%1/app/").arg(rtmpPort) + key; }
    QString tlsUrl(const QString& key, const QString& host = QStringLiteral("127.0.0.1")) const
    {
        return QStringLiteral("rtmps://%1:%2/app/%3").arg(host).arg(rtmpsPort).arg(key);
    }
    QString recording(const QString& key) const { return dir + u'/' + key + QStringLiteral(".flv"); }
    bool publishEnded(const QString& key) const { return QFileInfo::exists(dir + u'/' + key + ".ended"); }
    QString caCertificate() const { return dir + QStringLiteral("/test-ca.crt"); }
    QString folder() const { return dir; }
    QString log() const;       // nginx's error log, for failure messages
    static quint16 freePort(); // a loopback port that nothing listened on a moment ago

private:
    bool start();
    QString dir, failure;
    bool tls, running = false;
    quint16 rtmpPort = 0, rtmpsPort = 0;
    std::unique_ptr<QProcess> nginx, watchdog;
    qint64 group = 0;
};

// While it lives, GIO's TLS clients in this process (GStreamer's RTMPS sink among them) verify peers against the
// certificates of one file instead of the system store; chain, host name and dates are all still checked.
class TlsTrust
{
public:
    explicit TlsTrust(const QString& caFile);
    ~TlsTrust();
    bool ok() const { return failure.isEmpty(); }
    QString errorString() const { return failure; }

private:
    QString failure;
};
