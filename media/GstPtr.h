#pragma once

#include <gst/gst.h>
#include <gst/video/video.h>
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

// A buffer mapped for reading for as long as the scope lasts; ok() is false if the map failed.
class BufferMap
{
public:
    explicit BufferMap(GstBuffer* buffer) : buffer(buffer)
    {
        mapped = buffer && gst_buffer_map(buffer, &info, GST_MAP_READ);
    }
    ~BufferMap()
    {
        if (mapped)
            gst_buffer_unmap(buffer, &info);
    }
    BufferMap(const BufferMap&) = delete;
    BufferMap& operator=(const BufferMap&) = delete;

    bool ok() const { return mapped; }
    const guint8* data() const { return info.data; }
    gsize size() const { return info.size; }

private:
    GstBuffer* buffer;
    GstMapInfo info{};
    bool mapped = false;
};

// A video frame mapped for reading for as long as the scope lasts; the map holds its own buffer
// reference until it is undone.
class VideoFrameMap
{
public:
    VideoFrameMap(const GstVideoInfo& videoInfo, GstBuffer* buffer)
    {
        mapped = buffer &&
                 gst_video_frame_map(&frame, const_cast<GstVideoInfo*>(&videoInfo), buffer, GST_MAP_READ);
    }
    ~VideoFrameMap()
    {
        if (mapped)
            gst_video_frame_unmap(&frame);
    }
    VideoFrameMap(const VideoFrameMap&) = delete;
    VideoFrameMap& operator=(const VideoFrameMap&) = delete;

    bool ok() const { return mapped; }
    const GstVideoFrame& get() const { return frame; }

private:
    GstVideoFrame frame{};
    bool mapped = false;
};

// Plain GLib objects that are not GstObjects: cancellables, D-Bus connections, async results,
// variants, main contexts and their sources.
struct GObjectUnref
{
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct MainContextUnref
{
    void operator()(GMainContext* context) const { g_main_context_unref(context); }
};
struct VariantUnref
{
    void operator()(GVariant* variant) const { g_variant_unref(variant); }
};
struct SourceDestroy
{
    void operator()(GSource* source) const
    {
        g_source_destroy(source);
        g_source_unref(source);
    }
};

template <typename T> using GlibObject = std::unique_ptr<T, GObjectUnref>;
using MainContext = std::unique_ptr<GMainContext, MainContextUnref>;
using Variant = std::unique_ptr<GVariant, VariantUnref>;
// A source attached to a context: leaving the scope also takes it off the context.
using Source = std::unique_ptr<GSource, SourceDestroy>;

// Makes a context the thread's default for as long as the scope lasts, so that asynchronous GLib
// calls started inside the scope report to that context and to no other.
class ThreadDefaultContext
{
public:
    explicit ThreadDefaultContext(GMainContext* context) : context(context)
    {
        g_main_context_push_thread_default(context);
    }
    ~ThreadDefaultContext() { g_main_context_pop_thread_default(context); }
    ThreadDefaultContext(const ThreadDefaultContext&) = delete;
    ThreadDefaultContext& operator=(const ThreadDefaultContext&) = delete;

private:
    GMainContext* context;
};

} // namespace gstptr
