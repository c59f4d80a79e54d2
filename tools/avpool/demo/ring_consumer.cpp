// A demo consumer of a pool of fixed slots, audio (PCM, AAC, Opus, AMR) or
// analysis (luminance, motion): it follows the ring slot by slot, waiting on
// each slot's lock, and checks every fragment or record it reads against its
// stamp and against the parameters the producer published. A gap in the IDs is
// the writer going past it.

#include "cli/clock.h"
#include "demo/consumer.h"
#include "demo/frame_stamp.h"
#include "kinds/pool_kinds.h"
#include "kinds/shm_view.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/lum.h>
#include <avpool/md.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cstdio>
#include <memory>
#include <string>
#include <type_traits>

namespace avpool::demo {

namespace {

// The AMR pool has no getter in the library: this one reads the segment by
// its layout in amr.h, with the getters' cursor moves and wait. The slot's lock
// is polled: a value that can no longer be read means the producer removed
// the pool.
struct AmrFragment {
    int format;
    int channels;
    int rate;
    int sampleNumber;
    int streamParam;
    int fragmentParam;
    timeval timestamp;
    const unsigned char* data;
    int length;
};

class AmrReader {
public:
    void init(int channel) {
        const avpool::cli::PoolKind& kind = avpool::cli::kinds::amr;
        segment_.reset(new avpool::cli::SegmentView(avpool::cli::segmentKey(kind, channel), AUDIO_HEADER_SIZE,
                                                    avpool::cli::poolName("amr", channel)));
        if (segment_->size() < static_cast<size_t>(AMR_SEGMENT_SIZE))
            throw avpool::PoolError("amr pool of " + std::to_string(segment_->size()) + " bytes");
        locks_.reset(new avpool::cli::GroupedLockView(avpool::cli::firstLockKey(kind, channel), AUDIO_SLOT_COUNT));
    }
    int getWorkingFormat() const { return header().workingFormat; }
    int getWorkingChannels() const { return header().workingChannels; }
    int getWorkingRate() const { return header().workingRate; }

    unsigned long long toWorking(int& safeTime) { return moveTo(header().current, safeTime); }
    unsigned long long toNext(int& safeTime) {
        return moveTo(cursor_ + 1 < AUDIO_SLOT_COUNT ? cursor_ + 1 : 0, safeTime);
    }
    unsigned long long getFragmentID() const { return slot().head.fragmentID.get(); }

    void waitReady() const {
        for (;;) {
            int value = locks_->value(slot().head.lockIndex);
            if (value == 0) return;
            if (value < 0)
                throw avpool::PoolError("amr pool: the lock of slot " + std::to_string(cursor_) + " is gone");
            avpool::cli::sleepMs(1);
        }
    }

    void getFragment() {
        const AMRFragmentInfo& info = slot();
        fragment = AmrFragment{info.head.format,
                               info.head.channels,
                               info.head.rate,
                               info.head.sampleNumber,
                               info.streamParam,
                               info.fragmentParam,
                               timeval{info.head.tv_sec, info.head.tv_usec},
                               info.data,
                               info.head.length};
    }

    AmrFragment fragment{};

private:
    const AMRPoolHeader& header() const { return *reinterpret_cast<const AMRPoolHeader*>(segment_->base()); }
    const AMRFragmentInfo& slot() const {
        return reinterpret_cast<const AMRFragmentInfo*>(segment_->base() + AUDIO_HEADER_SIZE)[cursor_];
    }
    // A slot number from the segment is used only when it lies in the ring.
    unsigned long long moveTo(int index, int& safeTime) {
        if (index < 0 || index >= AUDIO_SLOT_COUNT)
            throw avpool::PoolError("amr pool: slot " + std::to_string(index) + " outside the ring");
        cursor_ = index;
        safeTime = header().safeTime[cursor_];
        return getFragmentID();
    }

