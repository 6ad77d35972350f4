#pragma once

#include <QByteArray>
#include <QStringList>

// Runs a gst-launch style description until it ends, bounded; false when it does not parse, fails or hangs.
bool runToEnd(const QByteArray& description);
// Turns the leaks tracer on unless GST_TRACERS names others; call it before gst_init. Whether it will run.
bool startLeakTracking();
// Shuts GStreamer down and returns the objects the leaks tracer still saw alive then; empty when tracking is off.
QStringList deinitAndListAlive(bool tracking);
