#include "pool_reader.h"

#include "slot_wait.h"

#include <avpool/aac.h>
#include <avpool/jpg.h>
#include <avpool/lum.h>
#include <avpool/mp4.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cstring>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <type_traits>

namespace avpool::gst {

bool StreamFormat::operator==(const StreamFormat& other) const {
    return kind == other.kind && width == other.width && height == other.height && fps == other.fps &&
           codec == other.codec && config == other.config && bits == other.bits && channels == other.channels &&
           rate == other.rate && adts == other.adts;
}

namespace {

constexpr int FIRST_ELEMENT_POLL_MS = 10;  // while a new pool has nothing written yet
constexpr int JUMP_PAUSE_MS = 5;  // before reading again from the newest after being overtaken
constexpr long long NS_PER_S = 1000000000LL;
constexpr long long AAC_FRAME_SAMPLES = 1024;
constexpr const char* AGE_TOO_OLD = "age too old";

long long captureUs(long long sec, long long usec) {
    return sec * 1000000 + usec;
}

// Copies the header at the start of the segment under key, attached
// read-only for the moment; false when there is no such segment.
template <class Header>
bool readHeader(int key, Header& header) {
    int id = shmget(key, 0, 0);
    if (id == -1) return false;
    void* address = shmat(id, nullptr, SHM_RDONLY);
    if (address == reinterpret_cast<void*>(-1)) return false;
    memcpy(&header, address, sizeof header);
    shmdt(address);
    return true;
}

// Whether the 8-byte frame-ID prefix in front of a frame's bytes still holds
// the frame's number. The writer overwrites a frame's bytes in the data ring
// only after it has written over the prefix in front of them, so bytes read
// before this check passes are the frame's own. The fence keeps those reads
// ahead of the prefix's.
bool prefixHolds(const unsigned char* data, unsigned long long id) {
    std::atomic_thread_fence(std::memory_order_acquire);
    avpool::Word64 prefix;
    memcpy(&prefix, data - JPG_FRAME_PREFIX_SIZE, sizeof prefix);
    return prefix.get() == id;
}

// Waits until first() gives a running number other than 0, polling.
template <class First>
Next awaitFirst(First first, const std::atomic<bool>& stop, pid_t creator) {
    while (first() == 0) {
        if (!pause(FIRST_ELEMENT_POLL_MS, stop)) return Next::Stopped;
        if (!processAlive(creator)) return Next::Gone;
    }
    return Next::Element;
}

Next outcome(Wait wait) {
    return wait == Wait::Stopped ? Next::Stopped : Next::Gone;
}

// The gap in front of an element numbered id when expected was due next.
void markGap(Element& element, unsigned long long expected, unsigned long long id, const char*& pending) {
    if (expected != 0 && id != expected) {
        element.gapFrom = expected;
        element.gapReason = pending != nullptr ? pending : "missed";
    }
    pending = nullptr;
}

// What every reader holds: the pool's locks, its creator and the age limit.
class AttachedReader : public PoolReader {
protected:
    AttachedReader(Kind kind, int channel, int maxAge, pid_t creator)
        : kind_(kind), channel_(channel), maxAge_(maxAge), creator_(creator) {}

    // Runs the getter's age probe on the element under the reader; false
    // when it is too old, and the reader should go to the newest. The newest
    // element itself is taken whatever its age: when even that one is too
    // old, the writer's clock is off and the probe tells nothing.
    template <class Probe>
    bool probeAge(Probe probe) {
        if (pending_ == AGE_TOO_OLD) return true;
        try {
            probe();
        } catch (const avpool::PoolError&) {
            pending_ = AGE_TOO_OLD;
            return false;
        }
        return true;
    }

    // Attaches the getter, then opens the locks of as many slots as the
    // segment's header gives: slots(header), 0 while it is not set up.
    template <class Header, class Getter, class Slots>
    bool attachGetter(Getter& getter, Slots slots, std::string& why) {
        getter.init(channel_);
        Header header;
        if (!readHeader(keysOf(kind_, channel_).segment, header)) return false;
        int count = slots(header);
        if (count < 1) {
            why = "the " + poolName(kind_, channel_) + " is not set up yet";
            return false;
        }
        return openLocks(count, why);
    }

