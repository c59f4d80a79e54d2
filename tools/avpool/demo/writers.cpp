#include "demo/writers.h"

#include "cli/cli.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <string>
#include <type_traits>

namespace avpool::demo {

namespace {

class JpgWriter : public PoolWriter {
public:
    explicit JpgWriter(const PoolPlan& plan) {
        putter_.init(plan.channel, plan.slots, plan.maxFrame, dataSize(plan));
        putter_.reset(plan.width, plan.height, plan.fps, plan.quality);
    }
    bool put(unsigned char* data, int length, unsigned long long, bool, const timeval& captured) override {
        return putter_.putFrame(data, length, captured) == 1;
    }
    void release() override { putter_.release(); }

private:
    JPGPutter putter_;
};

class Mp4Writer : public PoolWriter {
public:
    explicit Mp4Writer(const PoolPlan& plan) {
        putter_.init(plan.channel, plan.slots, plan.framesPerGop, maxFrameSize(plan), dataSize(plan));
        putter_.reset(plan.width, plan.height, plan.fps);
    }
    bool put(unsigned char* data, int length, unsigned long long, bool key, const timeval& captured) override {
        if (key) return putter_.putIFrame(data, length, captured) != 1;
        putter_.putPFrame(data, length, captured);
        return true;
    }
    void release() override { putter_.release(); }

private:
    MP4Putter putter_;
};

// The producer paces fragments by the plan's fragment time and its consumers
// expect the plan's samples: both must be what the pool makes of the format.
template <class Putter>
void checkFragments(Putter& putter, const PoolPlan& plan) {
    if (putter.calFragmentTime() == plan.fragmentMs && putter.calSampleNumber() == plan.samples) return;
    throw avpool::cli::CliError(std::string("demo: the ") + plan.kind->name + " pool makes fragments of " +
                                std::to_string(putter.calFragmentTime()) + " ms and " +
                                std::to_string(putter.calSampleNumber()) + " samples, the plan says " +
                                std::to_string(plan.fragmentMs) + " ms and " + std::to_string(plan.samples));
}

// PCM and Opus have one pool each under a fixed key and no stream parameter;
// AAC and AMR a pool per channel and one. AMR also takes a parameter per
// fragment: its mode. Opus copies OPUS_FRAGMENT_SIZE bytes whatever the
// length, which the plan's buffer of maxFrame bytes holds.
template <class Putter>
class AudioWriter : public PoolWriter {
public:
    explicit AudioWriter(const PoolPlan& plan) {
        if constexpr (oneOnMachine<Putter>) {
            putter_.init();
            putter_.reset(plan.format, plan.audioChannels, plan.rate);
        } else {
            putter_.init(plan.channel);
            putter_.reset(plan.format, plan.audioChannels, plan.rate, plan.streamParam);
        }
        checkFragments(putter_, plan);
    }
    bool put(unsigned char* data, int length, unsigned long long number, bool, const timeval& captured) override {
        if constexpr (std::is_same_v<Putter, AMRPutter>)
            putter_.putFragment(data, length, captured, amrMode(number));
        else
            putter_.putFragment(data, length, captured);
        return true;
    }
    void release() override { putter_.release(); }

private:
    Putter putter_;
};

// A luminance record is one array of two bytes a sample; a motion record two
// arrays of four bytes an element, one after the other in data.
void putRecord(LUMPutter& putter, unsigned char* data, int length, const timeval& captured) {
    putter.putFrame(data, length / 2, captured);
}

void putRecord(MDPutter& putter, unsigned char* data, int length, const timeval& captured) {
    putter.putFrame(data, data + length, length / 4, captured);
}

template <class Putter>
class AnalysisWriter : public PoolWriter {
public:
    explicit AnalysisWriter(const PoolPlan& plan) {
        putter_.init(plan.channel);
        putter_.reset(plan.width, plan.height, plan.fps);
        if constexpr (std::is_same_v<Putter, MDPutter>) putter_.putVibration(0, plan.vibration);
    }
    bool put(unsigned char* data, int length, unsigned long long, bool, const timeval& captured) override {
        putRecord(putter_, data, length, captured);
        return true;
    }
    void release() override { putter_.release(); }

private:
    Putter putter_;
};

}  // namespace

std::unique_ptr<PoolWriter> writeJpg(const PoolPlan& plan) {
    return std::make_unique<JpgWriter>(plan);
}

std::unique_ptr<PoolWriter> writeMp4(const PoolPlan& plan) {
    return std::make_unique<Mp4Writer>(plan);
}

std::unique_ptr<PoolWriter> writePcm(const PoolPlan& plan) {
    return std::make_unique<AudioWriter<PCMPutter>>(plan);
}

std::unique_ptr<PoolWriter> writeAac(const PoolPlan& plan) {
    return std::make_unique<AudioWriter<AACPutter>>(plan);
}

std::unique_ptr<PoolWriter> writeAmr(const PoolPlan& plan) {
    return std::make_unique<AudioWriter<AMRPutter>>(plan);
}

std::unique_ptr<PoolWriter> writeOpus(const PoolPlan& plan) {
    return std::make_unique<AudioWriter<OPUSPutter>>(plan);
}

std::unique_ptr<PoolWriter> writeLum(const PoolPlan& plan) {
    return std::make_unique<AnalysisWriter<LUMPutter>>(plan);
}

std::unique_ptr<PoolWriter> writeMd(const PoolPlan& plan) {
    return std::make_unique<AnalysisWriter<MDPutter>>(plan);
}

}  // namespace avpool::demo
