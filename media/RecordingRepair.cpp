#include "RecordingRepair.h"

#include "GstPtr.h"
#include "Output.h"

#include <cstdio>
#include <stdexcept>

namespace {

// A copy runs at the speed of the disk, minutes for hours of recording; a stall ends it.
constexpr GstClockTime copyLimitNs = 30 * 60 * GST_SECOND;
constexpr GstClockTime checkLimitNs = 30 * GST_SECOND;

const char* failure = "No se pudo reparar la grabación";

struct Remux
{
    GstBin* bin = nullptr;
    GstElement* muxer = nullptr; // when copying: every stream goes into it through a queue
    GstElement* check = nullptr; // when reading back: the first picture stream ends here
};

// Each stream the demuxer finds goes through a queue into the muxer's pad of its kind; when reading
// back, only the picture goes on, into a sink. Runs on the demuxer's streaming thread, before the
// stream's first buffer.
void linkStream(GstElement*, GstPad* pad, gpointer data)
{
    const auto* remux = static_cast<const Remux*>(data);
    const gstptr::Caps caps(gst_pad_get_current_caps(pad));
    const bool video =
        caps && g_str_has_prefix(gst_structure_get_name(gst_caps_get_structure(caps.get(), 0)), "video/");
    if (!remux->muxer) {
        const gstptr::Pad input(gst_element_get_static_pad(remux->check, "sink"));
        if (video && !gst_pad_is_linked(input.get()))
            gst_pad_link(pad, input.get());
        return;
    }
    GstElement* queue = gst_element_factory_make("queue", nullptr);
    if (!queue)
        return;
    gst_bin_add(remux->bin, queue);
    const gstptr::Pad input(gst_element_get_static_pad(queue, "sink"));
    const gstptr::Pad output(gst_element_get_static_pad(queue, "src"));
    const gstptr::Pad muxerPad(gst_element_request_pad_simple(remux->muxer, video ? "video_%u" : "audio_%u"));
    gst_pad_link(pad, input.get());
    if (muxerPad)
        gst_pad_link(output.get(), muxerPad.get());
    gst_element_sync_state_with_parent(queue);
}

// Runs the pipeline to `until` (an end of stream, or the end of a state change), an error or the limit.
bool runUntil(GstElement* pipeline, GstState state, GstMessageType until, GstClockTime limitNs)
{
    const gstptr::Bus bus(gst_element_get_bus(pipeline));
    if (gst_element_set_state(pipeline, state) == GST_STATE_CHANGE_FAILURE)
        return false;
    const gstptr::Message message(
        gst_bus_timed_pop_filtered(bus.get(), limitNs, GstMessageType(until | GST_MESSAGE_ERROR)));
    return message && GST_MESSAGE_TYPE(message.get()) == until;
}

struct Pipeline
{
    gstptr::Element pipeline{GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("tavrin-repair")))};
    Remux remux;
    ~Pipeline()
    {
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    }
};

// filesrc and matroskademux, each stream found linked by linkStream.
void readInto(Pipeline& run, const std::string& path, GstElement* muxer, GstElement* check)
{
    run.remux = {GST_BIN(run.pipeline.get()), muxer, check};
    auto source = Output::element("filesrc");
    g_object_set(source.get(), "location", path.c_str(), nullptr);
    auto demuxer = Output::element("matroskademux");
    g_signal_connect(demuxer.get(), "pad-added", G_CALLBACK(linkStream), &run.remux);
    gst_bin_add_many(run.remux.bin, source.get(), demuxer.get(), nullptr);
    if (!gst_element_link(source.get(), demuxer.get()))
        throw std::runtime_error(failure);
}

// The copy opens, has a known duration and can be sought in.
bool finished(const std::string& path)
{
    Pipeline check;
    // The sink is there from the start, so that pausing waits until the first picture reaches it.
    auto sink = Output::element("fakesink");
    gst_bin_add(GST_BIN(check.pipeline.get()), sink.get());
    readInto(check, path, nullptr, sink.get());
    if (!runUntil(check.pipeline.get(), GST_STATE_PAUSED, GST_MESSAGE_ASYNC_DONE, checkLimitNs))
        return false;
    gint64 durationNs = 0;
    if (!gst_element_query_duration(check.pipeline.get(), GST_FORMAT_TIME, &durationNs) || durationNs <= 0)
        return false;
    GstQuery* seeking = gst_query_new_seeking(GST_FORMAT_TIME);
    gboolean seekable = FALSE;
    if (gst_element_query(check.pipeline.get(), seeking))
        gst_query_parse_seeking(seeking, nullptr, &seekable, nullptr, nullptr);
    gst_query_unref(seeking);
    return seekable;
}

} // namespace

std::string repairRecording(const std::string& path)
{
    const std::size_t dot = path.rfind('.');
    const std::size_t slash = path.rfind('/');
    const std::string stem = dot != std::string::npos && (slash == std::string::npos || dot > slash) ? path.substr(0, dot) : path;
    const std::string repaired = stem + "-reparada.webm";
    const std::string partial = repaired + ".part";

    bool copied = false;
    {
        Pipeline copy;
        auto muxer = Output::element("webmmux");
        auto sink = Output::element("filesink");
        g_object_set(sink.get(), "location", partial.c_str(), nullptr);
        gst_bin_add_many(GST_BIN(copy.pipeline.get()), muxer.get(), sink.get(), nullptr);
        readInto(copy, path, muxer.get(), nullptr);
        // A cut-off file ends in a partial cluster: the demuxer stops there with an end of stream,
        // and the muxer writes the duration and the seek index as it closes the copy.
        copied = gst_element_link(muxer.get(), sink.get()) &&
                 runUntil(copy.pipeline.get(), GST_STATE_PLAYING, GST_MESSAGE_EOS, copyLimitNs);
    }
    if (!copied || !finished(partial) || std::rename(partial.c_str(), repaired.c_str()) != 0) {
        std::remove(partial.c_str());
        throw std::runtime_error(failure);
    }
    return repaired;
}