    bool openLocks(int slots, std::string& why) {
        if (locks_.open(keysOf(kind_, channel_), slots)) return true;
        why = "the " + poolName(kind_, channel_) + " has no locks yet";
        return false;
    }

    Kind kind_;
    int channel_;
    int maxAge_;
    pid_t creator_;
    SlotLocks locks_;
    bool started_ = false;
    unsigned long long expected_ = 0;
    const char* pending_ = nullptr;  // why the reader last jumped to the newest element
};

// The readers of rings in which element k lies in slot k % slots (jpg frames,
// audio fragments, luminance pictures): from the newest element on, slot
// after slot, through the kind's getter. The kind gives the getter's fetch,
// its age probe and the element's view.
template <class Getter>
class RingReader : public AttachedReader {
public:
    // A copy is whole when the slot still holds its element afterwards: the
    // writer numbers a slot anew before it writes the slot's bytes.
    bool intact(const Element& element) override {
        std::atomic_thread_fence(std::memory_order_acquire);
        return currentId() == element.id;
    }

    Next next(const std::atomic<bool>& stop, Element& element) override {
        if (!started_) {
            unsigned long long newest = 0;
            Next first = awaitFirst([&] { return newest = toWorking(); }, stop, creator_);
            if (first != Next::Element) return first;
            slot_ = slotOf(newest);
            started_ = true;
        } else {
            getter_.toNext(safe_);
            slot_ = (slot_ + 1) % slots_;
        }
        for (;;) {
            Wait wait = locks_.waitOpen(slot_, stop, creator_);
            if (wait != Wait::Open) return outcome(wait);
            fetch();
            unsigned long long id = currentId();
            if (slotOf(id) != slot_) {
                slot_ = slotOf(id);
                continue;  // the fetch moved past reused bytes; that slot may still be being written
            }
            if (!probeAge([&] { probe(); })) {
                slot_ = slotOf(toWorking());
                continue;
            }
            element = Element{};
            describe(element);
            element.id = id;
            markGap(element, expected_, id, pending_);
            expected_ = id + 1;
            return Next::Element;
        }
    }

protected:
    using AttachedReader::AttachedReader;

    // Fetches the element under the getter's cursor (getFrame, getFragment)
    // and tells its number.
    virtual void fetch() = 0;
    virtual unsigned long long currentId() = 0;
    // The getter's age probe on that element; throws the getter's error.
    virtual void probe() = 0;
    // Its bytes, capture time and duration.
    virtual void describe(Element& element) = 0;

    Getter getter_;
    int slots_ = 0;

private:
    unsigned long long toWorking() { return getter_.toWorking(safe_); }
    int slotOf(unsigned long long id) const { return static_cast<int>(id % static_cast<unsigned long long>(slots_)); }

    int safe_ = 0;
    int slot_ = 0;
};

class JpgReader final : public RingReader<JPGGetter> {
public:
    JpgReader(int channel, int maxAge, pid_t creator) : RingReader(Kind::Jpg, channel, maxAge, creator) {}

    bool attach(std::string& why) {
        return attachGetter<JPGPoolHeader>(
            getter_,
            [&](const JPGPoolHeader& header) {
                slots_ = header.frameCount <= JPG_MAX_FRAME_COUNT ? header.frameCount : 0;
                return slots_;
            },
            why);
    }

    bool intact(const Element& element) override { return prefixHolds(element.data, element.id); }

