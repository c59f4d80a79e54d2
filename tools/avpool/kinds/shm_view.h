// Read-only looks at the System V objects of a pool, for the inspecting verbs.
// Nothing here writes to a segment or changes a semaphore.
#pragma once

#include "cli/cli.h"

#include <cstddef>
#include <string>
#include <sys/types.h>
#include <vector>

namespace avpool::cli {

// A pool segment attached read-only, with what the kernel knows about it.
class SegmentView {
public:
    // what names the pool in messages ("jpg pool on channel 2"). A missing
    // segment ends the tool with "no <what> (key 0x4c02)".
    SegmentView(int key, size_t headerSize, const std::string& what);
    ~SegmentView();
    SegmentView(const SegmentView&) = delete;
    SegmentView& operator=(const SegmentView&) = delete;

    int key() const { return key_; }
    int id() const { return id_; }
    size_t size() const { return size_; }
    pid_t creator() const { return creator_; }
    // Attachments other than this view's own, counted before attaching.
    unsigned long attached() const { return attached_; }
    const unsigned char* base() const { return base_; }

    // Copies size bytes at offset out of the segment; false when they lie
    // outside it (a damaged header must not make the inspector fault).
    bool read(size_t offset, void* out, size_t size) const;

private:
    int key_;
    int id_ = -1;
    size_t size_ = 0;
    pid_t creator_ = 0;
    unsigned long attached_ = 0;
    const unsigned char* base_ = nullptr;
};

// "jpg pool on channel 2": how messages name a pool.
std::string poolName(const char* kind, int channel);

// The header at the start of a pool's segment; a segment too small to hold
// it ends the tool.
template <class Header>
Header readHeader(const SegmentView& view, const char* kind, int channel) {
    Header header;
    if (!view.read(0, &header, sizeof header))
        throw CliError(poolName(kind, channel) + " is smaller than its header");
    return header;
}

// A pool's semaphore set opened read-only; id() is -1 when there is none.
class LockView {
public:
    LockView(int key, int count);
    int id() const { return id_; }
    int error() const { return error_; }
    // The semaphore's value, or -1 when it cannot be read.
    int value(int index) const;

private:
    int id_;
    int error_ = 0;
};

// The semaphore sets of a grouped pool, opened read-only: slot i's lock is
// semaphore i % 250 of the set under firstKey + i / 250, at most four sets.
class GroupedLockView {
public:
    static constexpr int GROUP_SIZE = 250;
    static constexpr int MAX_GROUPS = 4;

    GroupedLockView(int firstKey, int slotCount);
    int groups() const { return static_cast<int>(groups_.size()); }
    int key(int group) const { return firstKey_ + group; }
    int count(int group) const { return counts_[group]; }
    const LockView& group(int group) const { return groups_[group]; }
    // The slot's lock value, or -1 when it cannot be read.
    int value(int slot) const;

private:
    int firstKey_;
    std::vector<LockView> groups_;
    std::vector<int> counts_;
};

// "0x4c02"
std::string hexKey(int key);

// "0x4c02 (19458)"
std::string keyText(int key);

// Whether a segment exists under key; if so, creator receives the pid that
// created it.
bool findSegment(int key, pid_t& creator);

// Whether the process pid still runs (one of another user's counts as running).
bool processAlive(pid_t pid);

// The pid that created the segment under key if that process still runs,
// else 0 (no segment, or one left by a process that died).
pid_t runningCreator(int key);

}  // namespace avpool::cli
