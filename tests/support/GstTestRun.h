#pragma once

#include <QByteArray>
#include <QStringList>

// Runs a gst-launch style description until it ends; the bus wait is bounded. False when the
// description does not parse, the pipeline fails, or it has not ended in time.
bool runToEnd(const QByteArray& description);

// Turns GStreamer's leaks tracer on unless GST_TRACERS already names the tracers to run. Call it
// before gst_init; says whether the leaks tracer will run.
bool startLeakTracking();

// Shuts GStreamer down and returns the objects the leaks tracer still saw alive then; empty when
// tracking is off. Nothing GStreamer may be used after it.
QStringList deinitAndListAlive(bool tracking);
