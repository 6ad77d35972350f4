#pragma once

#include <QMap>
#include <QString>
#include <QStringList>

// Runs a command to its end (bounded to a minute) and returns what it printed, both channels.
QString runTool(const QString& program, const QStringList& arguments, int* exitCode = nullptr);

struct ProbedStream
{
    QString rate;
    int frames = -1;
};

// What ffprobe finds in a recording, decoding every frame: codec name -> frame rate and count.
QMap<QString, ProbedStream> probeStreams(const QString& file);
QString describeStreams(const QMap<QString, ProbedStream>& streams);

// The container's duration in seconds, or 0 when it can't be read.
double probeDuration(const QString& file);

// Decodes the whole file; empty when it plays to the end without a complaint.
QString playThrough(const QString& file);

// The mean loudness of the file's audio in dB below full scale, as ffmpeg's volumedetect reads it;
// -1000 when it can't be read.
double meanVolumeDb(const QString& file);
