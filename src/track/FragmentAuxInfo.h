// What a track's fragments say about each sample besides its bytes and
// times: the auxiliary information ("saiz" sizes, the bytes "saio" points
// at, in "senc" as a rule: the encryption IVs and subsample maps) and the
// sample groups ("sbgp" with the fragment's own "sgpd" descriptions, such
// as the key of each sample). A copy of the track into sample tables takes
// them sample by sample, so that a player with the key can still decrypt.
#ifndef QUIL_TRACK_FRAGMENTAUXINFO_H
#define QUIL_TRACK_FRAGMENTAUXINFO_H

#include <cstdint>
#include <map>
#include <vector>

#include "quil/MP4Err.h"

namespace quil {

class CBox;
class CTrackHost;

class CFragmentAuxInfo {
public:
    // Gathers what the track fragments of trackId hold, sample by sample in
    // the order the track numbers its fragment samples. expected: how many
    // fragment samples the track reads; fragments that add up to another
    // count carry nothing (empty()). stbl: the copy's sample table, whose
    // "sgpd" descriptions the fragments' group indexes below 0x10000 name.
    MP4Err gather(CTrackHost* host, uint32_t trackId, uint32_t expected, CBox* stbl);
    bool empty() const { return !hasAux_ && mappings_.empty(); }
    // Fragment sample `sample` (1-based) is the copy's next sample.
    MP4Err addSample(uint32_t sample);
    // Puts "sbgp"/"sgpd" and "saiz"/"senc"/"saio" for the samples added into
    // the copy's sample table ("saio" after "senc", which the table's
    // writer points it at).
    MP4Err finish(CBox* stbl);

private:
    struct Traf;
    // The descriptions of one grouping type: the sample table's, then those
    // of the fragments, each once.
    struct Descriptions {
        uint32_t type = 0;
        uint8_t version = 1;
        uint32_t defaultIndex = 0;  // version 2: of samples no "sbgp" maps
        std::vector<std::vector<uint8_t>> entries;
        std::map<std::vector<uint8_t>, uint32_t> lookup;  // entry to its index
        bool grown = false;        // the fragments added entries
        CBox* replaces = nullptr;  // the sample table's own "sgpd"
    };
    // One "sbgp" kind (type and parameter): each fragment sample's index.
    struct Mapping {
        uint32_t type = 0;
        uint32_t parameter = 0;
        bool hasParameter = false;
        std::vector<uint32_t> indexOf;  // per fragment sample
        std::vector<uint32_t> copied;   // per copied sample
    };

    void addTraf(const Traf& traf, uint32_t samples);
    bool addAuxInfo(const Traf& traf, uint32_t samples);
    bool addGroups(const Traf& traf, uint32_t samples);
    bool readMovieDescriptions(CBox* stbl);
    Descriptions* findDescriptions(uint32_t type);
    Descriptions* descriptionsOf(uint32_t type);
    Mapping* mappingOf(uint32_t type, uint32_t parameter, bool hasParameter);
    uint32_t indexOfDescription(Descriptions* descriptions, const std::vector<uint8_t>& entry);
    MP4Err finishAuxInfo(CBox* stbl);
    MP4Err finishGroups(CBox* stbl);

    CTrackHost* host_ = nullptr;
    uint32_t samples_ = 0;  // fragment samples gathered
    // Auxiliary information: every fragment sample's bytes back to back,
    // where each starts (one more entry than samples) and the copy's.
    bool hasAux_ = false;
    bool auxBroken_ = false;     // information that cannot be carried
    bool groupsBroken_ = false;  // groups that cannot be carried
    bool sencFlagsKnown_ = false;
    uint32_t sencFlags_ = 0;
    bool auxTypeGiven_ = false;
    uint32_t auxType_ = 0;
    uint32_t auxParameter_ = 0;
    std::vector<uint8_t> aux_;
    std::vector<uint64_t> auxStart_;
    std::vector<uint8_t> copiedAux_;
    std::vector<uint8_t> copiedSizes_;
    std::vector<Descriptions> descriptions_;
    std::vector<Mapping> mappings_;
};

}  // namespace quil

#endif
