// The "ftyp" brands a copy (remux, fragment) takes from its input.
#include <algorithm>
#include <vector>

#include "Rewrite.h"
#include "quil/quil.h"

namespace quil {
namespace tool {
namespace {

// Brands that say a file is made of CMAF fragments or DASH segments.
bool claimsFragments(uint32_t brand) {
    for (uint32_t fragmentsOnly : {fourcc("cmfc"), fourcc("cmf2"), fourcc("cmfs"), fourcc("cmff"),
                                   fourcc("cmfl"), fourcc("dash"), fourcc("msdh"), fourcc("msix")}) {
        if (brand == fragmentsOnly) return true;
    }
    return false;
}

}  // namespace

MP4Err keepInputBrands(CMp4File* source, CMp4File* target, bool fragmented) {
    uint32_t major = 0, minor = 0, count = 0;
    if (Mp4GetBrands(source, &major, &minor, nullptr, 0, &count) != MP4_OK) return MP4_OK;
    uint32_t type = 0;
    if (target->getFileType(&type) != MP4_OK || type == MP4_FILE_PSP || type == MP4_FILE_XAVC ||
        type == MP4_FILE_NO_FTYP || (!fragmented && claimsFragments(major))) {
        return MP4_OK;
    }
    std::vector<uint32_t> brands(count);
    MP4Err err = Mp4GetBrands(source, &major, &minor, brands.data(), count, &count);
    if (err != MP4_OK) return err;
    if (!fragmented) brands.erase(std::remove_if(brands.begin(), brands.end(), claimsFragments), brands.end());
    return target->setBrands(major, minor, brands.data(), static_cast<uint32_t>(brands.size()));
}

}  // namespace tool
}  // namespace quil
