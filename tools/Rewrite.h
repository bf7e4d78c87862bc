// Commands that write files, and what they share.
#ifndef QUIL_TOOLS_REWRITE_H
#define QUIL_TOOLS_REWRITE_H

#include <string>

#include "Command.h"

namespace quil {
namespace tool {

extern const Command kFaststartCommand;
extern const Command kRemuxCommand;

// optimizeFile from input to output; on failure prints one line starting
// with "quil: <label>: " and returns kExitFailure.
int moveMovieFirst(const char* input, const std::string& output, const char* label);

}  // namespace tool
}  // namespace quil

#endif
