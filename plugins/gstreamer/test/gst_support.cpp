#include "gst_support.h"

#include <gst/app/gstappsink.h>

#include <cstdlib>
#include <mutex>

namespace avpool::test {

void initGst() {
    static std::once_flag once;
    std::call_once(once, [] {
        setenv("GST_PLUGIN_PATH", AVPOOL_GST_PLUGIN_DIR, 1);
        setenv("GST_REGISTRY", AVPOOL_GST_REGISTRY, 1);
        gst_init(nullptr, nullptr);
    });
}

bool haveElements(std::initializer_list<const char*> names, std::string& missing) {
    initGst();
    for (const char* name : names) {
        GstElementFactory* factory = gst_element_factory_find(name);
        if (factory == nullptr) {
            missing = name;
            return false;
        }
        gst_object_unref(factory);
    }
    return true;
}

Harness::Harness(const std::string& description) {
    initGst();
    harness_ = gst_harness_new_parse(description.c_str());
    gst_harness_use_systemclock(harness_);
    bus_ = gst_bus_new();
    gst_element_set_bus(harness_->element, bus_);
}

Harness::~Harness() {
    gst_harness_teardown(harness_);
    gst_object_unref(bus_);
}

GstBuffer* Harness::pull(int timeoutMs) {
    for (gint64 deadline = g_get_monotonic_time() + timeoutMs * 1000LL; g_get_monotonic_time() < deadline;) {
        if (GstBuffer* buffer = gst_harness_try_pull(harness_)) return buffer;
        g_usleep(500);
    }
    return nullptr;
}

std::string Harness::caps() const {
    GstCaps* caps = gst_pad_get_current_caps(harness_->sinkpad);
    if (caps == nullptr) return "(none)";
    gchar* text = gst_caps_to_string(caps);
    std::string result = text;
    g_free(text);
    gst_caps_unref(caps);
    return result;
}

Pipeline::Pipeline(const std::string& description) {
    initGst();
    GError* error = nullptr;
    pipeline_ = gst_parse_launch(description.c_str(), &error);
    if (error != nullptr) {
        ADD_FAILURE() << "cannot make '" << description << "': " << error->message;
        g_error_free(error);
    }
}

Pipeline::~Pipeline() {
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
}

GstStateChangeReturn Pipeline::play() {
    return gst_element_set_state(pipeline_, GST_STATE_PLAYING);
}

GstMessage* Pipeline::pop(GstMessageType types, int timeoutMs) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, timeoutMs * GST_MSECOND, types);
    gst_object_unref(bus);
    return message;
}

GstBuffer* Pipeline::pullFrom(const char* appsink, int timeoutMs) {
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline_), appsink);
    GstSample* sample = gst_app_sink_try_pull_sample(GST_APP_SINK(sink), timeoutMs * GST_MSECOND);
    gst_object_unref(sink);
    if (sample == nullptr) return nullptr;
    GstBuffer* buffer = gst_buffer_ref(gst_sample_get_buffer(sample));
    gst_sample_unref(sample);
    return buffer;
}

std::string errorText(GstMessage* message) {
    if (message == nullptr) return "";
    std::string text;
    if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
        GError* error = nullptr;
        gst_message_parse_error(message, &error, nullptr);
        text = error->message;
        g_error_free(error);
    }
    gst_message_unref(message);
    return text;
}

std::vector<unsigned char> bytesOf(GstBuffer* buffer) {
    std::vector<unsigned char> bytes(gst_buffer_get_size(buffer));
    gst_buffer_extract(buffer, 0, bytes.data(), bytes.size());
    return bytes;
}

std::vector<unsigned char> payload(unsigned long long id, size_t size, const std::vector<unsigned char>& head) {
    std::vector<unsigned char> bytes(head);
    for (size_t i = bytes.size(); i < size; ++i) bytes.push_back(static_cast<unsigned char>((id * 131 + i * 7) % 251));
    return bytes;
}

}  // namespace avpool::test
