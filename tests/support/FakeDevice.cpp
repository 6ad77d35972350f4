#include "FakeDevice.h"

#include <utility>

namespace {

using MakeElement = std::function<GstElement*(const gchar* name)>;
constexpr const char* makeElementKey = "velmora-make-element";

} // namespace

struct VelmoraFakeDevice
{
    GstDevice parent;
};
struct VelmoraFakeDeviceClass
{
    GstDeviceClass parentClass;
};
G_DEFINE_TYPE(VelmoraFakeDevice, velmora_fake_device, GST_TYPE_DEVICE)

static void velmora_fake_device_class_init(VelmoraFakeDeviceClass* klass)
{
    GST_DEVICE_CLASS(klass)->create_element = [](GstDevice* device, const gchar* name) -> GstElement* {
        const auto* make = static_cast<const MakeElement*>(g_object_get_data(G_OBJECT(device), makeElementKey));
        return make && *make ? (*make)(name) : nullptr;
    };
}

static void velmora_fake_device_init(VelmoraFakeDevice*) {}

gstptr::Device makeFakeDevice(const char* displayName, const char* deviceClass, const GstCaps* caps,
                              std::function<GstElement*(const gchar* name)> makeElement)
{
    gstptr::Device device(GST_DEVICE(gst_object_ref_sink(g_object_new(velmora_fake_device_get_type(), "display-name",
                                                                      displayName, "device-class", deviceClass,
                                                                      "caps", caps, nullptr))));
    // The function lives as long as the device does, whoever holds the last reference.
    g_object_set_data_full(G_OBJECT(device.get()), makeElementKey, new MakeElement(std::move(makeElement)),
                           [](gpointer data) { delete static_cast<MakeElement*>(data); });
    return device;
}
