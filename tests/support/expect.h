// Assertion helpers over the harness: the text and the stderr output of a call
// that must fail, and the lines a forked child reports.
#pragma once

#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <utility>

namespace avpool::test {

// Runs call, which must throw Error, and returns its what() text together with
// everything written to stderr meanwhile.
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

// The child's next line must be expected.
inline void expectLine(ForkedChild& child, const std::string& expected) {
    std::string line;
    ASSERT_TRUE(child.readLine(line)) << "the child said nothing; expected \"" << expected << "\"";
    EXPECT_EQ(line, expected);
}

// The child's last line must be expected, and then it must end with exit code 0.
inline void expectLastLine(ForkedChild& child, const std::string& expected) {
    expectLine(child, expected);
    ExitStatus status = child.wait();
    EXPECT_TRUE(status.ok()) << status.describe();
}

// Every call must throw Error "programming error" after writing exactly
// "programming error\n" to stderr: the use of an object before its init.
template <class Error, class Calls>
void expectProgrammingErrors(const Calls& calls) {
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE("call " + std::to_string(i));
        auto [message, log] = failureOf<Error>(calls[i]);
        EXPECT_EQ(message, "programming error");
        EXPECT_EQ(log, "programming error\n");
    }
}

}  // namespace avpool::test
