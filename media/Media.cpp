#include "Media.h"

#include <gst/app/gstappsink.h>
#include <gst/video/video.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <initializer_list>
#include <stdexcept>

namespace {

// One second of 48 kHz stereo: enough to bridge a late tick, small enough to never build delay.
constexpr std::size_t audioRingFloats = 96000;
constexpr std::int64_t deviceSilenceUs = 4000000;
constexpr std::int64_t sourceSilenceUs = 10000000;

enum class Kind { Screen, Device, Uri, Test };

Kind kindOf(GstDevice* device, const std::string& uri, bool test, bool screen)
{
    if (screen)
        return Kind::Screen;
    if (device)
        return Kind::Device;
    if (!uri.empty() || !test)
        return Kind::Uri;
    return Kind::Test;
}

const char* tagOf(Kind kind, const std::string& uri)
{
    switch (kind) {
    case Kind::Screen:
        return " (pantalla)";
    case Kind::Device:
        return " (dispositivo)";
    case Kind::Uri:
        // No caller opens an empty address without the test flag; such a source is logged as the
        // test pattern it stood in for.
        return uri.empty() ? " (prueba)" : " (uri)";
    case Kind::Test:
        return " (prueba)";
    }
    return "";
}

gstptr::Element makeScreenSource()
{
#ifdef _WIN32
    // Untested here: we only build and test on Linux. Direct3D 11 capture first, the older
    // Direct3D 9 element for systems without it.
    for (const char* factory : {"d3d11screencapturesrc", "dx9screencapsrc"}) {
        if (auto element = gstptr::makeElement(factory, "source"))
            return element;
    }
#else
    // ximagesrc needs an X display; without one, the pipeline fails to start and the caller
    // hears "No se pudo iniciar fuente".
    if (auto element = gstptr::makeElement("ximagesrc", "source")) {
        // A full grab every frame, so pictures keep coming whatever the damage events do.
        g_object_set(element.get(), "use-damage", FALSE, nullptr);
        return element;
    }
    if (auto element = gstptr::makeElement("pipewiresrc", "source"))
        return element;
#endif
    throw std::runtime_error("Captura de pantalla no disponible en este sistema");
}

gstptr::Element makeDeviceSource(GstDevice* device)
{
    GstElement* element = gst_device_create_element(device, "source");
    return gstptr::Element(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

std::string capsText(const GstCaps* caps)
{
    if (!caps)
        return "?";
    const gstptr::String text(gst_caps_to_string(caps));
    return text ? std::string(text.get()) : std::string("?");
}

std::string factoryName(GstElement* element)
{
    GstElementFactory* factory = gst_element_get_factory(element);
    const gchar* name = factory ? gst_plugin_feature_get_name(GST_PLUGIN_FEATURE(factory)) : nullptr;
    return name ? name : "?";
}

// Windows capture elements number their devices; most others have no such property.
int deviceIndexOf(GstElement* source)
{
    auto* property = g_object_class_find_property(G_OBJECT_GET_CLASS(source), "device-index");
    if (!property || !(property->flags & G_PARAM_READABLE) ||
        !g_value_type_transformable(property->value_type, G_TYPE_INT))
        return -1;
    GValue value = G_VALUE_INIT;
    g_value_init(&value, G_TYPE_INT);
    g_object_get_property(G_OBJECT(source), "device-index", &value);
    const int index = g_value_get_int(&value);
    g_value_unset(&value);
    return index;
}

void setSinkLimits(GstElement* sink, guint maxBuffers)
{
    // Drop-oldest and no preroll: a late tick loses pictures or sound, it never builds latency,
    // and a source without one of the two streams cannot hold the pipeline back.
    g_object_set(sink, "max-buffers", maxBuffers, "drop", TRUE, "sync", TRUE, "async", FALSE, nullptr);
}

void buildAudioTail(Media& media)
{
    auto convert = gstptr::makeElement("audioconvert");
    auto resample = gstptr::makeElement("audioresample");
    auto filter = gstptr::makeElement("capsfilter");
    auto sink = gstptr::makeElement("appsink");
    if (!convert || !resample || !filter || !sink)
        throw std::runtime_error("Faltan componentes para audio multimedia");

    const gstptr::Caps caps(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "F32LE", "layout",
                                                G_TYPE_STRING, "interleaved", "rate", G_TYPE_INT, 48000,
                                                "channels", G_TYPE_INT, 2, nullptr));
    g_object_set(filter.get(), "caps", caps.get(), nullptr);
    setSinkLimits(sink.get(), 8);

    gst_bin_add_many(GST_BIN(media.pipeline.get()), convert.get(), resample.get(), filter.get(), sink.get(),
                     nullptr);
    media.audioConvert = convert.get();
    media.audioSink = sink.get();
    if (!gst_element_link_many(convert.get(), resample.get(), filter.get(), sink.get(), nullptr))
        throw std::runtime_error("Fallo conversion audio multimedia");
}

void build(Media& media, int width, int height, GstDevice* device, const std::string& uri, bool test,
           bool screen)
{
    media.lastFrameUs = media.clock();
    media.pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("tavrin-source"))));
    // Set from the argument alone, as the camera time-out keys on it; no caller passes a device
    // together with the screen flag.
    media.isDevice = device != nullptr;
    GstBin* bin = GST_BIN(media.pipeline.get());
    const Kind kind = kindOf(device, uri, test, screen);

    gstptr::Element source;
    switch (kind) {
    case Kind::Screen:
        source = makeScreenSource();
        break;
    case Kind::Device:
        source = makeDeviceSource(device);
        break;
    case Kind::Uri:
        source = gstptr::makeElement("uridecodebin", "source");
        break;
    case Kind::Test:
        source = gstptr::makeElement("videotestsrc", "source");
        break;
    }
    auto sourceFilter = gstptr::makeElement("capsfilter");
    auto capsSetter = gstptr::makeElement("capssetter");
    auto convert = gstptr::makeElement("videoconvert");
    auto scale = gstptr::makeElement("videoscale");
    auto outputFilter = gstptr::makeElement("capsfilter");
    auto sink = gstptr::makeElement("appsink");
    if (!source || !sourceFilter || !capsSetter || !convert || !scale || !outputFilter || !sink)
        throw std::runtime_error("Falta componente de fuente multimedia");

    // The bin takes its own references; ours go at the end of this scope.
    gst_bin_add_many(bin, source.get(), sourceFilter.get(), capsSetter.get(), convert.get(), scale.get(),
                     outputFilter.get(), sink.get(), nullptr);
    media.source = source.get();
    media.videoConvert = convert.get();
    media.videoSink = sink.get();

    media.diagnostics = "fuente=" + factoryName(source.get()) + tagOf(kind, uri);
    if (kind == Kind::Device) {
        const gstptr::String name(gst_device_get_display_name(device));
        media.diagnostics += " nombre=" + std::string(name ? name.get() : "?");
        media.diagnostics += " device-index=" + std::to_string(deviceIndexOf(source.get()));
    }

    const gstptr::Caps outputCaps(gst_caps_new_simple(
        "video/x-raw", "format", G_TYPE_STRING, "RGBA", "width", G_TYPE_INT, width, "height", G_TYPE_INT,
        height, "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr));
    g_object_set(outputFilter.get(), "caps", outputCaps.get(), nullptr);
    // Letterbox a source of another shape rather than stretch it.
    g_object_set(scale.get(), "add-borders", TRUE, nullptr);
    setSinkLimits(sink.get(), 2);

    buildAudioTail(media);

    if (!gst_element_link_many(convert.get(), scale.get(), outputFilter.get(), sink.get(), nullptr))
        throw std::runtime_error("Fuente: no se pudo enlazar conversion");

    if (kind == Kind::Uri) {
        // Streams appear later, on the decoder's thread; the source filter and capssetter stay idle.
        g_object_set(source.get(), "uri", uri.c_str(), nullptr);
        g_signal_connect(source.get(), "pad-added", G_CALLBACK(&Media::padAdded), &media);
    } else {
        gstptr::Caps requested(gst_caps_new_empty_simple("video/x-raw"));
        if (kind == Kind::Device) {
            const gstptr::Caps deviceCaps(gst_device_get_caps(device));
            const tavrin::CaptureSize size = tavrin::chooseCaptureSize(deviceCaps.get(), width, height);
            if (size.width > 0 && size.height > 0)
                gst_caps_set_simple(requested.get(), "width", G_TYPE_INT, size.width, "height", G_TYPE_INT,
                                    size.height, nullptr);
        } else if (kind == Kind::Test) {
            g_object_set(source.get(), "is-live", TRUE, nullptr);
        }
        g_object_set(sourceFilter.get(), "caps", requested.get(), nullptr);

        // Square pixels are declared, not scaled to: a source's odd pixel shape is overridden.
        const gstptr::Caps square(
            gst_caps_new_simple("video/x-raw", "pixel-aspect-ratio", GST_TYPE_FRACTION, 1, 1, nullptr));
        g_object_set(capsSetter.get(), "caps", square.get(), "replace", FALSE, "join", TRUE, nullptr);
        media.diagnostics += " pedido=" + capsText(requested.get());

        if (!gst_element_link_many(source.get(), sourceFilter.get(), capsSetter.get(), convert.get(),
                                   nullptr))
            throw std::runtime_error("Fuente no ofrece video raw compatible");
    }

    media.bus.reset(gst_element_get_bus(media.pipeline.get()));
    // A local file that cannot be opened already fails here, while the source starts; network
    // and decoding failures come later, on the bus, as "Fuente sin señal: ".
    if (gst_element_set_state(media.pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        throw std::runtime_error("No se pudo iniciar fuente");
}

} // namespace

Media::Media(int width, int height, GstDevice* device, const std::string& uri, bool test, bool screen)
{
    try {
        build(*this, width, height, device, uri, test, screen);
    } catch (...) {
        // The destructor does not run for a half-built object: stop and release here.
        if (pipeline)
            gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        pipeline.reset();
        bus.reset();
        throw;
    }
}

Media::~Media()
{
    if (pipeline)
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    pipeline.reset();
    bus.reset();
}

void Media::padAdded(GstElement*, GstPad* pad, void* self)
{
    // Streaming thread: only the two conversion elements are touched, and they never change.
    const auto* media = static_cast<const Media*>(self);
    gstptr::Caps caps(gst_pad_get_current_caps(pad));
    if (!caps)
        caps.reset(gst_pad_query_caps(pad, nullptr));
    if (!caps || gst_caps_get_size(caps.get()) == 0)
        return;
    const gchar* name = gst_structure_get_name(gst_caps_get_structure(caps.get(), 0));
    GstElement* target = nullptr;
    if (g_str_has_prefix(name, "video/"))
        target = media->videoConvert;
    else if (g_str_has_prefix(name, "audio/"))
        target = media->audioConvert;
    if (!target)
        return;
    // The first stream of each kind wins; later ones stay unlinked and are ignored.
    const gstptr::Pad sinkPad(gst_element_get_static_pad(target, "sink"));
    if (sinkPad && !gst_pad_is_linked(sinkPad.get()))
        gst_pad_link(pad, sinkPad.get());
}

void Media::poll()
{
    if (!running)
        return;

    const gstptr::Message message(
        gst_bus_pop_filtered(bus.get(), GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (message) {
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
            ended = true;
            running = false;
            return;
        }
        GError* rawError = nullptr;
        gchar* rawDebug = nullptr;
        gst_message_parse_error(message.get(), &rawError, &rawDebug);
        const gstptr::Error failure(rawError);
        const gstptr::String debug(rawDebug);
        error = "Fuente sin señal: ";
        error += failure && failure->message ? failure->message : "error";
        // An empty debug text counts as none, so no bare " []" reaches the status line.
        if (debug && *debug)
            error += " [" + std::string(debug.get()) + "]";
        running = false;
        return;
    }

    for (int pulls = 0; pulls < 8; ++pulls) {
        const gstptr::Sample sample(gst_app_sink_try_pull_sample(GST_APP_SINK(audioSink), 0));
        if (!sample)
            break;
        const gstptr::BufferMap map(gst_sample_get_buffer(sample.get()));
        // Only whole stereo float pairs are taken; anything else is dropped without a word.
        if (!map.ok() || map.size() % 8 != 0)
            continue;
        std::vector<float> samples(map.size() / sizeof(float));
        if (!samples.empty())
            std::memcpy(samples.data(), map.data(), map.size());
        audioRing.insert(audioRing.end(), samples.begin(), samples.end());
        if (audioRing.size() > audioRingFloats)
            audioRing.erase(audioRing.begin(),
                            audioRing.begin() + std::ptrdiff_t(audioRing.size() - audioRingFloats));
        if (onAudio)
            onAudio(samples);
    }

    // The sink keeps at most two pictures and drops the older, so one pull is enough.
    const gstptr::Sample sample(gst_app_sink_try_pull_sample(GST_APP_SINK(videoSink), 0));
    const std::int64_t nowUs = clock();
    if (!sample) {
        const std::int64_t silentUs = nowUs - lastFrameUs;
        // A camera that goes quiet is reopened soon; files and streams get longer to recover.
        if (isDevice) {
            if (silentUs > deviceSilenceUs) {
                running = false;
                error = "Cámara sin cuadros; se vuelve a abrir";
            }
        } else if (silentUs > sourceSilenceUs) {
            running = false;
            error = "Fuente sin frames durante 10 segundos";
        }
        return;
    }

    lastFrameUs = nowUs;
    GstCaps* caps = gst_sample_get_caps(sample.get());
    if (frameCount == 0) {
        diagnostics += " primer cuadro caps=" + capsText(caps);
        if (const gstptr::Pad sourcePad(gst_element_get_static_pad(source, "src")); sourcePad) {
            const gstptr::Caps sourceCaps(gst_pad_get_current_caps(sourcePad.get()));
            diagnostics += " fuente caps=" + capsText(sourceCaps.get());
        }
    }
    ++frameCount;

    GstVideoInfo info;
    gst_video_info_init(&info);
    // The output filter makes every picture RGBA; anything else would not fit the row copy below.
    if (!caps || !gst_video_info_from_caps(&info, caps) ||
        GST_VIDEO_INFO_FORMAT(&info) != GST_VIDEO_FORMAT_RGBA)
        return;
    const gstptr::VideoFrameMap frame(info, gst_sample_get_buffer(sample.get()));
    if (!frame.ok())
        return;
    // A new picture of the same size goes into the same storage: the compositor tells pictures apart by
    // frameCount, and only this thread reads `latest`. A size the frame refuses throws from here; the
    // map and the sample are released on the way out.
    if (latest.width != GST_VIDEO_INFO_WIDTH(&info) || latest.height != GST_VIDEO_INFO_HEIGHT(&info))
        latest = tavrin::Frame(GST_VIDEO_INFO_WIDTH(&info), GST_VIDEO_INFO_HEIGHT(&info));
    const auto* plane = static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame.get(), 0));
    const std::size_t stride = std::size_t(GST_VIDEO_FRAME_PLANE_STRIDE(&frame.get(), 0));
    const std::size_t rowBytes = std::size_t(latest.width) * 4;
    for (std::int32_t row = 0; row < latest.height; ++row)
        std::memcpy(latest.pixels.data() + std::size_t(row) * rowBytes, plane + std::size_t(row) * stride,
                    rowBytes);
}

namespace tavrin {

CaptureSize chooseCaptureSize(const GstCaps* deviceCaps, int canvasWidth, int canvasHeight)
{
    CaptureSize best;
    if (!deviceCaps || canvasWidth <= 0 || canvasHeight <= 0)
        return best;
    const double canvasArea = double(canvasWidth) * double(canvasHeight);
    const double canvasShape = double(canvasWidth) / double(canvasHeight);
    double bestScore = -1.0;
    for (guint i = 0; i < gst_caps_get_size(deviceCaps); ++i) {
        // Only pictures in plain memory can go through videoconvert without an upload step.
        const GstCapsFeatures* features = gst_caps_get_features(deviceCaps, i);
        if (features && (gst_caps_features_is_any(features) ||
                         !gst_caps_features_contains(features, GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY)))
            continue;
        const GstStructure* entry = gst_caps_get_structure(deviceCaps, i);
        int width = 0;
        int height = 0;
        if (!gst_structure_has_name(entry, "video/x-raw") || !gst_structure_get_int(entry, "width", &width) ||
            !gst_structure_get_int(entry, "height", &height) || width <= 0 || height <= 0)
            continue;
        const double areaTerm =
            1.0 - std::min(std::abs(double(width) * double(height) / canvasArea - 1.0), 1.0);
        const double shapeTerm =
            1.0 - std::min(std::abs(double(width) / double(height) - canvasShape) / canvasShape, 1.0);
        // The shape weighs ten times the area: a camera's wrong shape costs more than its size.
        const double score = areaTerm + 10.0 * shapeTerm;
        if (score > bestScore) {
            bestScore = score;
            best = {width, height};
        }
    }
    return best;
}

} // namespace tavrin
