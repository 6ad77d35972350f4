#include "Output.h"

#include "AudioMix.h"
#include "Frame.h"
#include "i18n.h"

#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <initializer_list>
#include <stdexcept>
#include <vector>

namespace {

constexpr std::uint64_t frameDurationNs = 33333333;
constexpr int audioRate = 48000;
constexpr int audioBlockFrames = tavrin::mixBlockSamples / 2;
constexpr gsize audioBlockBytes = gsize(tavrin::mixBlockSamples) * sizeof(float);

constexpr int minSide = 1;
constexpr int maxSide = 4096;
constexpr int minBitrate = 500000;
constexpr int maxBitrate = 20000000;

// Half a second at most in either source: a slow encoder or network loses the oldest data, it never
// holds the tick back or builds delay.
constexpr guint64 sourceMaxTimeNs = 500000000;
constexpr guint64 videoSourceBuffers = 3;
constexpr guint64 audioSourceBuffers = 32;
constexpr guint64 muxerLatencyNs = 500000000;

// libvpx's row threads busy-wait on each other. On two cores, shared with the GUI thread and the
// H.264 branch, the waiting thread is often off its core for long: measured on a one-stream minute,
// two threads burnt a third of a core spinning and the recording lost up to 3.6 % of its frames,
// where one thread kept every frame. With three cores or more the second thread pays.
int vp8Threads()
{
    return g_get_num_processors() >= 3 ? 2 : 1;
}

void configureSource(GstElement* source, const GstCaps* caps, guint64 maxBuffers)
{
    g_object_set(source, "caps", caps, "is-live", TRUE, "format", GST_FORMAT_TIME, "block", FALSE,
                 "max-buffers", maxBuffers, "max-bytes", guint64(0), "max-time", sourceMaxTimeNs,
                 "leaky-type", GST_APP_LEAKY_TYPE_DOWNSTREAM, nullptr);
}

void link(std::initializer_list<GstElement*> chain)
{
    GstElement* previous = nullptr;
    for (GstElement* next : chain) {
        if (previous && !gst_element_link(previous, next))
            throw std::runtime_error("No se pudieron enlazar codecs/salida");
        previous = next;
    }
}

void build(Output& output, bool stream, const std::string& target, int bitrate, bool flvToFile)
{
    if (output.width < minSide || output.width > maxSide || output.height < minSide ||
        output.height > maxSide || bitrate < minBitrate || bitrate > maxBitrate)
        throw std::runtime_error("Perfil de salida invalido");

    output.pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("tavrin-output"))));
    const bool flv = stream || flvToFile;

    auto videoSource = Output::element("appsrc");
    const gstptr::Caps videoCaps(gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, "RGBA", "width", G_TYPE_INT, output.width, "height",
        G_TYPE_INT, output.height, "framerate", GST_TYPE_FRACTION, 30, 1, nullptr));
    configureSource(videoSource.get(), videoCaps.get(), videoSourceBuffers);

    auto audioSource = Output::element("appsrc");
    const gstptr::Caps audioCaps(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "F32LE", "rate",
                                                     G_TYPE_INT, audioRate, "channels", G_TYPE_INT, 2,
                                                     "layout", G_TYPE_STRING, "interleaved", nullptr));
    configureSource(audioSource.get(), audioCaps.get(), audioSourceBuffers);

    auto videoConvert = Output::element("videoconvert");
    // The RGBA to I420 step runs in the source's streaming thread, before the encoder. On a two-core
    // machine a 1080p picture took 4.7 to 5.1 ms on one thread and 2.6 to 3.1 ms on two, of the
    // 33 ms that each picture has.
    g_object_set(videoConvert.get(), "n-threads", 2u, nullptr);
    auto i420Filter = Output::element("capsfilter");
    const gstptr::Caps i420(gst_caps_new_simple("video/x-raw", "format", G_TYPE_STRING, "I420", nullptr));
    g_object_set(i420Filter.get(), "caps", i420.get(), nullptr);

    gstptr::Element videoEncoder;
    gstptr::Element h264Parse;
    gstptr::Element avcFilter;
    if (flv) {
        // No other H.264 encoder is tried: openh264 is what every target ships.
        videoEncoder = Output::element("openh264enc");
        g_object_set(videoEncoder.get(), "bitrate", guint(bitrate), "rate-control", 1, "gop-size", guint(60),
                     "complexity", 0, "multi-thread", guint(2), nullptr);
        // H.264 as FLV carries it: length-prefixed, whole access units.
        h264Parse = Output::element("h264parse");
        avcFilter = Output::element("capsfilter");
        const gstptr::Caps avc(gst_caps_new_simple("video/x-h264", "stream-format", G_TYPE_STRING, "avc",
                                                   "alignment", G_TYPE_STRING, "au", nullptr));
        g_object_set(avcFilter.get(), "caps", avc.get(), nullptr);
    } else {
        videoEncoder = Output::element("vp8enc");
        g_object_set(videoEncoder.get(), "deadline", gint64(1), "cpu-used", 8, "target-bitrate", bitrate,
                     "threads", vp8Threads(), nullptr);
    }

    auto videoQueue = Output::element("queue");
    g_object_set(videoQueue.get(), "max-size-time", guint64(1000000000), nullptr);

    auto audioConvert = Output::element("audioconvert");
    auto audioResample = Output::element("audioresample");

    gstptr::Element audioEncoder;
    gstptr::Element aacParse;
    if (flv) {
        // The Media Foundation encoder where Windows has it; voaacenc everywhere else.
        const gstptr::Object<GstElementFactory> mediaFoundation(gst_element_factory_find("mfaacenc"));
        audioEncoder = Output::element(mediaFoundation ? "mfaacenc" : "voaacenc");
        g_object_set(audioEncoder.get(), "bitrate", 160000, nullptr);
        aacParse = Output::element("aacparse");
    } else {
        audioEncoder = Output::element("vorbisenc");
    }
    auto audioQueue = Output::element("queue");
    auto muxer = Output::element(flv ? "flvmux" : "webmmux");
    if (flv) {
        // The sources are live, so flvmux interleaves by the clock: without room to wait, the sound,
        // which encodes faster, goes out ahead of the picture and the picture's times get pushed
        // forward into a stutter. Without it nginx recorded a 1080p stream that ffprobe reads as
        // 1000/1 or 47/1 frames a second with no average rate; with 500 ms, 30/1 and 30/1 (20 s
        // runs of velmora-soak; 250 ms held once, 100 ms did not). It only delays a stream, it
        // never holds more data.
        g_object_set(muxer.get(), "latency", muxerLatencyNs, nullptr);
    }

    gstptr::Element sink;
    if (stream) {
        sink = Output::element("rtmp2sink");
        if (target.rfind("rtmps://", 0) != 0 && target.rfind("rtmp://", 0) != 0)
            throw std::runtime_error("Destino debe usar RTMP o RTMPS");
        g_object_set(muxer.get(), "streamable", TRUE, nullptr);
        // The connection is made on the first buffer, on the streaming thread, so that starting a
        // stream never waits for the network.
        g_object_set(sink.get(), "location", target.c_str(), "sync", FALSE, "async-connect", FALSE, nullptr);
    } else {
        sink = Output::element("filesink");
        if (target.empty())
            throw std::runtime_error("Selecciona archivo de grabacion");
        g_object_set(sink.get(), "location", target.c_str(), "sync", FALSE, nullptr);
    }

    GstBin* bin = GST_BIN(output.pipeline.get());
    for (const gstptr::Element* part :
         {&videoSource, &audioSource, &videoConvert, &i420Filter, &videoEncoder, &h264Parse, &avcFilter,
          &videoQueue, &audioConvert, &audioResample, &audioEncoder, &aacParse, &audioQueue, &muxer, &sink}) {
        if (*part && !gst_bin_add(bin, part->get()))
            throw std::runtime_error("No se pudieron enlazar codecs/salida");
    }
    output.videoSource = videoSource.get();
    output.audioSource = audioSource.get();

    // Each chain is linked from its source on, so that the queue already carries the encoder's caps
    // when the muxer is asked for a matching pad.
    if (flv) {
        link({videoSource.get(), videoConvert.get(), i420Filter.get(), videoEncoder.get(), h264Parse.get(),
              avcFilter.get(), videoQueue.get(), muxer.get()});
        link({audioSource.get(), audioConvert.get(), audioResample.get(), audioEncoder.get(), aacParse.get(),
              audioQueue.get(), muxer.get()});
    } else {
        link({videoSource.get(), videoConvert.get(), i420Filter.get(), videoEncoder.get(), videoQueue.get(),
              muxer.get()});
        link({audioSource.get(), audioConvert.get(), audioResample.get(), audioEncoder.get(),
              audioQueue.get(), muxer.get()});
    }
    link({muxer.get(), sink.get()});

    output.bus.reset(gst_element_get_bus(output.pipeline.get()));
    if (gst_element_set_state(output.pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        throw std::runtime_error("No se pudo iniciar salida");
    output.running = true;
}

} // namespace

