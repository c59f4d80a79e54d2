#include "cli/cli.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace avpool::cli {

namespace {

const Option* findOption(const Verb& verb, const std::string& name) {
    for (const Option& option : verb.options)
        if (name == option.name) return &option;
    return nullptr;
}

}  // namespace

ParsedArgs::ParsedArgs(const Verb& verb, const std::vector<std::string>& words) : verb_(&verb) {
    bool optionsEnded = false;
    for (size_t i = 0; i < words.size(); ++i) {
        const std::string& word = words[i];
        bool negativeNumber = word.size() >= 2 && word[0] == '-' && isdigit(static_cast<unsigned char>(word[1]));
        if (optionsEnded || word.size() < 2 || word[0] != '-' || negativeNumber) {
            positional_.push_back(word);
            continue;
        }
        if (word == "--") {
            optionsEnded = true;
            continue;
        }
        if (word == "--help" || word == "-h") {
            help_ = true;
            continue;
        }
        size_t equals = word.find('=');
        std::string name = word.substr(0, equals);
        const Option* option = findOption(verb, name);
        if (option == nullptr)
            throw UsageError(std::string(verb.name) + ": unknown option '" + name + "'; see 'avpool " +
                             verb.name + " --help'");
        if (option->valueName == nullptr) {
            if (equals != std::string::npos)
                throw UsageError(std::string(verb.name) + ": option " + name + " takes no value");
            given_.emplace_back(name, "");
            continue;
        }
        if (equals != std::string::npos) {
            given_.emplace_back(name, word.substr(equals + 1));
        } else if (i + 1 < words.size()) {
            given_.emplace_back(name, words[++i]);
        } else {
            throw UsageError(std::string(verb.name) + ": option " + name + " needs a value " + option->valueName);
        }
    }
}

bool ParsedArgs::has(const char* option) const {
    for (const auto& entry : given_)
        if (entry.first == option) return true;
    return false;
}

std::string ParsedArgs::stringOption(const char* option, const std::string& fallback) const {
    const std::string* value = &fallback;
    for (const auto& entry : given_)
        if (entry.first == option) value = &entry.second;  // the last one given wins
    return *value;
}

int ParsedArgs::intOption(const char* option, int fallback, int min, int max) const {
    if (!has(option)) return fallback;
    return parseInt(stringOption(option, ""), (std::string(verb_->name) + ": " + option).c_str(), min, max);
}

void ParsedArgs::expectPositional(size_t count, const char* names) const {
    if (positional_.size() == count) return;
    throw UsageError(std::string(verb_->name) + ": expected " + names + "; usage: " + verbUsage(*verb_));
}

int parseInt(const std::string& text, const char* what, int min, int max) {
    errno = 0;
    char* end = nullptr;
    long value = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno == ERANGE)
        throw UsageError(std::string(what) + " must be an integer, not '" + text + "'");
    if (value < min || value > max)
        throw UsageError(std::string(what) + " must be between " + std::to_string(min) + " and " +
                         std::to_string(max) + ", not " + text);
    return static_cast<int>(value);
}

std::string verbUsage(const Verb& verb) {
    std::string usage = std::string("avpool ") + verb.name;
    if (verb.synopsis[0] != '\0') usage += std::string(" ") + verb.synopsis;
    return usage;
}

std::string verbHelp(const Verb& verb) {
    std::string help = "usage: " + verbUsage(verb) + "\n\n" + verb.description;
    if (help.back() != '\n') help += '\n';
    help += "\noptions:\n";
    std::vector<std::pair<std::string, std::string>> rows;
    for (const Option& option : verb.options) {
        std::string left = option.name;
        if (option.valueName != nullptr) left += std::string(" ") + option.valueName;
        rows.emplace_back(left, option.help);
    }
    rows.emplace_back("-h, --help", "show this help");
    size_t width = 0;
    for (const auto& row : rows) width = row.first.size() > width ? row.first.size() : width;
    for (const auto& row : rows)
        help += "  " + row.first + std::string(width - row.first.size() + 2, ' ') + row.second + "\n";
    return help;
}

}  // namespace avpool::cli
