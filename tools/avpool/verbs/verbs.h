// The verbs of the avpool tool, one file each; main.cpp lists them.
#pragma once

#include "cli/cli.h"

namespace avpool::cli {

extern const Verb demoVerb;
extern const Verb infosVerb;
extern const Verb snapshotVerb;
extern const Verb statVerb;
extern const Verb usersVerb;
extern const Verb lsVerb;
extern const Verb watchVerb;
extern const Verb cleanVerb;
extern const Verb putVerb;
extern const Verb getVerb;
extern const Verb serveVerb;

}  // namespace avpool::cli
