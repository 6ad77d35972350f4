#pragma once

#include <QString>

// For as long as it lives, GIO's TLS clients in this process (GStreamer's RTMPS sink among them)
// verify peers against the certificates of one file instead of the system store. Nothing is
// relaxed: chain, host name and dates are all still checked, only the anchor is the test's own.
class TlsTrust
{
public:
    explicit TlsTrust(const QString& caFile);
    ~TlsTrust();
    TlsTrust(const TlsTrust&) = delete;
    TlsTrust& operator=(const TlsTrust&) = delete;

    bool ok() const { return installed; }
    QString errorString() const { return failure; }

private:
    bool installed = false;
    QString failure;
};
