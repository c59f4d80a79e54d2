#include "cli/io.h"

#include "cli/cli.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace avpool::cli {

std::vector<unsigned char> readWholeFile(const std::string& path, const char* verb) {
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) throw CliError(std::string(verb) + ": cannot read " + path + ": " + strerror(errno));
    std::vector<unsigned char> bytes;
    unsigned char block[65536];
    size_t got;
    while ((got = fread(block, 1, sizeof block, file)) > 0) bytes.insert(bytes.end(), block, block + got);
    bool failed = ferror(file) != 0;
    int error = errno;
    fclose(file);
    if (failed) throw CliError(std::string(verb) + ": cannot read " + path + ": " + strerror(error));
    return bytes;
}

Output::Output(const char* verb)
    : fd_(STDOUT_FILENO), start_(-1), owned_(false), name_("standard output"), verb_(verb) {
    // A reader that goes away ends the output with EPIPE instead of a signal.
    signal(SIGPIPE, SIG_IGN);
    int flags = fcntl(fd_, F_GETFL);
    if (flags != -1 && (flags & O_APPEND) == 0) start_ = lseek(fd_, 0, SEEK_CUR);
}

Output::Output(const std::string& path, const char* verb) : Output(verb) {
    fd_ = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd_ == -1) throw CliError(verb_ + ": cannot write " + path + ": " + strerror(errno));
    owned_ = true;
    name_ = path;
    start_ = lseek(fd_, 0, SEEK_CUR);
}

Output::~Output() {
    if (owned_) close(fd_);
}

bool Output::write(const unsigned char* data, size_t size) {
    while (size > 0) {
        ssize_t done = ::write(fd_, data, size);
        if (done < 0 && errno == EINTR) continue;
        if (done < 0 && errno == EPIPE) return false;
        if (done < 0) throw CliError(verb_ + ": cannot write " + name_ + ": " + strerror(errno));
        data += done;
        size -= static_cast<size_t>(done);
    }
    return true;
}

bool Output::patch(size_t offset, const unsigned char* data, size_t size) {
    if (start_ < 0) return false;
    return pwrite(fd_, data, size, static_cast<off_t>(start_ + static_cast<long long>(offset))) ==
           static_cast<ssize_t>(size);
}

QuietOutput::QuietOutput() {
    fflush(stdout);
    fflush(stderr);
    savedOut_ = dup(STDOUT_FILENO);
    savedErr_ = dup(STDERR_FILENO);
    int null = open("/dev/null", O_WRONLY);
    if (null != -1) {
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        close(null);
    }
}

QuietOutput::~QuietOutput() {
    fflush(stdout);
    fflush(stderr);
    if (savedOut_ != -1) dup2(savedOut_, STDOUT_FILENO), close(savedOut_);
    if (savedErr_ != -1) dup2(savedErr_, STDERR_FILENO), close(savedErr_);
}

}  // namespace avpool::cli