Output::Output(int width, int height, bool stream, const std::string& target, int bitrate, bool flvToFile)
    : width(width), height(height)
{
    try {
        build(*this, stream, target, bitrate, flvToFile);
    } catch (...) {
        // The destructor does not run for a half-built object: stop and release here.
        if (pipeline)
            gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        pipeline.reset();
        bus.reset();
        videoSource = nullptr;
        audioSource = nullptr;
        throw;
    }
}

Output::~Output()
{
    if (pipeline)
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    pipeline.reset();
    bus.reset();
}

gstptr::Element Output::element(const char* factory)
{
    return gstptr::Element(GST_ELEMENT(gst_object_ref_sink(make(factory))));
}

GstElement* Output::make(const char* factory)
{
    GstElement* made = gst_element_factory_make(factory, nullptr);
    if (!made)
        throw std::runtime_error((T("Componente no disponible: ") + QString::fromUtf8(factory)).toStdString());
    return made;
}

void Output::push(const std::shared_ptr<const tavrin::Frame>& frame, const std::vector<float>& audio, std::uint64_t studioClockNs)
{
    // Timestamps are the paced clock itself, not a count of what was pushed: after a stall or a drop
    // the next buffer carries the true elapsed time, and sound and picture cannot drift apart.
    if (startNs == ~std::uint64_t(0))
        startNs = studioClockNs;
    const std::uint64_t elapsed = studioClockNs < startNs ? 0 : studioClockNs - startNs;
    videoPts = elapsed;
    audioPts = elapsed;

    if (running && !finishing) {
        if (frame->width != width || frame->height != height ||
            frame->pixels.size() != std::size_t(width) * std::size_t(height) * 4) {
            error = "El formato cambio durante salida";
            running = false;
        } else {
            // Every output wraps the one picture of this frame, read-only, instead of copying it into a
            // buffer of its own. On the tick's thread the copies took 0.84 ms a frame for one output
            // and 20 to 23 ms for five 1080p recordings at once, wrapping 0.05 to 0.09 ms; either way
            // each source hands on the very bytes of the frame (compared by hash, buffer by buffer).
            // The last buffer to be released lets go of the picture, on whichever thread.
            auto* holder = new std::shared_ptr<const tavrin::Frame>(frame);
            GstBuffer* buffer = gst_buffer_new_wrapped_full(
                GST_MEMORY_FLAG_READONLY, const_cast<std::uint8_t*>(frame->pixels.data()), frame->pixels.size(), 0,
                frame->pixels.size(), holder,
                [](gpointer held) { delete static_cast<std::shared_ptr<const tavrin::Frame>*>(held); });
            if (buffer) {
                GST_BUFFER_PTS(buffer) = videoPts;
                GST_BUFFER_DURATION(buffer) = frameDurationNs;
            }
            videoPts += frameDurationNs;
            // The source takes the buffer whatever the result.
            if (!buffer || gst_app_src_push_buffer(GST_APP_SRC(videoSource), buffer) != GST_FLOW_OK) {
                error = "No se pudo enviar video a salida";
                running = false;
            } else {
                ++videoFrames;
            }
        }

        if (running) {
            // Always a whole block: missing samples are silence, extra ones are not sent.
            GstBuffer* buffer = gst_buffer_new_allocate(nullptr, audioBlockBytes, nullptr);
            const std::uint64_t duration = gst_util_uint64_scale(audioBlockFrames, GST_SECOND, audioRate);
            if (buffer) {
                const gsize taken =
                    std::min(audio.size(), std::size_t(tavrin::mixBlockSamples)) * sizeof(float);
                if (taken > 0)
                    gst_buffer_fill(buffer, 0, audio.data(), taken);
                if (taken < audioBlockBytes)
                    gst_buffer_memset(buffer, taken, 0, audioBlockBytes - taken);
                GST_BUFFER_PTS(buffer) = audioPts;
                GST_BUFFER_DURATION(buffer) = duration;
            }
            audioPts += duration;
            if (!buffer || gst_app_src_push_buffer(GST_APP_SRC(audioSource), buffer) != GST_FLOW_OK) {
                error = "No se pudo enviar audio a salida";
                running = false;
            } else {
                audioFrames += audioBlockFrames;
            }
        }
    }

    poll();
}

void Output::poll()
{
    if (!bus)
        return;
    const gstptr::Message message(
        gst_bus_pop_filtered(bus.get(), GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (!message)
        return;
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
        running = false;
        ended = true;
        return;
    }
    GError* rawError = nullptr;
    gst_message_parse_error(message.get(), &rawError, nullptr);
    const gstptr::Error failure(rawError);
    // Only the code is shown: the element's own message is technical and often English.
    error = failure ? T("Fallo de salida (codigo %1). Revisa destino, permisos y codecs.").arg(failure->code).toStdString()
                    : T("Fallo de salida").toStdString();
    running = false;
}

void Output::finish()
{
    if (!running || finishing)
        return;
    finishing = true;
    gst_app_src_end_of_stream(GST_APP_SRC(videoSource));
    gst_app_src_end_of_stream(GST_APP_SRC(audioSource));
}
