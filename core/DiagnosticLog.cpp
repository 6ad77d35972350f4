#include "DiagnosticLog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QMutex>
#include <QStandardPaths>
#include <QTextStream>

namespace velmora {

QString logFilePath()
{
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
    QDir().mkpath(folder);
    return folder + QStringLiteral("/Velmora.log");
}

void appendLogLine(const QString& text)
{
    QFile file(logFilePath());
    if (!file.open(QIODevice::Append | QIODevice::Text))
        return;
    QTextStream out(&file);
    out << QDateTime::currentDateTime().toString(QStringLiteral("yyyy-MM-dd HH:mm:ss.zzz")) << "  " << text
        << '\n';
}

RepeatFilter::Verdict RepeatFilter::admit(const QString& key, qint64 nowSeconds)
{
    Entry& entry = seen[key];
    if (nowSeconds - entry.startSeconds < windowSeconds) {
        ++entry.count;
        return {entry.count <= linesPerWindow, 0};
    }
    const int omitted = entry.count > linesPerWindow ? entry.count - linesPerWindow : 0;
    entry = {nowSeconds, 1};
    return {true, omitted};
}

} // namespace velmora

void gstLogToFile(GstDebugCategory* category, GstDebugLevel level, const gchar* file, const gchar* function,
                  gint line, GObject*, GstDebugMessage* message, gpointer)
{
    static QMutex mutex;
    static velmora::RepeatFilter seen;
    const QMutexLocker lock(&mutex);

    const QString source = QString::fromUtf8(file ? file : "");
    const QString key = source + u':' + QString::number(line);
    const auto verdict = seen.admit(key, QDateTime::currentSecsSinceEpoch());
    if (verdict.omitted > 0)
        velmora::appendLogLine(QStringLiteral("GST (") + QString::number(verdict.omitted) +
                               QStringLiteral(" repeticiones omitidas de ") + key + u')');
    if (!verdict.write)
        return;
    const char* text = message ? gst_debug_message_get(message) : nullptr;
    // Concatenated rather than arg()-chained: a message may itself hold "%1".
    const QString categoryName = QString::fromUtf8(category ? gst_debug_category_get_name(category) : "");
    velmora::appendLogLine(QStringLiteral("GST ") + QString::number(int(level)) + u' ' + categoryName + u' ' + key +
                           u' ' + QString::fromUtf8(function ? function : "") + QStringLiteral(" : ") +
                           QString::fromUtf8(text ? text : ""));
}
