// avpool_interop_peer layout
// avpool_interop_peer produce DIR [KIND...]
// avpool_interop_peer consume DIR [KIND...]
//
// layout prints the size, alignment and field offsets of every shared record,
// one line each. produce creates each kind's pool with fixed content, marks
// DIR/KIND.ready, serves the consumer's live phase and releases the pool once
// DIR/KIND.done appears. consume checks each kind's pool against the content
// it knows, one line per failed check. Kinds run in the order given (default:
// all), each producer and consumer pair meeting on its own marker files. The
// exit status is 0 only when every check passed.
#include "peer.h"

#include <avpool/common.h>

#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <string>
#include <vector>

namespace {

const interop::PoolKind* const kinds[] = {&interop::jpgKind, &interop::mp4Kind, &interop::infosKind,
                                           &interop::lumKind, &interop::mdKind,  &interop::pcmKind,
                                           &interop::aacKind, &interop::amrKind, &interop::opusKind};

int usage() {
    fprintf(stderr,
            "usage: avpool_interop_peer layout\n"
            "       avpool_interop_peer produce|consume DIR [KIND...]\n"
            "kinds:");
    for (const interop::PoolKind* kind : kinds) fprintf(stderr, " %s", kind->name);
    fprintf(stderr, "\n");
    return 2;
}

void commonLayout() {
    interop::printLayout("Word64", sizeof(avpool::Word64), alignof(avpool::Word64),
                {INTEROP_FIELD(avpool::Word64, low), INTEROP_FIELD(avpool::Word64, high)});
}

const interop::PoolKind* findKind(const char* name) {
    for (const interop::PoolKind* kind : kinds)
        if (strcmp(kind->name, name) == 0) return kind;
    return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 2 && strcmp(argv[1], "layout") == 0) {
        commonLayout();
        for (const interop::PoolKind* kind : kinds) kind->layout();
        return 0;
    }
    if (argc < 3) return usage();
    bool producing = strcmp(argv[1], "produce") == 0;
    if (!producing && strcmp(argv[1], "consume") != 0) return usage();
    const char* dir = argv[2];

    std::vector<const interop::PoolKind*> chosen;
    for (int i = 3; i < argc; ++i) {
        const interop::PoolKind* kind = findKind(argv[i]);
        if (kind == nullptr) return usage();
        chosen.push_back(kind);
    }
    if (chosen.empty()) chosen.assign(std::begin(kinds), std::end(kinds));

    int failed = 0;
    for (const interop::PoolKind* kind : chosen) {
        interop::Rendezvous meet(dir, kind->name, producing ? interop::Rendezvous::Side::Producer
                                                            : interop::Rendezvous::Side::Consumer);
        interop::Checks checks(std::string(kind->name) + (producing ? " producer" : " consumer"));
        try {
            (producing ? kind->produce : kind->consume)(meet, checks);
        } catch (const std::exception& e) {
            checks.fail(producing ? "producer" : "consumer", std::string("exception: ") + e.what());
        }
        // However a side ended, the other one must not wait for it any longer.
        if (!producing) meet.mark("done");
        if (producing && checks.failed() > 0) meet.mark("abort");
        checks.summary();
        failed += checks.failed();
    }
    return failed == 0 ? 0 : 1;
}