    StreamFormat format(const Element&) override {
        StreamFormat format;
        format.kind = Kind::Jpg;
        format.width = getter_.frame.width;
        format.height = getter_.frame.height;
        format.fps = getter_.frame.fps;
        return format;
    }

private:
    void fetch() override { getter_.getFrame(); }  // moves on past frames whose bytes were reused
    unsigned long long currentId() override { return getter_.getFrameID(); }
    void probe() override { getter_.probeAge(maxAge_); }
    void describe(Element& element) override {
        const JPGFrame& frame = getter_.frame;
        element.data = frame.data;
        element.size = static_cast<size_t>(frame.frameLength);
        element.captureUs = captureUs(frame.tv_sec, frame.tv_usec);
        if (frame.fps > 0) element.durationNs = NS_PER_S / frame.fps;
    }
};

// GOP by GOP from the I frame of the GOP being written; after an overtake,
// from the I frame of the GOP being written then.
class Mp4Reader final : public AttachedReader {
public:
    Mp4Reader(int channel, int maxAge, pid_t creator) : AttachedReader(Kind::Mp4, channel, maxAge, creator) {}

    bool attach(std::string& why) {
        return attachGetter<MP4PoolHeader>(
            getter_,
            [&](const MP4PoolHeader& header) {
                gops_ = header.gopCount;
                frames_ = header.framesPerGop;
                // A GOP's first frame is up to a GOP older than the newest one.
                gopAge_ = maxAge_ + header.oneSafeTime / 1000 + 1;
                bool fits = gops_ >= 1 && frames_ >= 1 && gops_ * frames_ <= MP4_MAX_FRAME_COUNT;
                return fits ? gops_ * frames_ : 0;
            },
            why);
    }

    Next next(const std::atomic<bool>& stop, Element& element) override {
        int safe = 0;
        if (!started_) {
            Next first = awaitFirst([&] { return getter_.toWorkingGop(safe); }, stop, creator_);
            if (first != Next::Element) return first;
            gop_ = gopOf(getter_.getGopID());
            frame_ = 0;
            started_ = true;
        }
        for (;;) {
            if (frame_ >= frames_) {
                getter_.toNextGop(safe);
                gop_ = (gop_ + 1) % gops_;
                frame_ = 0;
            }
            Wait wait = locks_.waitOpen(gop_ * frames_ + frame_, stop, creator_);
            if (wait != Wait::Open) return outcome(wait);
            unsigned long long id = getter_.getFrameData(frame_);
            if (frame_ == 0) {
                if (id == 0) {
                    jump("overwritten", stop);
                    continue;
                }
                if (!probeAge([&] { getter_.probeAge(gopAge_); })) {
                    jump(pending_, stop);
                    continue;
                }
            } else if (id != expected_) {
                // A higher number: the writer came round to this GOP again. A
                // lower one (or reused bytes): the slots this GOP did not need
                // still describe an earlier GOP's frames; the GOP is over.
                if (id > expected_)
                    jump("reused", stop);
                else
                    frame_ = frames_;
                continue;
            }
            element = Element{};
            element.data = getter_.frameData;
            element.size = static_cast<size_t>(getter_.frameLength);
            element.captureUs = captureUs(getter_.frameTime.tv_sec, getter_.frameTime.tv_usec);
            int fps = getter_.getWorkingFPS();
            if (fps > 0) element.durationNs = NS_PER_S / fps;
            element.id = id;
            element.key = frame_ == 0;
            markGap(element, expected_, id, pending_);
            expected_ = id + 1;
            ++frame_;
            return Next::Element;
        }
    }

    bool intact(const Element& element) override { return prefixHolds(element.data, element.id); }

    StreamFormat format(const Element& element) override {
        StreamFormat format;
        // The header's picture size and rate: the getter takes a GOP's own
        // from its first frame when it moves there, before that is written.
        format.kind = Kind::Mp4;
        format.width = getter_.getWorkingWidth();
        format.height = getter_.getWorkingHeight();
        format.fps = getter_.getWorkingFPS();
        // The codec shows in the I frames; P frames keep what the last one said.
        if (element.key) {
            codec_ = sniffVideoCodec(element.data, element.size);
            config_ = codec_ == VideoCodec::Mpeg4 ? mpeg4Config(element.data, element.size)
                                                  : std::vector<unsigned char>{};
            if (config_.empty() && codec_ == VideoCodec::Mpeg4) config_ = lastConfig_;
            lastConfig_ = config_;
        }
        format.codec = codec_;
        format.config = config_;
        return format;
    }

private:
    int gopOf(unsigned long long gopId) const {
        return static_cast<int>(gopId % static_cast<unsigned long long>(gops_));
    }

