#pragma once

#include <gst/gst.h>
#include <memory>

// Owning pointers for GStreamer and GLib objects: whatever path leaves a scope, the reference goes.
namespace gstptr {

struct ObjectUnref
{
    void operator()(gpointer object) const { gst_object_unref(object); }
};
struct CapsUnref
{
    void operator()(GstCaps* caps) const { gst_caps_unref(caps); }
};
struct SampleUnref
{
    void operator()(GstSample* sample) const { gst_sample_unref(sample); }
};
struct MessageUnref
{
    void operator()(GstMessage* message) const { gst_message_unref(message); }
};
struct GFree
{
    void operator()(gpointer memory) const { g_free(memory); }
};
struct ErrorFree
{
    void operator()(GError* error) const { g_error_free(error); }
};

template <typename T> using Object = std::unique_ptr<T, ObjectUnref>;
using Element = Object<GstElement>;
using Bus = Object<GstBus>;
using Pad = Object<GstPad>;
using Device = Object<GstDevice>;
using Caps = std::unique_ptr<GstCaps, CapsUnref>;
using Sample = std::unique_ptr<GstSample, SampleUnref>;
using Message = std::unique_ptr<GstMessage, MessageUnref>;
using String = std::unique_ptr<gchar, GFree>;
using Error = std::unique_ptr<GError, ErrorFree>;

// A floating element made by a factory, sunk so that the pointer owns one full reference.
inline Element makeElement(const char* factory, const char* name = nullptr)
{
    GstElement* element = gst_element_factory_make(factory, name);
    return Element(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

} // namespace gstptr
