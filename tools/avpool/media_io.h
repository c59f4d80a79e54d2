// Files and output streams of the verbs that move real media through pools.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace avpool::cli {

// The whole file; a CliError names the file and the reason when it cannot be read.
std::vector<unsigned char> readWholeFile(const std::string& path);

// Where get writes: standard output, or a file created or truncated. Writes
// go straight to the descriptor, so nothing is left to flush at the end.
class Output {
public:
    explicit Output(const std::string& path);  // "" or "-" for standard output
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    // False once the reader has gone (a closed pipe); other failures throw.
    bool write(const unsigned char* data, size_t size);

private:
    int fd_;
    bool owned_;
    std::string name_;
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

}  // namespace avpool::cli
