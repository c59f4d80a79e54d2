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
    gint64 deadline = g_get_monotonic_time() + static_cast<gint64>(timeoutMs) * 1000;
    for (;;) {
        if (GstBuffer* buffer = gst_harness_try_pull(harness_)) return buffer;
        if (g_get_monotonic_time() >= deadline) return nullptr;
        g_usleep(500);
    }
}

GstCaps* Harness::currentCaps() const {
    return gst_pad_get_current_caps(harness_->sinkpad);
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
    if (pipeline_ == nullptr) return;
    gst_element_set_state(pipeline_, GST_STATE_NULL);
    gst_object_unref(pipeline_);
}

GstElement* Pipeline::byName(const char* name) const {
    GstElement* element = gst_bin_get_by_name(GST_BIN(pipeline_), name);
    if (element != nullptr) gst_object_unref(element);  // the pipeline holds it
    return element;
}

GstStateChangeReturn Pipeline::play() {
    return gst_element_set_state(pipeline_, GST_STATE_PLAYING);
}

GstMessage* Pipeline::pop(GstMessageType types, int timeoutMs) {
    GstBus* bus = gst_element_get_bus(pipeline_);
    GstMessage* message =
        gst_bus_timed_pop_filtered(bus, static_cast<GstClockTime>(timeoutMs) * GST_MSECOND, types);
    gst_object_unref(bus);
    return message;
}

GstBuffer* Pipeline::pullFrom(const char* name, int timeoutMs) {
    GstSample* sample =
        gst_app_sink_try_pull_sample(GST_APP_SINK(byName(name)), static_cast<GstClockTime>(timeoutMs) * GST_MSECOND);
    if (sample == nullptr) return nullptr;
    GstBuffer* buffer = gst_buffer_ref(gst_sample_get_buffer(sample));
    gst_sample_unref(sample);
    return buffer;
}

std::string errorText(GstMessage* message) {
    if (message == nullptr || GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) return "";
    GError* error = nullptr;
    gst_message_parse_error(message, &error, nullptr);
    std::string text = error->message;
    g_error_free(error);
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

timeval nowTv() {
    timeval now;
    gettimeofday(&now, nullptr);
    return now;
}

long long usOf(const timeval& tv) {
    return static_cast<long long>(tv.tv_sec) * 1000000 + tv.tv_usec;
}

}  // namespace avpool::test
