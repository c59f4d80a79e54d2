// The verbs of the avpool tool, one file each; main.cpp lists them.
#pragma once

#include "cli.h"

namespace avpool::cli {

extern const Verb demoVerb;
extern const Verb infosVerb;
extern const Verb snapshotVerb;
extern const Verb statVerb;
extern const Verb usersVerb;

}  // namespace avpool::cli
