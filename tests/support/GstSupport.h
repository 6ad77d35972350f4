#pragma once

#include "GstPtr.h"

#include <QByteArray>
#include <QStringList>
#include <functional>

// Runs a gst-launch style description until it ends, bounded; false when it does not parse, fails or hangs.
bool runToEnd(const QByteArray& description);
// Turns the leaks tracer on unless GST_TRACERS names others; call it before gst_init. Whether it will run.
bool startLeakTracking();
// Shuts GStreamer down and returns the objects the leaks tracer still saw alive then; empty when tracking is off.
QStringList deinitAndListAlive(bool tracking);

// A capture device made up for tests (the machines that run them have none), whose elements come from makeElement;
// an empty function, or one that returns nullptr, plays a device whose element is missing.
gstptr::Device makeFakeDevice(const char* displayName, const char* deviceClass, const GstCaps* caps,
                              std::function<GstElement*(const gchar* name)> makeElement);
