// Commands that write files, and what they share.
#ifndef QUIL_TOOLS_REWRITE_H
#define QUIL_TOOLS_REWRITE_H

#include <string>
#include <vector>

#include "Command.h"
#include "quil/Mp4File.h"

namespace quil {
namespace tool {

extern const Command kFaststartCommand;
extern const Command kRemuxCommand;
extern const Command kFragmentCommand;

// optimizeFile from input to output; on failure prints one line starting
// with "quil: <label>: " and returns kExitFailure.
int moveMovieFirst(const char* input, const std::string& output, const char* label);

// How copyTracks writes its copy.
struct CopyOptions {
    const char* label = "remux";  // in messages: "quil: <label>: ..."
    // Written in fragments with these settings (null: a classic file).
    const MP4FragmentSettings* fragments = nullptr;
    uint32_t onlyTrack = 0;  // copy only this track of the input (0: all)
    bool progress = false;   // a progress line even when stderr is no terminal
    // Filled with the fragments written (fragmented copies).
    std::vector<MP4FragmentInfo>* fragmentsWritten = nullptr;
};

// Every video, audio and systems track of input copied into output with
// the input's file type, as remux does; on failure prints one line starting
// with "quil: <label>: " and returns false.
bool copyTracks(const char* input, const std::string& output, const CopyOptions& options);

}  // namespace tool
}  // namespace quil

#endif
