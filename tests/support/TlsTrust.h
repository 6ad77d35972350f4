#pragma once

#include <QString>

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
