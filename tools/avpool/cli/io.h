// Files and output streams of the verbs that move real media through pools.
#pragma once

#include "cli/cli.h"

#include <cstddef>
#include <string>
#include <vector>

namespace avpool::cli {

// The whole file; a CliError, led by the verb ("put"), names the file and the
// reason when it cannot be read.
std::vector<unsigned char> readWholeFile(const std::string& path, const char* verb);

// Where a verb writes: standard output, or a file created or truncated.
// Writes go straight to the descriptor, so nothing is left to flush at the
// end. Errors are led by the verb ("get").
class Output {
public:
    explicit Output(const char* verb);  // standard output
    Output(const std::string& path, const char* verb);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    // False once the reader has gone (a closed pipe); other failures throw.
    bool write(const unsigned char* data, size_t size);
    // Overwrites bytes written earlier, offset counted from where the output
    // began; false, and nothing written, when the output cannot seek (a pipe,
    // a terminal, a file opened for appending).
    bool patch(size_t offset, const unsigned char* data, size_t size);

private:
    int fd_;
    long long start_;  // file offset of the first byte written; -1 when not seekable
    bool owned_;
    std::string name_;
    std::string verb_;
};

// Silences standard output and error while it lives: the pool classes print
// their set-up diagnostics there, which would mix into the tool's own output.
class QuietOutput {
public:
    QuietOutput();
    ~QuietOutput();
    QuietOutput(const QuietOutput&) = delete;
    QuietOutput& operator=(const QuietOutput&) = delete;

private:
    int savedOut_;
    int savedErr_;
};

// Runs a pool call (init) with its diagnostics silenced; its PoolError becomes
// one line: failing, then ": " and the pool's message.
template <class PoolError, class Call>
void quietly(const std::string& failing, Call call) {
    try {
        QuietOutput quiet;
        call();
    } catch (const PoolError& error) {
        throw CliError(failing + ": " + error.what());
    }
}

}  // namespace avpool::cli
