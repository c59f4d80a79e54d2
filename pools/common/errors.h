// How pool code reports failures: each pool passes a function that throws its own
// error class, so the texts and the perror step are written once, here.
#pragma once

#include <string>

namespace avpool::detail {

using Raise = void (*)(const std::string& message);

// A failed system call: perror with the text, then throw the text with a final
// point (the pools) or as it is (suffix "": the information area's encoder side).
[[noreturn]] void systemFailure(const char* text, Raise raise, const char* suffix = ".");

enum class Newline { Yes, No };

// text on stderr as it stands (with a newline if asked), then thrown.
[[noreturn]] void reportedError(const char* text, Raise raise, Newline newline);

// Use before a successful init: "programming error\n" on stderr, then throw. The
// audio kinds write the line without its newline.
[[noreturn]] void programmingError(Raise raise, Newline newline = Newline::Yes);

// What a getter throws when a header does not describe a pool that fits its
// segment: its writer is still filling it in, or it is not a pool at all.
constexpr const char* POOL_NOT_READY = "pool not ready.";

// Each public class turns a message into its own error type through this.
template <class Error>
[[noreturn]] void raiseAs(const std::string& message) {
    throw Error(message);
}

}  // namespace avpool::detail