    std::unique_ptr<avpool::cli::SegmentView> segment_;
    std::unique_ptr<avpool::cli::GroupedLockView> locks_;
    int cursor_ = 0;
};

int streamParamOf(const AACFragment& fragment) {
    return fragment.streamParam;
}

int streamParamOf(const AmrFragment& fragment) {
    return fragment.streamParam;
}

int streamParamOf(const avpool::AudioFragment&) {
    return 0;  // PCM and Opus carry none
}

// AMR fragments carry their mode; the other kinds nothing per fragment.
bool fragmentParamAsSent(const AmrFragment& fragment, unsigned long long id, char* why, size_t whySize) {
    if (fragment.fragmentParam == amrMode(id)) return true;
    snprintf(why, whySize, "fragment %llu: fragmentParam %d, sent %d", id, fragment.fragmentParam, amrMode(id));
    return false;
}

template <class Fragment>
bool fragmentParamAsSent(const Fragment&, unsigned long long, char*, size_t) {
    return true;
}

// The cursor moves every getter of a ring has.
template <class Getter>
class RingCursor {
public:
    unsigned long long toWorking(int& safeTime) { return getter_.toWorking(safeTime); }
    unsigned long long toNext(int& safeTime) { return getter_.toNext(safeTime); }
    void waitReady() { getter_.waitReady(); }

protected:
    Getter getter_;
};

// PCMGetter, AACGetter, OPUSGetter or the AMR reader: PCM and Opus have one
// pool each and no channel.
template <class Getter>
class AudioRing : public RingCursor<Getter> {
    using RingCursor<Getter>::getter_;

public:
    void init(const PoolPlan& plan) {
        if constexpr (oneOnMachine<Getter>)
            getter_.init();
        else
            getter_.init(plan.channel);
    }
    unsigned long long id() { return getter_.getFragmentID(); }

    bool describedAs(const PoolPlan& plan, char* why, size_t whySize) {
        if (getter_.getWorkingFormat() == plan.format && getter_.getWorkingChannels() == plan.audioChannels &&
            getter_.getWorkingRate() == plan.rate)
            return true;
        snprintf(why, whySize, "pool describes format %d, %d channels, %d Hz", getter_.getWorkingFormat(),
                 getter_.getWorkingChannels(), getter_.getWorkingRate());
        return false;
    }

    bool read(const PoolPlan& plan, unsigned long long id, long long& captureUs, char* why, size_t whySize) {
        getter_.getFragment();
        const auto& fragment = getter_.fragment;
        captureUs = avpool::cli::microseconds(fragment.timestamp.tv_sec, fragment.timestamp.tv_usec);
        // The length recorded: Opus keeps the caller's, the others what they
        // stored. Checked first, as the stamp is read over that many bytes.
        if (fragment.length < plan.minFrame || fragment.length > plan.maxFrame) {
            snprintf(why, whySize, "fragment %llu: length %d, not %d..%d", id, fragment.length, plan.minFrame,
                     plan.maxFrame);
            return false;
        }
        if (!checkStamp(fragment.data, fragment.length, id, why, whySize)) return false;
        if (!fragmentParamAsSent(fragment, id, why, whySize)) return false;
        if (fragment.format == plan.format && fragment.channels == plan.audioChannels && fragment.rate == plan.rate &&
            fragment.sampleNumber == plan.samples && streamParamOf(fragment) == plan.streamParam)
            return true;
        snprintf(why, whySize, "fragment %llu: format %d, %d channels, %d Hz, %d samples, streamParam 0x%x", id,
                 fragment.format, fragment.channels, fragment.rate, fragment.sampleNumber, streamParamOf(fragment));
        return false;
    }
};

// What a record's arrays must hold: two bytes a luminance sample, two arrays
// of four bytes an element in a motion map, each stamped.
bool payloadWhole(LUMGetter& getter, unsigned long long id, char* why, size_t whySize) {
    return checkStamp(reinterpret_cast<const unsigned char*>(getter.samples), 2 * getter.frameLength, id, why,
                      whySize);
}

bool payloadWhole(MDGetter& getter, unsigned long long id, char* why, size_t whySize) {
    int bytes = 4 * getter.frameLength;
    return checkStamp(reinterpret_cast<const unsigned char*>(getter.firstArray), bytes, id, why, whySize) &&
           checkStamp(reinterpret_cast<const unsigned char*>(getter.secondArray), bytes, id, why, whySize);
}

// The vibration level the header holds; the luminance pool has none.
int vibrationOf(LUMGetter&) {
    return 0;
}

int vibrationOf(MDGetter& getter) {
    return getter.getVibration(0);
}

// LUMGetter or MDGetter.
template <class Getter>
class AnalysisRing : public RingCursor<Getter> {
    using RingCursor<Getter>::getter_;

public:
    void init(const PoolPlan& plan) { getter_.init(plan.channel); }
    unsigned long long id() { return getter_.getFrameID(); }

