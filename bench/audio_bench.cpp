// Audio pools: what a putFragment costs for each kind beside its floor, the copy
// of the fragment's bytes into a slot plus the two semctl calls every put makes.
#include "support.h"

#include <avpool/aac.h>
#include <avpool/amr.h>
#include <avpool/opus.h>
#include <avpool/pcm.h>

#include <cstring>
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

// Each kind's set-up and put, by overload; the fragment fills the slot's data area.
void open(PCMPutter& p) { p.init(); p.reset(16, 1, 8000); }
void open(OPUSPutter& p) { p.init(); p.reset(16, 1, 8000); }
void open(AACPutter& p) { p.init(0); p.reset(16, 1, 8000, 0); }
void open(AMRPutter& p) { p.init(0); p.reset(16, 1, 8000, 0); }
template <class Putter>
void put(Putter& p, unsigned char* data, int length) { p.putFragment(data, length, CAPTURED); }
void put(AMRPutter& p, unsigned char* data, int length) { p.putFragment(data, length, CAPTURED, 0); }

template <class Record>
constexpr int BYTES = sizeof(Record{}.data);

template <class Putter, class Record>
void BM_AudioPutFragment(benchmark::State& state) {
    Putter putter;
    if (!setUpQuietly(state, [&] { open(putter); })) return;
    std::unique_ptr<unsigned char[]> fragment = makePayload(BYTES<Record>);

    AllocationCheck allocations;
    for (auto _ : state) put(putter, fragment.get(), BYTES<Record>);
    allocations.report(state, "allocs_per_put");
    state.SetBytesProcessed(state.iterations() * BYTES<Record>);
}

// The floor: the fragment copied into the next of 200 slots, then one semaphore
// of a private set of 200 closed and another opened, as a put does.
template <class Record>
void BM_AudioCopyAndTwoSemctl(benchmark::State& state) {
    constexpr int slotSize = sizeof(Record);
    int set = semget(IPC_PRIVATE, AUDIO_SLOT_COUNT, IPC_CREAT | 0600);
    if (set == -1) {
        state.SkipWithError("semget failed");
        return;
    }
    std::unique_ptr<unsigned char[]> fragment = makePayload(BYTES<Record>);
    std::unique_ptr<unsigned char[]> slots(new unsigned char[AUDIO_SLOT_COUNT * slotSize]);
    memset(slots.get(), 0xCC, AUDIO_SLOT_COUNT * slotSize);
    int slot = 0;
    for (auto _ : state) {
        slot = slot + 1 < AUDIO_SLOT_COUNT ? slot + 1 : 0;
        setValue(set, (slot + 1) % AUDIO_SLOT_COUNT, 1);
        memcpy(slots.get() + slot * slotSize, fragment.get(), BYTES<Record>);
        benchmark::ClobberMemory();
        setValue(set, slot, 0);
    }
    semctl(set, 0, IPC_RMID);
    state.SetBytesProcessed(state.iterations() * BYTES<Record>);
}

BENCHMARK_TEMPLATE(BM_AudioPutFragment, PCMPutter, PCMFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, PCMFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioPutFragment, AACPutter, AACFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, AACFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioPutFragment, AMRPutter, AMRFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, AMRFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioPutFragment, OPUSPutter, OPUSFragmentInfo);
BENCHMARK_TEMPLATE(BM_AudioCopyAndTwoSemctl, OPUSFragmentInfo);

}  // namespace
