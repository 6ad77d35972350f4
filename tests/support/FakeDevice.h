#pragma once

#include "GstPtr.h"

#include <functional>

// A capture device made up for tests, since the machines that run them have no camera or sound
// card. Each element it hands out comes from makeElement, called with the name GStreamer asks for;
// an empty function (or one that returns nullptr) plays a device whose element is missing.
gstptr::Device makeFakeDevice(const char* displayName, const char* deviceClass, const GstCaps* caps,
                              std::function<GstElement*(const gchar* name)> makeElement);
