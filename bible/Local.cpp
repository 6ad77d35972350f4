#include "Local.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace bible {

Local::Local(const QString& resourcePath)
{
    QFile file(resourcePath);
    if (!file.open(QIODevice::ReadOnly))
        return;
    const QJsonObject document = QJsonDocument::fromJson(qUncompress(file.readAll())).object();
    id = document.value(QLatin1String("id")).toString();
    name = document.value(QLatin1String("name")).toString();
    language = document.value(QLatin1String("lang")).toString();
    books = document.value(QLatin1String("books")).toArray();
    valid = books.size() == 66;
}

const Local& english()
{
    static const Local bible(QStringLiteral(":/bible-en-kjv.qz"));
    return bible;
}

const Local& spanish()
{
    static const Local bible(QStringLiteral(":/bible-es-rv1909.qz"));
    return bible;
}

} // namespace bible
