#pragma once

#include "GstPtr.h"

#include <functional>

// A capture device made up for tests (the machines that run them have none), whose elements come from makeElement;
// an empty function, or one that returns nullptr, plays a device whose element is missing.
gstptr::Device makeFakeDevice(const char* displayName, const char* deviceClass, const GstCaps* caps,
                              std::function<GstElement*(const gchar* name)> makeElement);
