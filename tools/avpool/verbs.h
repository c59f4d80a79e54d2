// The verbs of the avpool tool, one file each; main.cpp lists them.
#pragma once

#include "cli.h"

namespace avpool::cli {

extern const Verb demoVerb;
extern const Verb statVerb;

}  // namespace avpool::cli
