#include "StreamTarget.h"

#include <QRegularExpression>
#include <stdexcept>

namespace tavrin {

QUrl streamServer(const QString& server)
{
    const QUrl url(server.trimmed(), QUrl::TolerantMode);
    const bool plainServer = url.isValid() && (url.scheme() == QLatin1String("rtmp") || url.scheme() == QLatin1String("rtmps")) &&
                             !url.host(QUrl::FullyDecoded).isEmpty() && url.userInfo().isEmpty() && !url.hasQuery() &&
                             !url.hasFragment();
    if (!plainServer)
        throw std::runtime_error("Servidor RTMP/RTMPS inválido. Separa la clave del servidor.");
    return url;
}

QString streamTarget(const QString& server, const QString& key)
{
    const QUrl url = streamServer(server);
    static const QRegularExpression forbidden(QStringLiteral("[\\s?#]"));
    const QString trimmedKey = key.trimmed();
    if (trimmedKey.isEmpty() || forbidden.match(trimmedKey).hasMatch())
        throw std::runtime_error("Clave de transmisión inválida");
    QString target = url.toString(QUrl::FullyEncoded);
    if (!target.endsWith(u'/'))
        target += u'/';
    return target + trimmedKey;
}

QString keyLogLine(const QString& name, const QString& server, const QString& key)
{
    const QString shown = key.size() < 5 ? key : key.left(4);
    return QStringLiteral("Salida %1: servidor=%2 clave: %3 caracteres, empieza \"%4\"")
        .arg(name, server, QString::number(key.size()), shown); // one pass: a server may hold "%3"
}

} // namespace tavrin
