#include "AudioCapture.h"

#include "AudioProcessing.h"

#include <gst/app/gstappsink.h>
#include <gst/audio/audio.h>

#include <cstring>
#include <stdexcept>
#include <utility>
#include <vector>

namespace {

// The meters fall first; the capture gives up only when the input has clearly gone.
constexpr std::int64_t meterSilenceUs = 2000000;
constexpr std::int64_t stopSilenceUs = 5000000;
// The sink keeps this many blocks and drops the oldest, so a late tick loses sound, never adds delay.
constexpr int maxBlocksPerPoll = 8;

gstptr::Element makeSource(GstDevice* device)
{
    if (device) {
        GstElement* element = gst_device_create_element(device, "audio-input");
        return gstptr::Element(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
    }
    auto tone = gstptr::makeElement("audiotestsrc", "audio-input");
    // Quiet enough not to startle the room when it reaches the outputs.
    if (tone)
        g_object_set(tone.get(), "is-live", TRUE, "volume", 0.25, "samplesperbuffer", 1024, nullptr);
    return tone;
}

void build(AudioCapture& capture, GstDevice* device)
{
    capture.pipeline.reset(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new("tavrin-audio"))));

    auto source = makeSource(device);
    auto convert = gstptr::makeElement("audioconvert");
    auto resample = gstptr::makeElement("audioresample");
    auto filter = gstptr::makeElement("capsfilter");
    auto sink = gstptr::makeElement("appsink", "audio-blocks");
    if (!source || !convert || !resample || !filter || !sink)
        throw std::runtime_error("Faltan componentes de captura de audio");

    // The bin takes its own references; ours go at the end of this scope.
    gst_bin_add_many(GST_BIN(capture.pipeline.get()), source.get(), convert.get(), resample.get(),
                     filter.get(), sink.get(), nullptr);
    capture.sink = sink.get();

    const gstptr::Caps caps(gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "F32LE", "layout",
                                                G_TYPE_STRING, "interleaved", "rate", G_TYPE_INT, 48000,
                                                "channels", G_TYPE_INT, 2, nullptr));
    g_object_set(filter.get(), "caps", caps.get(), nullptr);
    // Pulled by the tick, not paced by the clock: the device already runs in real time.
    g_object_set(sink.get(), "max-buffers", guint(maxBlocksPerPoll), "drop", TRUE, "sync", FALSE, nullptr);

    if (!gst_element_link_many(source.get(), convert.get(), resample.get(), filter.get(), sink.get(),
                               nullptr))
        throw std::runtime_error("No se pudo enlazar el dispositivo de audio");

    capture.bus.reset(gst_element_get_bus(capture.pipeline.get()));
    if (gst_element_set_state(capture.pipeline.get(), GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE)
        throw std::runtime_error("No se pudo iniciar audio");
    capture.running = true;
    capture.lastBufferUs = capture.clock();
}

bool isContractFormat(GstCaps* caps)
{
    GstAudioInfo info;
    gst_audio_info_init(&info);
    return caps && gst_audio_info_from_caps(&info, caps) &&
           GST_AUDIO_INFO_FORMAT(&info) == GST_AUDIO_FORMAT_F32LE && GST_AUDIO_INFO_CHANNELS(&info) == 2 &&
           GST_AUDIO_INFO_RATE(&info) == 48000 &&
           GST_AUDIO_INFO_LAYOUT(&info) == GST_AUDIO_LAYOUT_INTERLEAVED;
}

} // namespace

AudioCapture::AudioCapture(GstDevice* device)
{
    try {
        build(*this, device);
    } catch (...) {
        // The destructor does not run for a half-built object: stop and release here.
        if (pipeline)
            gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        pipeline.reset();
        sink = nullptr;
        bus.reset();
        throw;
    }
}

AudioCapture::~AudioCapture()
{
    if (pipeline)
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    sink = nullptr;
    pipeline.reset();
    bus.reset();
}

void AudioCapture::stop(const std::string& reason)
{
    error = reason;
    running = false;
    input = {};
    output = {};
    // Letting go of the device here means the owner only has to notice `running`.
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    pipeline.reset();
    sink = nullptr;
    bus.reset();
}

void AudioCapture::poll(const tavrin::AudioState& state)
{
    if (!running)
        return;

    const gstptr::Message message(
        gst_bus_pop_filtered(bus.get(), GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    if (message) {
        std::string reason = "La entrada de audio termino";
        if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_ERROR) {
            GError* rawError = nullptr;
            gst_message_parse_error(message.get(), &rawError, nullptr);
            const gstptr::Error failure(rawError);
            // An error without words keeps the plain reason rather than an empty status line.
            if (failure && failure->message && *failure->message)
                reason = failure->message;
        }
        stop(reason);
        return;
    }

    for (int pulls = 0; pulls < maxBlocksPerPoll; ++pulls) {
        const gstptr::Sample sample(gst_app_sink_try_pull_sample(GST_APP_SINK(sink), 0));
        if (!sample)
            break;
        if (!isContractFormat(gst_sample_get_caps(sample.get()))) {
            stop("Formato de audio inesperado");
            return;
        }
        GstBuffer* buffer = gst_sample_get_buffer(sample.get());
        std::vector<float> samples;
        std::int64_t pts = 0;
        {
            const gstptr::BufferMap map(buffer);
            if (!map.ok()) {
                stop("No se pudo leer audio");
                return;
            }
            if (map.size() == 0 || map.size() % (2 * sizeof(float)) != 0) {
                stop("Bloque de audio invalido");
                return;
            }
            samples.resize(map.size() / sizeof(float));
            std::memcpy(samples.data(), map.data(), map.size());
            if (GST_BUFFER_PTS_IS_VALID(buffer))
                pts = std::int64_t(GST_BUFFER_PTS(buffer));
        }

        // A throw from here leaves poll with the sample released by its owner.
        tavrin::AudioBlock block = tavrin::processBlock(std::move(samples), state);
        block.pts = pts;
        input = block.input;
        output = block.output;
        if (onBlock)
            onBlock(block);
        ++blockCount;
        lastBufferUs = clock();
    }

    const std::int64_t silentUs = clock() - lastBufferUs;
    if (silentUs > meterSilenceUs) {
        // The meters fall to zero while the pipeline stays, ready for the next buffer.
        input = {};
        output = {};
    }
    if (silentUs > stopSilenceUs)
        stop("Sin buffers de audio durante 5 segundos");
}
