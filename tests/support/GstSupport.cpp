#include "GstSupport.h"
#include "GstPtr.h"

bool runToEnd(const QByteArray& description)
{
    GError* rawError = nullptr;
    GstElement* raw = gst_parse_launch(description.constData(), &rawError);
    const gstptr::Error failure(rawError);
    const gstptr::Element pipeline(raw ? GST_ELEMENT(gst_object_ref_sink(raw)) : nullptr);
    if (!pipeline || failure)
        return false;
    const gstptr::Bus bus(gst_element_get_bus(pipeline.get()));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const gstptr::Message message(
        gst_bus_timed_pop_filtered(bus.get(), 20 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return message && GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS;
}

bool startLeakTracking()
{
    if (!qEnvironmentVariableIsSet("GST_TRACERS"))
        qputenv("GST_TRACERS", "leaks");
    return qgetenv("GST_TRACERS").contains("leaks");
}

QStringList deinitAndListAlive(bool tracking)
{
    QStringList alive;
    if (tracking) {
        // The tracer's "object-alive" lines, written as GStreamer shuts down, go to this hook alone.
        gst_debug_add_log_function(
            +[](GstDebugCategory* category, GstDebugLevel level, const gchar*, const gchar*, gint, GObject*,
               GstDebugMessage* message, gpointer alive) {
                const char* text = gst_debug_message_get(message);
                if (level == GST_LEVEL_TRACE && g_str_equal(gst_debug_category_get_name(category), "GST_TRACER") &&
                    text && g_str_has_prefix(text, "object-alive"))
                    static_cast<QStringList*>(alive)->append(QString::fromUtf8(text).left(160));
            },
            &alive, nullptr);
        gst_debug_remove_log_function(gst_debug_log_default);
        gst_debug_set_threshold_for_name("GST_TRACER", GST_LEVEL_TRACE);
    }
    gst_deinit();
    return alive;
}

using MakeElement = std::function<GstElement*(const gchar* name)>;

struct VelmoraFakeDevice { GstDevice parent; };
struct VelmoraFakeDeviceClass { GstDeviceClass parentClass; };
G_DEFINE_TYPE(VelmoraFakeDevice, velmora_fake_device, GST_TYPE_DEVICE)

static void velmora_fake_device_class_init(VelmoraFakeDeviceClass* klass)
{
    GST_DEVICE_CLASS(klass)->create_element = [](GstDevice* device, const gchar* name) -> GstElement* {
        const auto* make = static_cast<const MakeElement*>(g_object_get_data(G_OBJECT(device), "make-element"));
        return make && *make ? (*make)(name) : nullptr;
    };
}

static void velmora_fake_device_init(VelmoraFakeDevice*) {}

gstptr::Device makeFakeDevice(const char* displayName, const char* deviceClass, const GstCaps* caps,
                              MakeElement makeElement)
{
    gstptr::Device device(GST_DEVICE(gst_object_ref_sink(g_object_new(velmora_fake_device_get_type(), "display-name",
                                                                      displayName, "device-class", deviceClass,
                                                                      "caps", caps, nullptr))));
    // The function lives as long as the device does, whoever holds the last reference.
    g_object_set_data_full(G_OBJECT(device.get()), "make-element", new MakeElement(std::move(makeElement)),
                           [](gpointer data) { delete static_cast<MakeElement*>(data); });
    return device;
}
