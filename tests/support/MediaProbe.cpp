#include "MediaProbe.h"

#include <QProcess>
#include <QRegularExpression>

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
    const QString text =
        runTool(QStringLiteral("ffprobe"), {QStringLiteral("-v"), QStringLiteral("error"),
                                            QStringLiteral("-count_frames"), QStringLiteral("-show_entries"),
                                            QStringLiteral("stream=codec_name,nb_read_frames,avg_frame_rate"),
                                            QStringLiteral("-of"), QStringLiteral("csv=p=0"), file});
    for (const QString& line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        const QStringList fields = line.trimmed().split(QLatin1Char(','));
        if (fields.size() == 3)
            streams.insert(fields[0], {fields[1], fields[2].toInt()});
    }
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
                   {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-show_entries"),
                    QStringLiteral("format=duration"), QStringLiteral("-of"), QStringLiteral("csv=p=0"), file})
        .toDouble();
}

QString playThrough(const QString& file)
{
    int exitCode = -1;
    const QString complaints =
        runTool(QStringLiteral("ffmpeg"), {QStringLiteral("-v"), QStringLiteral("error"), QStringLiteral("-i"), file,
                                           QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")},
                &exitCode);
    return exitCode == 0 ? complaints : QStringLiteral("exit %1: %2").arg(exitCode).arg(complaints);
}

double meanVolumeDb(const QString& file)
{
    const QString report = runTool(QStringLiteral("ffmpeg"),
                                   {QStringLiteral("-nostats"), QStringLiteral("-i"), file, QStringLiteral("-map"),
                                    QStringLiteral("0:a"), QStringLiteral("-af"), QStringLiteral("volumedetect"),
                                    QStringLiteral("-f"), QStringLiteral("null"), QStringLiteral("-")});
    const QRegularExpressionMatch mean =
        QRegularExpression(QStringLiteral("mean_volume: (-?[0-9.]+) dB")).match(report);
    return mean.hasMatch() ? mean.captured(1).toDouble() : -1000.0;
}
