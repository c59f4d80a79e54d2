// Assertion helpers over the harness: the text and the stderr output of a call
// that must fail, and the lines a forked child reports.
#pragma once

#include "ipc_harness.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <type_traits>
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

// Runs call with everything it writes to stderr kept in err and, when out is
// given, to stdout in out; kept also when call throws, which is passed on.
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

// Own is a standard exception that a handler for Other does not catch, and it
// keeps its own copy of the message it is built from.
template <class Own, class Other>
void expectOwnErrorType() {
    static_assert(std::is_base_of_v<std::exception, Own>);
    static_assert(!std::is_base_of_v<Other, Own>);
    bool caughtAsOther = false;
    try {
        throw Own("x");
    } catch (const Other&) {
        caughtAsOther = true;
    } catch (const std::exception&) {
    }
    EXPECT_FALSE(caughtAsOther);

    std::string message = "semop failed.";
    Own error(message);
    message[0] = 'X';
    const std::exception& base = error;
    EXPECT_STREQ(base.what(), "semop failed.");
}

// Every call must throw Error "programming error" after writing exactly
// expectedLog to stderr: the use of an object before its init.
template <class Error, class Calls>
void expectProgrammingErrors(const Calls& calls, const std::string& expectedLog = "programming error\n") {
    for (size_t i = 0; i < calls.size(); ++i) {
        SCOPED_TRACE("call " + std::to_string(i));
        auto [message, log] = failureOf<Error>(calls[i]);
        EXPECT_EQ(message, "programming error");
        EXPECT_EQ(log, expectedLog);
    }
}

}  // namespace avpool::test
