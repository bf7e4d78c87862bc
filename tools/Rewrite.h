// Commands that write files, and what they share.
#ifndef QUIL_TOOLS_REWRITE_H
#define QUIL_TOOLS_REWRITE_H

#include <cstdint>
#include <string>
#include <vector>

#include "Command.h"
#include "quil/MP4Err.h"
#include "quil/Mp4File.h"

namespace quil {
namespace tool {

extern const Command kFaststartCommand;
extern const Command kRemuxCommand;
extern const Command kFragmentCommand;

// optimizeFile from input to output; on failure prints one line starting
// with "quil: <label>: " and returns kExitFailure.
int moveMovieFirst(const char* input, const std::string& output, const char* label);

// The copy was written, but samples (or whole tracks) of the input could
// not be read and are missing from it (a cut-off or damaged file).
constexpr int kExitSamplesMissing = 3;

// Gives target (just opened for writing) the "ftyp" brands of source, so
// that a copy keeps its input's file type and brands (the library adds
// what fragments need). Brands that only fragmented files may claim (CMAF,
// DASH segments) are left out of a copy with sample tables, and a copy
// keeps its own brands when such a brand is the major one or the source
// has no "ftyp" or target none of its own (PSP, XAVC, type 9).
MP4Err keepInputBrands(CMp4File* source, CMp4File* target, bool fragmented);

// How copyTracks writes its copy.
struct CopyOptions {
    const char* label = "remux";  // in messages: "quil: <label>: ..."
    // The copy's file type when typeGiven, else the input's.
    uint32_t fileType = 0;
    bool typeGiven = false;
    // Written in fragments with these settings (null: a classic file).
    const MP4FragmentSettings* fragments = nullptr;
    uint32_t onlyTrack = 0;  // copy only this track of the input (0: all)
    // Each chunk of the copy one of the input's, in the input's order
    // (where the input's tables allow); false: chunks of about a second,
    // the tracks interleaved by time.
    bool keepChunks = true;
    bool progress = false;   // a progress line even when stderr is no terminal
    // Filled with the fragments written (fragmented copies).
    std::vector<MP4FragmentInfo>* fragmentsWritten = nullptr;
    // Filled with the samples and tracks that could not be read and are
    // left out (each track's count also named on stderr).
    uint64_t* missing = nullptr;
};

// Every track of input copied whole into a new file output, as remux
// does; samples and tracks that cannot be read are left out, counted in
// *options.missing and named on stderr. On failure *what names the step
// that failed.
MP4Err copyTracks(const char* input, const std::string& output, const CopyOptions& options,
                  std::string* what);
// copyTracks, printing one line starting with "quil: <label>: " and
// returning false on failure.
bool copyTracksOrReport(const char* input, const std::string& output, const CopyOptions& options);

// copyTracks with default options: "remux" without its temporary name and
// messages; file type fileType when typeGiven, else the input's; missing
// as options.missing.
MP4Err remuxFile(const char* input, const std::string& output, uint32_t fileType, bool typeGiven,
                 std::string* what, uint64_t* missing = nullptr);

}  // namespace tool
}  // namespace quil

#endif
