#pragma once

#include <QJsonArray>
#include <QString>

namespace bible {

// One built-in Bible, read whole from a ".qz" document: qCompress data of a JSON object with
// "id", "name", "lang" and "books". Verse n of chapter c of book b is books[b][c - 1][n - 1].
// A missing or damaged document leaves the object empty and not valid; it never throws.
class Local
{
public:
    explicit Local(const QString& resourcePath);

    QJsonArray books;
    QString id;
    QString name;
    QString language;
    bool valid = false;
};

// The two Bibles built into the program, each loaded on first use and kept for the life of the
// process, so a service in one language never unpacks the other.
const Local& english();
const Local& spanish();

} // namespace bible