    void jump(const char* reason, const std::atomic<bool>& stop) {
        pending_ = reason;
        pause(JUMP_PAUSE_MS, stop);
        int safe = 0;
        gop_ = gopOf(getter_.toWorkingGop(safe));
        frame_ = 0;
    }

    MP4Getter getter_;
    int gops_ = 0;
    int frames_ = 0;
    int gopAge_ = 0;
    int gop_ = 0;
    int frame_ = 0;
    VideoCodec codec_ = VideoCodec::H264;
    std::vector<unsigned char> config_;
    std::vector<unsigned char> lastConfig_;
};

// The audio pools, fragment by fragment through their 200 slots.
template <class Getter>
class AudioReader final : public RingReader<Getter> {
    using Base = RingReader<Getter>;
    using Base::channel_;
    using Base::getter_;
    using Base::kind_;

public:
    AudioReader(Kind kind, int channel, int maxAge, pid_t creator) : Base(kind, channel, maxAge, creator) {
        Base::slots_ = AUDIO_SLOT_COUNT;
    }

    bool attach(std::string& why) {
        if constexpr (std::is_same_v<Getter, AACGetter>)
            getter_.init(channel_);
        else
            getter_.init();
        return Base::openLocks(AUDIO_SLOT_COUNT, why);
    }

    StreamFormat format(const Element& element) override {
        const auto& fragment = getter_.fragment;
        StreamFormat format;
        format.kind = kind_;
        format.channels = fragment.channels;
        format.rate = fragment.rate;
        if (kind_ == Kind::Pcm) format.bits = fragment.format == 1 ? 8 : fragment.format;
        if constexpr (std::is_same_v<Getter, AACGetter>) {
            format.adts = startsWithAdts(element.data, element.size);
            if (!format.adts) format.config = aacConfig(fragment.streamParam, fragment.rate, fragment.channels);
        }
        return format;
    }

private:
    void fetch() override { getter_.getFragment(); }
    unsigned long long currentId() override { return getter_.getFragmentID(); }
    void probe() override { getter_.probeAge(Base::maxAge_); }
    void describe(Element& element) override {
        const auto& fragment = getter_.fragment;
        element.data = fragment.data;
        element.size = static_cast<size_t>(fragment.length);
        element.captureUs = captureUs(fragment.timestamp.tv_sec, fragment.timestamp.tv_usec);
        element.durationNs = durationNs(format(element));
    }

    long long durationNs(const StreamFormat& format) const {
        if (format.rate <= 0 || format.channels <= 0) return -1;
        long long samples = -1;
        if (kind_ == Kind::Pcm && format.bits >= 8)
            samples = static_cast<long long>(getter_.fragment.length) / (format.bits / 8 * format.channels);
        if (kind_ == Kind::Aac) samples = AAC_FRAME_SAMPLES;
        return samples < 0 ? -1 : samples * NS_PER_S / format.rate;
    }
};

// The luminance pool: six pictures of 16-bit samples in their slots. The
// analysis getters have no age probe: gaps in the numbers show an overtake.
class LumReader final : public RingReader<LUMGetter> {
public:
    LumReader(int channel, int maxAge, pid_t creator) : RingReader(Kind::Lum, channel, maxAge, creator) {
        slots_ = LUM_FRAME_COUNT;
    }

    bool attach(std::string& why) {
        getter_.init(channel_);
        return openLocks(LUM_FRAME_COUNT, why);
    }

