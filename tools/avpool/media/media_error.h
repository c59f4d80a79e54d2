// What the stream splitters throw when a file is not of the expected format or
// ends in the middle of an element. The message names the byte offset.
#pragma once

#include <stdexcept>
#include <string>

namespace avpool::media {

class FormatError : public std::runtime_error {
public:
    explicit FormatError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace avpool::media