    bool describedAs(const PoolPlan& plan, char* why, size_t whySize) {
        if (getter_.getWorkingWidth() == plan.width && getter_.getWorkingHeight() == plan.height &&
            getter_.getWorkingFPS() == plan.fps && vibrationOf(getter_) == plan.vibration)
            return true;
        snprintf(why, whySize, "pool describes %dx%d %d fps, vibration %d", getter_.getWorkingWidth(),
                 getter_.getWorkingHeight(), getter_.getWorkingFPS(), vibrationOf(getter_));
        return false;
    }

    bool read(const PoolPlan& plan, unsigned long long id, long long& captureUs, char* why, size_t whySize) {
        getter_.getFrame();
        captureUs = avpool::cli::microseconds(getter_.tv_sec, getter_.tv_usec);
        if (getter_.frameLength != plan.width * plan.height) {
            snprintf(why, whySize, "record %llu: %d elements, not %d x %d", id, getter_.frameLength, plan.width,
                     plan.height);
            return false;
        }
        return payloadWhole(getter_, id, why, whySize);
    }
};

template <class Ring>
class RingConsumer {
public:
    explicit RingConsumer(const ConsumerJob& job) : core_(job), pool_(*job.pool) {}

    int run() {
        if (!core_.waitForPools()) return 0;
        ring_.init(pool_);
        avpool::cli::GroupedLockView locks(lockKey(pool_), pool_.slots);
        if (!ring_.describedAs(pool_, core_.why(), core_.whySize())) core_.damaged();

        // The first element goes to slot 1; the newest slot of a fresh pool is
        // slot 0, never written until the ring wraps.
        int safeTime = 0;
        if (!core_.waitUntil([&] { return ring_.toWorking(safeTime) != 0; })) return 0;
        while (!core_.stopping()) {
            ring_.waitReady();
            unsigned long long id = ring_.id();
            int slot = static_cast<int>(id % static_cast<unsigned long long>(pool_.slots));
            long long captureUs = 0;
            // The writer closes a slot one element before it overwrites it: a
            // closed lock after the wait means it has come round to this one.
            Outcome outcome = Outcome::Overwritten;
            if (locks.value(slot) == 0) {
                bool whole = ring_.read(pool_, id, captureUs, core_.why(), core_.whySize());
                outcome = core_.settle(whole, [&] { return ring_.id() == id && locks.value(slot) == 0; });
            }
            core_.account(outcome, id, captureUs);
            core_.pause();
            ring_.toNext(safeTime);
        }
        return 0;
    }

private:
    ConsumerCore core_;
    const PoolPlan& pool_;
    Ring ring_;
};

template <class Ring>
int follow(const ConsumerJob& job) {
    RingConsumer<Ring> consumer(job);
    return consumer.run();
}

}  // namespace

int consumePcm(const ConsumerJob& job) {
    return follow<AudioRing<PCMGetter>>(job);
}

int consumeAac(const ConsumerJob& job) {
    return follow<AudioRing<AACGetter>>(job);
}

int consumeAmr(const ConsumerJob& job) {
    return follow<AudioRing<AmrReader>>(job);
}

int consumeOpus(const ConsumerJob& job) {
    return follow<AudioRing<OPUSGetter>>(job);
}

int consumeLum(const ConsumerJob& job) {
    return follow<AnalysisRing<LUMGetter>>(job);
}

int consumeMd(const ConsumerJob& job) {
    return follow<AnalysisRing<MDGetter>>(job);
}

}  // namespace avpool::demo
