// What the plugin's tests share: GStreamer set up once with the plugin just
// built, harnesses and pipelines torn down whatever happens, pulls and bus
// reads with deadlines, and the recognisable payloads writers put into pools.
#pragma once

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace avpool::test {

// Initialises GStreamer once, with the plugin built beside this program on
// its plugin path and a registry of the program's own.
void initGst();

// The test is skipped where one of these elements is not installed.
bool haveElements(std::initializer_list<const char*> names, std::string& missing);
#define REQUIRE_ELEMENTS(...)                                                                       \
    do {                                                                                            \
        std::string missing_;                                                                       \
        if (!::avpool::test::haveElements({__VA_ARGS__}, missing_)) GTEST_SKIP() << missing_ << " missing"; \
    } while (0)

// A harness on one element, with a bus of its own for what the element posts.
class Harness {
public:
    explicit Harness(const std::string& description);
    ~Harness();
    Harness(const Harness&) = delete;
    Harness& operator=(const Harness&) = delete;
    GstHarness* get() const { return harness_; }
    GstElement* element() const { return harness_->element; }
    GstBus* bus() const { return bus_; }
    GstBuffer* pull(int timeoutMs = 5000);  // null after the deadline
    std::string caps() const;               // of the element's source pad

private:
    GstHarness* harness_;
    GstBus* bus_;
};

// A pipeline from a gst-launch description.
class Pipeline {
public:
    explicit Pipeline(const std::string& description);
    ~Pipeline();
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;
    GstStateChangeReturn play();
    GstMessage* pop(GstMessageType types, int timeoutMs);       // the caller unrefs it
    GstBuffer* pullFrom(const char* appsink, int timeoutMs = 5000);  // the caller unrefs it

private:
    GstElement* pipeline_;
};

std::string errorText(GstMessage* message);  // "" when not an error; takes the message
std::vector<unsigned char> bytesOf(GstBuffer* buffer);

// Element number id as writers put it: `size` bytes behind an optional head,
// every byte derived from id and its position (never two zeros in a row).
std::vector<unsigned char> payload(unsigned long long id, size_t size, const std::vector<unsigned char>& head = {});

}  // namespace avpool::test
