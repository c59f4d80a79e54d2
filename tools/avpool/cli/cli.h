// The pieces every verb of the avpool tool shares: the verb description that
// drives dispatch and --help, option parsing, and how a failure ends the tool.
#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

namespace avpool::cli {

// Exit codes: 1 for a failure of the work itself, 2 for a wrong command line.
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;

// Thrown by a verb to end the tool with one line "avpool: <message>" on stderr.
class CliError : public std::runtime_error {
public:
    CliError(const std::string& message, int exitCode = EXIT_FAILED)
        : std::runtime_error(message), exitCode_(exitCode) {}
    int exitCode() const { return exitCode_; }

private:
    int exitCode_;
};

struct UsageError : CliError {
    explicit UsageError(const std::string& message) : CliError(message, EXIT_USAGE) {}
};

// Ends the tool with exit code 1 and no line of its own, for a failure the
// library has already reported on stderr.
struct AlreadyReported : CliError {
    AlreadyReported() : CliError("") {}
};

struct Option {
    const char* name;       // with the leading dashes: "--seconds"
    const char* valueName;  // nullptr for a flag without a value
    const char* help;
};

class ParsedArgs;

struct Verb {
    const char* name;
    const char* synopsis;     // what follows the verb name in the usage line
    const char* summary;      // one line for the tool's verb list
    const char* description;  // the body of the verb's --help
    std::vector<Option> options;
    int (*run)(const ParsedArgs& args);
};

// Options of one verb after parsing: "--name VALUE", "--name=VALUE" and flags,
// in any order among the positional arguments; "--" ends the options.
class ParsedArgs {
public:
    ParsedArgs(const Verb& verb, const std::vector<std::string>& words);

    const Verb& verb() const { return *verb_; }
    bool has(const char* option) const;
    // The option's value as an integer in [min, max], or fallback when absent.
    int intOption(const char* option, int fallback, int min, int max) const;
    // The option's value as given, or fallback when absent.
    std::string stringOption(const char* option, const std::string& fallback) const;
    const std::vector<std::string>& positional() const { return positional_; }
    // Exactly this many positional arguments, named in the message otherwise.
    void expectPositional(size_t count, const char* names) const;
    bool helpRequested() const { return help_; }

private:
    const Verb* verb_;
    std::vector<std::pair<std::string, std::string>> given_;
    std::vector<std::string> positional_;
    bool help_ = false;
};

// Integer in [min, max] from the whole of text; what names it in the error.
int parseInt(const std::string& text, const char* what, int min, int max);

// The entry of a table (a struct with a name) that the word names; otherwise
// a usage error "<what> 'word' (known: a, b, c)", what being e.g.
// "stat: unknown pool kind".
template <class Entry, size_t N>
const Entry& findNamed(const Entry (&entries)[N], const std::string& word, const std::string& what) {
    std::string names;
    for (const Entry& entry : entries) {
        if (word == entry.name) return entry;
        names += (names.empty() ? "" : ", ") + std::string(entry.name);
    }
    throw UsageError(what + " '" + word + "' (known: " + names + ")");
}

// The verb's usage line and --help text.
std::string verbUsage(const Verb& verb);
std::string verbHelp(const Verb& verb);

}  // namespace avpool::cli
