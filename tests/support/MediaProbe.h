#pragma once

#include <QMap>
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
double probeDuration(const QString& file); // in seconds; 0 when it can't be read
QString playThrough(const QString& file);  // decodes it all; empty when it plays to the end without a complaint
// The mean loudness of the file's audio in dB, as ffmpeg's volumedetect reads it; -1000 when it can't be read.
double meanVolumeDb(const QString& file);
