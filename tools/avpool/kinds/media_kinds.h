// The pool kinds that carry real media through put and get: one row per kind
// with its producer fed from a file and its consumer writing to an output.
#pragma once

#include "cli/cli.h"

#include <string>
#include <vector>

namespace avpool::cli {

class Output;
struct PoolKindInfo;

struct PutJob {
    const PoolKindInfo* pool;  // the kind's keys
    int channel;
    std::string path;
    std::vector<unsigned char> bytes;  // the whole file
    const ParsedArgs* args;
    bool loop;
    int lingerMs;
};

struct GetJob {
    const PoolKindInfo* pool;  // the kind's keys
    int channel;
    int since;  // seconds back to start from; -1 to follow live
    int count;  // elements to write; 0 for no limit
    Output* out;
};

struct MediaKind {
    const char* name;
    int (*put)(const PutJob& job);
    int (*get)(const GetJob& job);
    // Its row in the table of pool kinds: keys, and one pool per channel or
    // one per machine (channel 0).
    const PoolKindInfo& pool() const;
};

// The row that name names, for verb ("put", "get"); otherwise a usage error.
const MediaKind& findMediaKind(const std::string& name, const char* verb);

// The channel argument of a verb on that kind; a usage error when it is not a
// channel number, or not 0 for a kind with one pool per machine.
int mediaChannel(const MediaKind& kind, const std::string& text, const char* verb);

// Defined beside the verbs.
int putJpg(const PutJob& job);
int putMp4(const PutJob& job);
int putPcm(const PutJob& job);
int putAac(const PutJob& job);
int getJpg(const GetJob& job);
int getMp4(const GetJob& job);
int getPcm(const GetJob& job);
int getAac(const GetJob& job);

}  // namespace avpool::cli
