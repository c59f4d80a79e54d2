// avpool: look into the media pools of a device, feed them from media files
// and read them out, and run a self-checking demo.
// The first word picks a verb from the table below; each verb parses its own
// options and has its own --help.

#include "cli/cli.h"
#include "verbs/verbs.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

using namespace avpool::cli;

namespace {

const Verb* const verbs[] = {
    &demoVerb,
    &infosVerb,
    &snapshotVerb,
    &statVerb,
    &usersVerb,
    &lsVerb,
    &watchVerb,
    &cleanVerb,
    &putVerb,
    &getVerb,
    &serveVerb,
};

const Verb* findVerb(const char* name) {
    for (const Verb* verb : verbs)
        if (strcmp(verb->name, name) == 0) return verb;
    return nullptr;
}

void printToolHelp(FILE* out) {
    fprintf(out,
            "usage: avpool VERB [ARGS...]\n"
            "       avpool VERB --help\n"
            "\n"
            "Inspect the shared-memory media pools of this machine and exercise them.\n"
            "\n"
            "verbs:\n");
    for (const Verb* verb : verbs) fprintf(out, "  %-8s %s\n", verb->name, verb->summary);
}

int runVerb(const Verb& verb, int argc, char** argv) {
    ParsedArgs args(verb, std::vector<std::string>(argv, argv + argc));
    if (args.helpRequested()) {
        fputs(verbHelp(verb).c_str(), stdout);
        return 0;
    }
    return verb.run(args);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "avpool: no verb given; see 'avpool --help'\n");
        return EXIT_USAGE;
    }
    const char* word = argv[1];
    if (strcmp(word, "--help") == 0 || strcmp(word, "-h") == 0) {
        printToolHelp(stdout);
        return 0;
    }
    try {
        if (strcmp(word, "help") == 0) {
            if (argc == 2) {
                printToolHelp(stdout);
                return 0;
            }
            const Verb* verb = findVerb(argv[2]);
            if (verb == nullptr) throw UsageError(std::string("no verb '") + argv[2] + "'; see 'avpool --help'");
            fputs(verbHelp(*verb).c_str(), stdout);
            return 0;
        }
        const Verb* verb = findVerb(word);
        if (verb == nullptr) throw UsageError(std::string("no verb '") + word + "'; see 'avpool --help'");
        return runVerb(*verb, argc - 2, argv + 2);
    } catch (const CliError& error) {
        if (error.what()[0] != '\0') fprintf(stderr, "avpool: %s\n", error.what());
        return error.exitCode();
    } catch (const std::exception& error) {
        fprintf(stderr, "avpool: %s\n", error.what());
        return EXIT_FAILED;
    }
}
