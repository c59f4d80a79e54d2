// Assertion helpers over the harness: the text and the stderr output of a call
// that must fail, and the lines a forked child reports.
#pragma once

#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace avpool::test {

using Calls = std::vector<std::function<void()>>;

// Runs call, which must throw Error: its what() text and everything written to
// stderr meanwhile.
template <class Error, class Call>
std::pair<std::string, std::string> failureOf(Call call) {
    testing::internal::CaptureStderr();
    std::string message = "<no exception>";
    try {
        call();
    } catch (const Error& e) {
        message = e.what();
    } catch (const std::exception& e) {
        message = std::string("<other exception> ") + e.what();
    }
    return {message, testing::internal::GetCapturedStderr()};
}

// Runs call with its stderr kept in err and, when out is given, its stdout in out.
template <class Call>
void captureOutput(Call call, std::string& err, std::string* out = nullptr) {
    testing::internal::CaptureStderr();
    if (out != nullptr) testing::internal::CaptureStdout();
    auto collect = [&] {
        if (out != nullptr) *out = testing::internal::GetCapturedStdout();
        err = testing::internal::GetCapturedStderr();
    };
    try {
        call();
    } catch (...) {
        collect();
        throw;
    }
    collect();
}

inline void expectLine(ForkedChild& child, const std::string& expected) {
    std::string line;
    ASSERT_TRUE(child.readLine(line)) << "the child said nothing; expected \"" << expected << "\"";
    EXPECT_EQ(line, expected);
}

// The child's last line, then exit code 0.
inline void expectLastLine(ForkedChild& child, const std::string& expected) {
    expectLine(child, expected);
    ExitStatus status = child.wait();
    EXPECT_TRUE(status.ok()) << status.describe();
}

// Every call throws Error "programming error" after writing exactly expectedLog
// to stderr: the use of an object before its init.
template <class Error>
void expectProgrammingErrors(const Calls& calls, const std::string& expectedLog = "programming error\n") {
    for (size_t i = 0; i < calls.size(); ++i) {
        EXPECT_EQ(failureOf<Error>(calls[i]), std::make_pair(std::string("programming error"), expectedLog))
            << "call " << i;
    }
}

}  // namespace avpool::test
