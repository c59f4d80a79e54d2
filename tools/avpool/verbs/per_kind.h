// The parts of stat, put and get that differ by pool kind; the kinds table
// (kinds/pool_kinds.h) points each kind's row at its parts.
#pragma once

#include "cli/cli.h"
#include "kinds/pool_kinds.h"

#include <string>
#include <vector>

namespace avpool::cli {

class Output;

// What stat was asked for: the kind's row, the channel, and how many of the
// newest audio fragments to list.
struct StatRequest {
    const PoolKind* pool;
    int channel;
    int last;
};

struct PutJob {
    const PoolKind* pool;
    int channel;
    std::string path;
    std::vector<unsigned char> bytes;  // the whole file
    const ParsedArgs* args;
    bool loop;
    int lingerMs;
};

struct GetJob {
    const PoolKind* pool;
    int channel;
    int since;  // seconds back to start from; -1 to follow live
    int count;  // elements to write; 0 for no limit
    Output* out;
};

// stat: the audio kinds share one printer and so do the analysis kinds, each
// driven by the kind's row.
int statJpg(const StatRequest& request);
int statMp4(const StatRequest& request);
int statAudio(const StatRequest& request);
int statAnalysis(const StatRequest& request);

// put: a producer fed from a file of the kind's stream format.
int putJpg(const PutJob& job);
int putMp4(const PutJob& job);
int putPcm(const PutJob& job);
int putAac(const PutJob& job);

// get: a consumer writing the pool's elements in that format.
int getJpg(const GetJob& job);
int getMp4(const GetJob& job);
int getPcm(const GetJob& job);
int getAac(const GetJob& job);

// The channel argument of put or get on a kind; a usage error when it is not a
// channel number, or not 0 for a kind with one pool per machine.
int mediaChannel(const PoolKind& kind, const std::string& text, const char* verb);

}  // namespace avpool::cli
