#pragma once

#include <QString>
#include <QUrl>

namespace tavrin {

// The server as the operator typed it, checked to be a plain rtmp:// or rtmps:// address with a host
// and nothing that could hide a key (user part, query, fragment). Throws std::runtime_error with the
// row's Spanish message.
QUrl streamServer(const QString& server);

// The whole RTMP address for a destination row: the checked server, then "/" and the key. Throws
// std::runtime_error with the row's Spanish message.
QString streamTarget(const QString& server, const QString& key);

// What the log may say of a key: its length and first four characters, never the key itself. A key
// of fewer than five characters is shown whole, as it hides nothing a person could not guess.
QString keyLogLine(const QString& name, const QString& server, const QString& key);

} // namespace tavrin
