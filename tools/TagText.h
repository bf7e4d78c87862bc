// How `quil meta` writes the iTunes items whose values are numbers: a
// numeric genre by its name, a track or disc number with its total.
#ifndef QUIL_TOOLS_TAGTEXT_H
#define QUIL_TOOLS_TAGTEXT_H

#include <cstdint>
#include <string>
#include <vector>

namespace quil {
namespace tool {

// An iTunes numeric genre ("gnre": the ID3v1 genre number plus 1), named
// as ffprobe names it; codes outside its list as "ID3 genre N".
std::string genreName(uint64_t code);

// A "trkn" or "disk" value (2 zero bytes, number u16, total u16, ...) as
// "N/M", or "N" without a total (0); empty when it is shorter than 6 bytes.
std::string numberAndTotal(const std::vector<uint8_t>& value);

}  // namespace tool
}  // namespace quil

#endif
