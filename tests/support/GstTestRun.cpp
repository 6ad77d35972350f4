#include "GstTestRun.h"

#include "GstPtr.h"

#include <cstring>

namespace {

// Collects the tracer's "object-alive" lines, which it writes as GStreamer shuts down.
void recordAlive(GstDebugCategory* category, GstDebugLevel level, const gchar*, const gchar*, gint, GObject*,
                 GstDebugMessage* message, gpointer alive)
{
    if (level != GST_LEVEL_TRACE || std::strcmp(gst_debug_category_get_name(category), "GST_TRACER") != 0)
        return;
    const char* text = gst_debug_message_get(message);
    if (text && g_str_has_prefix(text, "object-alive"))
        static_cast<QStringList*>(alive)->append(QString::fromUtf8(text).left(160));
}

} // namespace

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
    const gstptr::Message message(gst_bus_timed_pop_filtered(
        bus.get(), 20 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
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
    if (!tracking) {
        gst_deinit();
        return alive;
    }
    // The report goes to our hook alone, so a clean run prints nothing.
    gst_debug_add_log_function(recordAlive, &alive, nullptr);
    gst_debug_remove_log_function(gst_debug_log_default);
    gst_debug_set_threshold_for_name("GST_TRACER", GST_LEVEL_TRACE);
    gst_deinit();
    return alive;
}
