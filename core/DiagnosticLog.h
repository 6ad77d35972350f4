#pragma once

#include <QHash>
#include <QString>
#include <gst/gst.h>

namespace velmora {

// Full path of "Velmora.log" in the application data folder; the folder is made on the way.
QString logFilePath();

// Appends one time-stamped line. The file is opened and closed per line so that a crash loses
// nothing; when it cannot be opened the line is dropped without a word.
void appendLogLine(const QString& text);

// Limits the lines of one call site to a few per window, so that a warning storm cannot flood the
// log. Time is passed in by the caller, which keeps the filter testable without waiting.
class RepeatFilter
{
public:
    static constexpr qint64 windowSeconds = 60;
    static constexpr int linesPerWindow = 5;

    struct Verdict
    {
        bool write = false;
        int omitted = 0; // > 0: write the summary of this many silenced lines first
    };

    Verdict admit(const QString& key, qint64 nowSeconds);

private:
    struct Entry
    {
        qint64 startSeconds = 0;
        int count = 0;
    };
    QHash<QString, Entry> seen;
};

} // namespace velmora

// GStreamer's log hook: warnings and worse go to the log file, under the repeat limit.
void gstLogToFile(GstDebugCategory* category, GstDebugLevel level, const gchar* file, const gchar* function,
                  gint line, GObject* object, GstDebugMessage* message, gpointer userData);
