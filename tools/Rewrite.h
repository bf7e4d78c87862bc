// Commands that write files, and what they share.
#ifndef QUIL_TOOLS_REWRITE_H
#define QUIL_TOOLS_REWRITE_H

#include <cstdint>
#include <string>

#include "Command.h"
#include "quil/MP4Err.h"

namespace quil {
namespace tool {

extern const Command kFaststartCommand;
extern const Command kRemuxCommand;

// optimizeFile from input to output; on failure prints one line starting
// with "quil: <label>: " and returns kExitFailure.
int moveMovieFirst(const char* input, const std::string& output, const char* label);

// Copies every track from input into a new file output ("remux" without
// its temporary name); file type fileType when typeGiven, else the
// input's. On failure *what names the step that failed. Samples and
// tracks that cannot be read are left out, counted in *missing and named
// on stderr.
MP4Err remuxFile(const char* input, const std::string& output, uint32_t fileType, bool typeGiven,
                 std::string* what, uint64_t* missing = nullptr);

}  // namespace tool
}  // namespace quil

#endif
