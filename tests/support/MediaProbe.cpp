#include "MediaProbe.h"

#include <QProcess>
#include <QRegularExpression>

namespace {

// The words of `text`, with the file (whose path may hold blanks) in place of %1.
QStringList words(const char* text, const QString& file)
{
    QStringList list = QString::fromLatin1(text).split(u' ');
    list.replace(list.indexOf(QStringLiteral("%1")), file);
    return list;
}

} // namespace

QString runTool(const QString& program, const QStringList& arguments, int* exitCode)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(5000);
    }
    if (exitCode)
        *exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    return QString::fromLocal8Bit(process.readAll()).trimmed();
}

QMap<QString, ProbedStream> probeStreams(const QString& file)
{
    QMap<QString, ProbedStream> streams;
    const QString text = runTool(QStringLiteral("ffprobe"),
                                 words("-v error -count_frames -show_entries "
                                       "stream=codec_name,nb_read_frames,avg_frame_rate -of csv=p=0 %1",
                                       file));
    for (const QString& line : text.split(u'\n', Qt::SkipEmptyParts))
        if (const QStringList fields = line.trimmed().split(u','); fields.size() == 3)
            streams.insert(fields[0], {fields[1], fields[2].toInt()});
    return streams;
}

QString describeStreams(const QMap<QString, ProbedStream>& streams)
{
    QStringList parts;
    for (auto it = streams.cbegin(); it != streams.cend(); ++it)
        parts << QStringLiteral("%1 %2 %3").arg(it.key(), it->rate).arg(it->frames);
    return parts.join(QStringLiteral("; "));
}

double probeDuration(const QString& file)
{
    return runTool(QStringLiteral("ffprobe"),
                   words("-v error -show_entries format=duration -of csv=p=0 %1", file))
        .toDouble();
}

QString playThrough(const QString& file)
{
    int exitCode = -1;
    const QString complaints =
        runTool(QStringLiteral("ffmpeg"), words("-v error -i %1 -f null -", file), &exitCode);
    return exitCode == 0 ? complaints : QStringLiteral("exit %1: %2").arg(exitCode).arg(complaints);
}

double meanVolumeDb(const QString& file)
{
    const QString report =
        runTool(QStringLiteral("ffmpeg"), words("-nostats -i %1 -map 0:a -af volumedetect -f null -", file));
    const QRegularExpressionMatch mean =
        QRegularExpression(QStringLiteral("mean_volume: (-?[0-9.]+) dB")).match(report);
    return mean.hasMatch() ? mean.captured(1).toDouble() : -1000.0;
}
