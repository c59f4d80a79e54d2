// Crafted byte streams for the avpool tool's media readers, and the text of the
// format error a reader throws on them.
#pragma once

#include "media/media_error.h"

#include <initializer_list>
#include <string>
#include <vector>

using Bytes = std::vector<unsigned char>;

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// The FormatError message of read on the bytes, or "accepted".
template <class Read>
std::string errorOf(Read read, const Bytes& bytes) {
    try {
        read(bytes.data(), bytes.size());
    } catch (const avpool::media::FormatError& error) {
        return error.what();
    }
    return "accepted";
}