    StreamFormat format(const Element&) override {
        StreamFormat format;
        format.kind = Kind::Lum;
        format.width = getter_.getWorkingWidth();
        format.height = getter_.getWorkingHeight();
        format.fps = getter_.getWorkingFPS();
        return format;
    }

private:
    void fetch() override { getter_.getFrame(); }
    unsigned long long currentId() override { return getter_.getFrameID(); }
    void probe() override {}
    void describe(Element& element) override {
        element.data = reinterpret_cast<const unsigned char*>(getter_.samples);
        element.size = static_cast<size_t>(getter_.frameLength) * sizeof(unsigned short);
        element.captureUs = captureUs(getter_.tv_sec, getter_.tv_usec);
        int fps = getter_.getWorkingFPS();
        if (fps > 0) element.durationNs = NS_PER_S / fps;
    }
};

template <class Reader, class... Args>
std::shared_ptr<PoolReader> attach(std::string& why, Args... args) {
    auto reader = std::make_shared<Reader>(args...);
    try {
        if (reader->attach(why)) return reader;
    } catch (const avpool::PoolError& error) {
        why = error.what();
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<PoolReader> attachReader(Kind kind, int channel, int maxAge, std::string& why) {
    pid_t creator = 0;
    Presence presence = probePool(kind, channel, creator);
    if (presence != Presence::Live) {
        why = absenceText(kind, channel, presence, creator);
        return nullptr;
    }
    why = "the " + poolName(kind, channel) + " is not set up yet";
    switch (kind) {
        case Kind::Jpg: return attach<JpgReader>(why, channel, maxAge, creator);
        case Kind::Mp4: return attach<Mp4Reader>(why, channel, maxAge, creator);
        case Kind::Pcm: return attach<AudioReader<PCMGetter>>(why, kind, channel, maxAge, creator);
        case Kind::Aac: return attach<AudioReader<AACGetter>>(why, kind, channel, maxAge, creator);
        case Kind::Opus: return attach<AudioReader<OPUSGetter>>(why, kind, channel, maxAge, creator);
        case Kind::Lum: return attach<LumReader>(why, channel, maxAge, creator);
    }
    return nullptr;
}

namespace {

// The offset of the next 00 00 01 start code at or after from, or size.
size_t nextStartCode(const unsigned char* data, size_t size, size_t from) {
    for (size_t i = from; i + 3 <= size; ++i)
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
    return size;
}

constexpr unsigned char MPEG4_VOS = 0xB0;  // visual object sequence
constexpr unsigned char MPEG4_GOV = 0xB3;  // group of VOPs
constexpr unsigned char MPEG4_VOP = 0xB6;  // video object plane

}  // namespace

VideoCodec sniffVideoCodec(const unsigned char* data, size_t size) {
    for (size_t at = nextStartCode(data, size, 0); at + 3 < size; at = nextStartCode(data, size, at + 3)) {
        unsigned char code = data[at + 3];
        if (code == MPEG4_VOS || code == MPEG4_GOV || code == MPEG4_VOP) return VideoCodec::Mpeg4;
    }
    return VideoCodec::H264;
}

std::vector<unsigned char> mpeg4Config(const unsigned char* data, size_t size) {
    size_t at = nextStartCode(data, size, 0);
    for (; at + 3 < size; at = nextStartCode(data, size, at + 3))
        if (data[at + 3] == MPEG4_GOV || data[at + 3] == MPEG4_VOP) break;
    return std::vector<unsigned char>(data, data + (at < size ? at : size));
}

bool startsWithAdts(const unsigned char* data, size_t size) {
    return size >= 7 && data[0] == 0xFF && (data[1] & 0xF6) == 0xF0;
}

std::vector<unsigned char> aacConfig(int streamParam, int rate, int channels) {
    static const int rates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350};
    unsigned config = 0;
    if (streamParam > 31) {
        config = static_cast<unsigned>(streamParam) & 0xFFFF;
    } else {
        unsigned index = 15;
        for (unsigned i = 0; i < sizeof rates / sizeof rates[0]; ++i)
            if (rates[i] == rate) index = i;
        if (index == 15) return {};  // an explicit rate takes more than two bytes
        unsigned objectType = streamParam > 0 ? static_cast<unsigned>(streamParam) : 2;  // AAC LC
        config = objectType << 11 | index << 7 | (static_cast<unsigned>(channels) & 0xF) << 3;
    }
    return {static_cast<unsigned char>(config >> 8), static_cast<unsigned char>(config & 0xFF)};
}

}  // namespace avpool::gst
