// Audio pools: what a putFragment costs for each kind beside its floor, the copy
// of the fragment's bytes into a slot plus the two semctl calls every put makes.
#include "support.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cstring>
#include <exception>
#include <memory>
#include <sys/ipc.h>
#include <sys/sem.h>

using namespace avpool_bench;

namespace {

const timeval CAPTURED{1700000000, 0};

union SemArg {
    int val;
    semid_ds* buf;
    unsigned short* array;
};

void setValue(int set, int index, int value) {
    SemArg arg;
    arg.val = value;
    semctl(set, index, SETVAL, arg);
}

struct Pcm {
    using Putter = PCMPutter;
    static constexpr int BYTES = PCM_FRAGMENT_SIZE;
    static constexpr int SLOT = sizeof(PCMFragmentInfo);
    static void open(Putter& p) {
        p.init();
        p.reset(16, 1, 8000);
    }
    static void put(Putter& p, unsigned char* data) { p.putFragment(data, BYTES, CAPTURED); }
};

struct Aac {
    using Putter = AACPutter;
    static constexpr int BYTES = AAC_MAX_FRAGMENT_SIZE;
    static constexpr int SLOT = sizeof(AACFragmentInfo);
    static void open(Putter& p) {
        p.init(0);
        p.reset(16, 1, 8000, 0);
    }
    static void put(Putter& p, unsigned char* data) { p.putFragment(data, BYTES, CAPTURED); }
};

struct Amr {
    using Putter = AMRPutter;
    static constexpr int BYTES = AMR_MAX_FRAGMENT_SIZE;
    static constexpr int SLOT = sizeof(AMRFragmentInfo);
    static void open(Putter& p) {
        p.init(0);
        p.reset(16, 1, 8000, 0);
    }
    static void put(Putter& p, unsigned char* data) { p.putFragment(data, BYTES, CAPTURED, 0); }
};

struct Opus {
    using Putter = OPUSPutter;
    static constexpr int BYTES = OPUS_FRAGMENT_SIZE;
    static constexpr int SLOT = sizeof(OPUSFragmentInfo);
    static void open(Putter& p) {
        p.init();
        p.reset(16, 1, 8000);
    }
    static void put(Putter& p, unsigned char* data) { p.putFragment(data, BYTES, CAPTURED); }
};

template <class Kind>
void BM_AudioPutFragment(benchmark::State& state) {
    typename Kind::Putter putter;
    try {
        QuietSetup quiet;
        Kind::open(putter);
    } catch (const std::exception& e) {
        state.SkipWithError(e.what());
        return;
    }
    std::unique_ptr<unsigned char[]> fragment = makePayload(Kind::BYTES);

    AllocationCheck allocations;
    for (auto _ : state) Kind::put(putter, fragment.get());
    allocations.report(state, "allocs_per_put");
    state.SetBytesProcessed(state.iterations() * Kind::BYTES);
}

// The floor: the fragment copied into the next of 200 slots, then one semaphore
// of a private set of 200 closed and another opened, as a put does.
template <class Kind>
void BM_AudioCopyAndTwoSemctl(benchmark::State& state) {
    int set = semget(IPC_PRIVATE, AUDIO_SLOT_COUNT, IPC_CREAT | 0600);
    if (set == -1) {
        state.SkipWithError("semget failed");
        return;
    }
    std::unique_ptr<unsigned char[]> fragment = makePayload(Kind::BYTES);
    std::unique_ptr<unsigned char[]> slots(new unsigned char[AUDIO_SLOT_COUNT * Kind::SLOT]);
    memset(slots.get(), 0xCC, AUDIO_SLOT_COUNT * Kind::SLOT);
    int slot = 0;
    for (auto _ : state) {
        slot = slot + 1 < AUDIO_SLOT_COUNT ? slot + 1 : 0;
        setValue(set, (slot + 1) % AUDIO_SLOT_COUNT, 1);
        memcpy(slots.get() + slot * Kind::SLOT, fragment.get(), Kind::BYTES);
        benchmark::ClobberMemory();
        setValue(set, slot, 0);
    }
    semctl(set, 0, IPC_RMID);
    state.SetBytesProcessed(state.iterations() * Kind::BYTES);
}

BENCHMARK_TEMPLATE(BM_AudioPutFragment, Pcm);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, Pcm);
BENCHMARK_TEMPLATE(BM_AudioPutFragment, Aac);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, Aac);
BENCHMARK_TEMPLATE(BM_AudioPutFragment, Amr);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, Amr);
BENCHMARK_TEMPLATE(BM_AudioPutFragment, Opus);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, Opus);

}  // namespace
