// What the plugin's tests share: GStreamer set up once with the plugin just
// built, pipelines and harnesses that are torn down whatever happens, pulls
// and bus reads with deadlines, and the recognisable element payloads the
// forked writers put into pools.
#pragma once

#include <gst/gst.h>
#include <gst/check/gstharness.h>

#include <gtest/gtest.h>

#include <string>
#include <sys/time.h>
#include <vector>

namespace avpool::test {

// Initialises GStreamer once, with the plugin built beside this program on
// its plugin path and a registry of the program's own.
void initGst();

// Whether these element factories exist; the test is skipped when not.
bool haveElements(std::initializer_list<const char*> names, std::string& missing);
#define REQUIRE_ELEMENTS(...)                                                      \
    do {                                                                           \
        std::string missing_;                                                      \
        if (!::avpool::test::haveElements({__VA_ARGS__}, missing_))                \
            GTEST_SKIP() << "GStreamer element " << missing_ << " is not installed"; \
    } while (0)

// A harness on one element of this program's plugins, stopped and freed at
// the end of the scope. Its own bus collects what the element posts.
class Harness {
public:
    explicit Harness(const std::string& description);
    ~Harness();
    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;

    GstHarness* get() const { return harness_; }
    GstElement* element() const { return harness_->element; }
    // The next buffer the element pushed, or null after timeoutMs.
    GstBuffer* pull(int timeoutMs = 5000);
    // The caps the element last set on its source pad (a new reference or null).
    GstCaps* currentCaps() const;
    GstBus* bus() const { return bus_; }

private:
    GstHarness* harness_;
    GstBus* bus_;
};

// A pipeline from a gst-launch description, set to NULL and freed at the end
// of the scope.
class Pipeline {
public:
    explicit Pipeline(const std::string& description);
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    GstElement* get() const { return pipeline_; }
    GstElement* byName(const char* name) const;  // borrowed
    GstStateChangeReturn play();
    // The next message of one of these types, or null after timeoutMs (the
    // caller unrefs it).
    GstMessage* pop(GstMessageType types, int timeoutMs);
    // The next buffer of the appsink called name, or null after timeoutMs
    // (the caller unrefs it).
    GstBuffer* pullFrom(const char* name, int timeoutMs = 5000);

private:
    GstElement* pipeline_;
};

// The message's error text ("" when it is not an error).
std::string errorText(GstMessage* message);

// A buffer's bytes.
std::vector<unsigned char> bytesOf(GstBuffer* buffer);

// The payload a forked writer puts as element number id: `size` bytes behind
// an optional head, every byte derived from id and its position.
std::vector<unsigned char> payload(unsigned long long id, size_t size, const std::vector<unsigned char>& head = {});

timeval nowTv();
long long usOf(const timeval& tv);

}  // namespace avpool::test
