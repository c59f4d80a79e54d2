#include "errors.h"

#include <cstdio>

namespace avpool::detail {

void systemFailure(const char* text, Raise raise, const char* suffix) {
    perror(text);
    raise(std::string(text) + suffix);
    __builtin_unreachable();
}

void programmingError(Raise raise, Newline newline) {
    static const char line[] = "programming error\n";
    fwrite(line, 1, newline == Newline::Yes ? sizeof line - 1 : sizeof line - 2, stderr);
    raise("programming error");
    __builtin_unreachable();
}

}  // namespace avpool::detail
