#include "errors.h"

#include <cstdio>

namespace avpool::detail {

void systemFailure(const char* text, Raise raise, const char* suffix) {
    perror(text);
    raise(std::string(text) + suffix);
    __builtin_unreachable();
}

void reportedError(const char* text, Raise raise, Newline newline) {
    fputs(text, stderr);
    if (newline == Newline::Yes) fputc('\n', stderr);
    raise(text);
    __builtin_unreachable();
}

void programmingError(Raise raise, Newline newline) {
    reportedError("programming error", raise, newline);
}

}  // namespace avpool::detail
