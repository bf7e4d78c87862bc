#include "FragmentAuxInfo.h"

#include <algorithm>
#include <memory>
#include <new>

#include "boxes/Box.h"
#include "boxes/EncryptionBoxes.h"
#include "boxes/FragmentBoxes.h"
#include "io/FieldIO.h"
#include "track/TrackHost.h"

namespace quil {

struct CFragmentAuxInfo::Traf {
    CBox* box = nullptr;
    uint64_t base = 0;  // what the fragment's "saio" offsets count from
    CBox* saiz = nullptr;
    CBox* saio = nullptr;
    CBox* senc = nullptr;
};

namespace {

// Group indexes above this name the fragment's own descriptions.
constexpr uint32_t kFragmentLocal = 0x10000;
// Kinds of sample grouping carried at most (files use one or two).
constexpr size_t kMostMappings = 16;

// The payload of a box the library keeps as read (these boxes have no
// class of their own); its length is that of bytes already in the file.
std::vector<uint8_t> payloadOf(CBox* box) {
    const CKeptBytes& kept = box->keptPayload();
    std::vector<uint8_t> bytes(kept.length());
    if (!bytes.empty() && kept.read(0, bytes.data(), bytes.size()) != MP4_OK) bytes.clear();
    return bytes;
}

struct AuxSizes {
    bool typeGiven = false;
    uint32_t type = 0;
    uint32_t parameter = 0;
    std::vector<uint8_t> sizes;
};

// "saiz": the first `samples` sizes; false when it lists fewer.
bool parseAuxSizes(const std::vector<uint8_t>& payload, uint32_t samples, AuxSizes* out) {
    FieldDecoder d(payload.data(), payload.size());
    uint8_t version = 0, defaultSize = 0;
    uint32_t flags = 0, count = 0;
    d.versionAndFlags(version, flags);
    if (flags & 1) d.u32(out->type).u32(out->parameter);
    d.u8(defaultSize).u32(count);
    if (!d.ok() || count < samples) return false;
    out->typeGiven = (flags & 1) != 0;
    if (defaultSize != 0) {
        out->sizes.assign(samples, defaultSize);
    } else {
        if (d.left() < samples) return false;
        out->sizes.assign(d.data(), d.data() + samples);
    }
    return true;
}

// "saio": its offsets.
bool parseAuxOffsets(const std::vector<uint8_t>& payload, std::vector<uint64_t>* offsets) {
    FieldDecoder d(payload.data(), payload.size());
    uint8_t version = 0;
    uint32_t flags = 0, count = 0, skipped = 0;
    d.versionAndFlags(version, flags);
    if (flags & 1) d.u32(skipped).u32(skipped);
    d.u32(count);
    if (!d.ok() || count > d.left() / (version == 0 ? 4 : 8)) return false;
    for (uint32_t i = 0; i < count; ++i) {
        uint64_t offset = 0;
        if (version == 0) {
            uint32_t narrow = 0;
            d.u32(narrow);
            offset = narrow;
        } else {
            d.u64(offset);
        }
        offsets->push_back(offset);
    }
    return d.ok();
}

struct GroupDescriptions {
    uint32_t type = 0;
    uint8_t version = 0;
    uint32_t defaultIndex = 0;
    std::vector<std::vector<uint8_t>> entries;
};

// "sgpd": its entries. Version 0 entries carry no length, so only a
// single one (the rest of the box) can be told apart.
bool parseDescriptions(const std::vector<uint8_t>& payload, GroupDescriptions* out) {
    FieldDecoder d(payload.data(), payload.size());
    uint32_t flags = 0, defaultLength = 0, count = 0;
    d.versionAndFlags(out->version, flags).u32(out->type);
    if (out->version >= 1) d.u32(defaultLength);
    if (out->version >= 2) d.u32(out->defaultIndex);
    d.u32(count);
    if (!d.ok() || (out->version == 0 && count > 1)) return false;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t length = defaultLength;
        if (out->version == 0) length = static_cast<uint32_t>(d.left());
        else if (defaultLength == 0) d.u32(length);
        if (!d.ok() || d.left() < length) return false;
        out->entries.emplace_back(d.data(), d.data() + length);
        d.skip(length);
    }
    return true;
}

struct SampleGroups {
    uint32_t type = 0;
    uint32_t parameter = 0;
    bool hasParameter = false;
    std::vector<std::pair<uint32_t, uint32_t>> runs;  // sample count, index
};

// "sbgp": its runs.
bool parseSampleGroups(const std::vector<uint8_t>& payload, SampleGroups* out) {
    FieldDecoder d(payload.data(), payload.size());
    uint8_t version = 0;
    uint32_t flags = 0, count = 0;
    d.versionAndFlags(version, flags).u32(out->type);
    out->hasParameter = version == 1;
    if (out->hasParameter) d.u32(out->parameter);
    d.u32(count);
    if (!d.ok() || count > d.left() / 8) return false;
    for (uint32_t i = 0; i < count; ++i) {
        uint32_t samples = 0, index = 0;
        d.u32(samples).u32(index);
        out->runs.emplace_back(samples, index);
    }
    return d.ok();
}

void put32(std::vector<uint8_t>* out, uint32_t value) {
    for (int shift = 24; shift >= 0; shift -= 8) out->push_back(static_cast<uint8_t>(value >> shift));
}

// A built box's payload starts with its version and flags.
void putVersionAndFlags(std::vector<uint8_t>* out, uint8_t version, uint32_t flags) {
    put32(out, static_cast<uint32_t>(version) << 24 | (flags & 0xFFFFFF));
}

// The n-th child of that type, or null.
CBox* childOfType(CBox* parent, uint32_t type, uint32_t n = 1) {
    CBox* box = nullptr;
    return parent->findChild(type, &box, n) == MP4_OK ? box : nullptr;
}

// Puts a built box in the place of `old`, or after the table's children.
MP4Err placeBox(CBox* stbl, CBox* old, std::unique_ptr<CBuiltBox> made) {
    CBoxList* list = stbl->childList();
    if (!list) return MP4_ERR_INVALID_DATA;
    if (!old) {
        MP4Err err = list->append(made.get());
        if (err == MP4_OK) made.release();
        return err;
    }
    MP4Err err = list->replace(old, made.get());
    if (err != MP4_OK) return err;
    made.release();
    delete old;
    return MP4_OK;
}

}  // namespace

MP4Err CFragmentAuxInfo::gather(CTrackHost* host, uint32_t trackId, uint32_t expected, CBox* stbl) {
    *this = CFragmentAuxInfo();
    host_ = host;
    CBoxList* top = host->fileBoxes();
    try {
        groupsBroken_ = !readMovieDescriptions(stbl);
        for (CBoxList::Node* m = top ? top->head() : nullptr; m; m = m->next) {
            auto* moof = dynamic_cast<CMovieFragmentBox*>(m->box);
            CBoxList* trafs = moof ? moof->childList() : nullptr;
            for (CBoxList::Node* t = trafs ? trafs->head() : nullptr; t; t = t->next) {
                if (t->box->type != fourcc("traf")) continue;
                CBox* tfhdBox = childOfType(t->box, fourcc("tfhd"));
                auto* tfhd = dynamic_cast<CTrackFragmentHeaderBox*>(tfhdBox);
                if (!tfhd || tfhd->writesAsRead() || tfhd->trackId != trackId) continue;
                // The samples of its runs, up to a damaged one (as the
                // track counts them).
                uint64_t samples = 0;
                for (uint32_t n = 1; CBox* box = childOfType(t->box, fourcc("trun"), n); ++n) {
                    auto* trun = dynamic_cast<CTrackRunBox*>(box);
                    if (!trun || trun->writesAsRead()) break;
                    samples += trun->sampleCount;
                }
                if (samples > expected - samples_) {
                    *this = CFragmentAuxInfo();  // more than the track reads: nothing carried
                    return MP4_OK;
                }
                Traf traf;
                traf.box = t->box;
                traf.base = (tfhd->flags & CTrackFragmentHeaderBox::kBaseDataOffset)
                                ? tfhd->baseDataOffset
                                : moof->boxOffset;
                traf.saiz = childOfType(t->box, fourcc("saiz"));
                traf.saio = childOfType(t->box, fourcc("saio"));
                traf.senc = childOfType(t->box, fourcc("senc"));
                addTraf(traf, static_cast<uint32_t>(samples));
            }
        }
    } catch (const std::bad_alloc&) {
        *this = CFragmentAuxInfo();
        return MP4_ERR_OUT_OF_MEMORY;
    }
    if (samples_ != expected || auxBroken_) {
        hasAux_ = false;
        aux_.clear();
        auxStart_.clear();
    }
    if (samples_ != expected || groupsBroken_) mappings_.clear();
    return MP4_OK;
}

void CFragmentAuxInfo::addTraf(const Traf& traf, uint32_t samples) {
    if (!auxBroken_ && !addAuxInfo(traf, samples)) auxBroken_ = true;
    if (!groupsBroken_ && !addGroups(traf, samples)) groupsBroken_ = true;
    samples_ += samples;
}

// The fragment's information, from its "senc" (where "saio" points as a
// rule) or else from where "saio" points; its samples without "saiz" have
// none (size 0).
bool CFragmentAuxInfo::addAuxInfo(const Traf& traf, uint32_t samples) {
    AuxSizes sizes;
    if (!traf.saiz) {
        // Held per sample only once a fragment has information.
        if (hasAux_) auxStart_.insert(auxStart_.end(), samples, aux_.size());
        return true;
    }
    if (!parseAuxSizes(payloadOf(traf.saiz), samples, &sizes)) return false;
    uint64_t total = 0;
    for (uint8_t size : sizes.sizes) total += size;
    // Fragments pointing at the same bytes again and again do not make the
    // information outgrow the file.
    uint64_t length = 0;
    if (!host_->storageLength(&length) || total > length - std::min<uint64_t>(length, aux_.size())) {
        return false;
    }
    if (!hasAux_) auxStart_.assign(samples_ + 1, 0);
    const size_t start = aux_.size();
    if (traf.senc) {
        const std::vector<uint8_t> senc = payloadOf(traf.senc);
        FieldDecoder d(senc.data(), senc.size());
        uint8_t version = 0;
        uint32_t flags = 0, count = 0;
        d.versionAndFlags(version, flags).u32(count);
        if (!d.ok() || d.left() < total) return false;
        if (!sencFlagsKnown_) sencFlags_ = flags;
        sencFlagsKnown_ = true;
        aux_.insert(aux_.end(), d.data(), d.data() + total);
    } else if (traf.saio) {
        std::vector<uint64_t> offsets;
        if (!parseAuxOffsets(payloadOf(traf.saio), &offsets) ||
            (offsets.size() != 1 && offsets.size() != samples)) {
            return false;
        }
        aux_.resize(start + total);
        uint64_t at = start;
        for (uint32_t i = 0; i < offsets.size(); ++i) {
            const uint64_t offset = traf.base + offsets[i];
            const uint64_t bytes = offsets.size() == 1 ? total : sizes.sizes[i];
            if (offset < traf.base || offset > length || bytes > length - offset) return false;
            if (bytes > 0 && host_->readMediaBytes(offset, static_cast<uint32_t>(bytes),
                                                   aux_.data() + at) != MP4_OK) {
                return false;
            }
            at += bytes;
        }
    } else {
        return false;
    }
    if (sizes.typeGiven && !auxTypeGiven_) {
        auxTypeGiven_ = true;
        auxType_ = sizes.type;
        auxParameter_ = sizes.parameter;
    }
    uint64_t end = start;
    for (uint8_t size : sizes.sizes) auxStart_.push_back(end += size);
    hasAux_ = true;
    return true;
}

// The fragment's sample-to-group runs, its own descriptions given indexes
// after the sample table's; samples no run covers take the type's default.
bool CFragmentAuxInfo::addGroups(const Traf& traf, uint32_t samples) {
    std::vector<GroupDescriptions> local;
    for (uint32_t n = 1; CBox* box = childOfType(traf.box, fourcc("sgpd"), n); ++n) {
        local.emplace_back();
        if (!parseDescriptions(payloadOf(box), &local.back())) return false;
    }
    std::vector<bool> touched(mappings_.size(), false);
    for (uint32_t n = 1; CBox* box = childOfType(traf.box, fourcc("sbgp"), n); ++n) {
        SampleGroups groups;
        if (!parseSampleGroups(payloadOf(box), &groups)) return false;
        Mapping* mapping = mappingOf(groups.type, groups.parameter, groups.hasParameter);
        if (!mapping) return false;
        const size_t which = static_cast<size_t>(mapping - mappings_.data());
        touched.resize(mappings_.size(), false);
        if (touched[which]) return false;  // two runs lists for one kind
        touched[which] = true;
        uint64_t filled = 0;
        for (const auto& run : groups.runs) {
            uint32_t index = run.second;
            if (index > kFragmentLocal) {
                auto own = std::find_if(local.begin(), local.end(), [&](const GroupDescriptions& d) {
                    return d.type == groups.type;
                });
                if (own == local.end() || index - kFragmentLocal > own->entries.size()) return false;
                index = indexOfDescription(descriptionsOf(groups.type),
                                           own->entries[index - kFragmentLocal - 1]);
            }
            const uint64_t take = std::min<uint64_t>(run.first, samples - filled);
            mapping->indexOf.insert(mapping->indexOf.end(), take, index);
            filled += take;
        }
    }
    for (Mapping& mapping : mappings_) {
        const Descriptions* descriptions = findDescriptions(mapping.type);
        const uint32_t fallback = descriptions ? descriptions->defaultIndex : 0;
        mapping.indexOf.resize(samples_ + samples, fallback);
    }
    return true;
}

// The sample table's own descriptions (of its movie samples) come first,
// so that the indexes naming them stay as they are.
bool CFragmentAuxInfo::readMovieDescriptions(CBox* stbl) {
    for (uint32_t n = 1; CBox* box = childOfType(stbl, fourcc("sgpd"), n); ++n) {
        GroupDescriptions read;
        if (!parseDescriptions(payloadOf(box), &read) || findDescriptions(read.type)) return false;
        Descriptions* descriptions = descriptionsOf(read.type);
        descriptions->version = std::max<uint8_t>(read.version, 1);
        descriptions->defaultIndex = read.defaultIndex;
        descriptions->replaces = box;
        for (const auto& entry : read.entries) {
            descriptions->lookup.emplace(entry, static_cast<uint32_t>(descriptions->entries.size() + 1));
            descriptions->entries.push_back(entry);
        }
    }
    return true;
}

CFragmentAuxInfo::Descriptions* CFragmentAuxInfo::findDescriptions(uint32_t type) {
    for (Descriptions& descriptions : descriptions_) {
        if (descriptions.type == type) return &descriptions;
    }
    return nullptr;
}

CFragmentAuxInfo::Descriptions* CFragmentAuxInfo::descriptionsOf(uint32_t type) {
    if (Descriptions* found = findDescriptions(type)) return found;
    descriptions_.emplace_back();
    descriptions_.back().type = type;
    return &descriptions_.back();
}

// A new kind of mapping: samples gathered before it had none. Null when
// there are too many kinds to carry.
CFragmentAuxInfo::Mapping* CFragmentAuxInfo::mappingOf(uint32_t type, uint32_t parameter,
                                                       bool hasParameter) {
    for (Mapping& mapping : mappings_) {
        if (mapping.type == type && mapping.parameter == parameter &&
            mapping.hasParameter == hasParameter) {
            return &mapping;
        }
    }
    // Each kind holds an index per sample: a file naming ever new kinds
    // does not multiply that.
    if (mappings_.size() >= kMostMappings) return nullptr;
    const Descriptions* descriptions = findDescriptions(type);
    mappings_.emplace_back();
    Mapping& made = mappings_.back();
    made.type = type;
    made.parameter = parameter;
    made.hasParameter = hasParameter;
    made.indexOf.assign(samples_, descriptions ? descriptions->defaultIndex : 0);
    return &made;
}

// Equal descriptions of several fragments become one.
uint32_t CFragmentAuxInfo::indexOfDescription(Descriptions* descriptions,
                                              const std::vector<uint8_t>& entry) {
    auto found = descriptions->lookup.find(entry);
    if (found != descriptions->lookup.end()) return found->second;
    descriptions->entries.push_back(entry);
    descriptions->grown = true;
    const uint32_t index = static_cast<uint32_t>(descriptions->entries.size());
    descriptions->lookup.emplace(entry, index);
    return index;
}

MP4Err CFragmentAuxInfo::addSample(uint32_t sample) {
    if (sample == 0 || sample > samples_) return MP4_ERR_BAD_INDEX;
    try {
        if (hasAux_) {
            const uint64_t begin = auxStart_[sample - 1], end = auxStart_[sample];
            copiedAux_.insert(copiedAux_.end(), aux_.begin() + begin, aux_.begin() + end);
            copiedSizes_.push_back(static_cast<uint8_t>(end - begin));
        }
        for (Mapping& mapping : mappings_) mapping.copied.push_back(mapping.indexOf[sample - 1]);
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
    return MP4_OK;
}

MP4Err CFragmentAuxInfo::finish(CBox* stbl) {
    try {
        MP4Err err = finishGroups(stbl);
        return err == MP4_OK ? finishAuxInfo(stbl) : err;
    } catch (const std::bad_alloc&) {
        return MP4_ERR_OUT_OF_MEMORY;
    }
}

// "sbgp" per kind (in the place of the table's own of that kind), then
// "sgpd" per grouping type with every description the copy names.
MP4Err CFragmentAuxInfo::finishGroups(CBox* stbl) {
    for (const Mapping& mapping : mappings_) {
        if (mapping.copied.empty()) continue;
        std::unique_ptr<CBuiltBox> sbgp(new (std::nothrow) CBuiltBox(fourcc("sbgp")));
        if (!sbgp) return MP4_ERR_OUT_OF_MEMORY;
        std::vector<std::pair<uint32_t, uint32_t>> runs;
        for (uint32_t index : mapping.copied) {
            if (!runs.empty() && runs.back().second == index) ++runs.back().first;
            else runs.emplace_back(1, index);
        }
        std::vector<uint8_t>& p = sbgp->payload;
        putVersionAndFlags(&p, mapping.hasParameter ? 1 : 0, 0);
        put32(&p, mapping.type);
        if (mapping.hasParameter) put32(&p, mapping.parameter);
        put32(&p, static_cast<uint32_t>(runs.size()));
        for (const auto& run : runs) {
            put32(&p, run.first);
            put32(&p, run.second);
        }
        CBox* old = nullptr;
        for (uint32_t n = 1; CBox* box = childOfType(stbl, fourcc("sbgp"), n); ++n) {
            SampleGroups read;
            if (parseSampleGroups(payloadOf(box), &read) && read.type == mapping.type &&
                read.parameter == mapping.parameter && read.hasParameter == mapping.hasParameter) {
                old = box;
                break;
            }
        }
        MP4Err err = placeBox(stbl, old, std::move(sbgp));
        if (err != MP4_OK) return err;
    }
    for (Descriptions& descriptions : descriptions_) {
        if (!descriptions.grown) continue;  // the table's own stays as it is
        std::unique_ptr<CBuiltBox> sgpd(new (std::nothrow) CBuiltBox(fourcc("sgpd")));
        if (!sgpd) return MP4_ERR_OUT_OF_MEMORY;
        size_t length = descriptions.entries.front().size();
        for (const auto& entry : descriptions.entries) {
            if (entry.size() != length) length = 0;
        }
        std::vector<uint8_t>& p = sgpd->payload;
        putVersionAndFlags(&p, descriptions.version, 0);
        put32(&p, descriptions.type);
        put32(&p, static_cast<uint32_t>(length));
        if (descriptions.version >= 2) put32(&p, descriptions.defaultIndex);
        put32(&p, static_cast<uint32_t>(descriptions.entries.size()));
        for (const auto& entry : descriptions.entries) {
            if (length == 0) put32(&p, static_cast<uint32_t>(entry.size()));
            p.insert(p.end(), entry.begin(), entry.end());
        }
        MP4Err err = placeBox(stbl, descriptions.replaces, std::move(sgpd));
        if (err != MP4_OK) return err;
        descriptions.replaces = nullptr;
    }
    mappings_.clear();
    descriptions_.clear();
    return MP4_OK;
}

// "saiz", "senc" and "saio" of the copied samples; a table that has
// such boxes of its own (its movie samples') keeps them.
MP4Err CFragmentAuxInfo::finishAuxInfo(CBox* stbl) {
    if (!hasAux_ || copiedSizes_.empty() || childOfType(stbl, fourcc("senc")) ||
        childOfType(stbl, fourcc("saiz")) || childOfType(stbl, fourcc("saio"))) {
        return MP4_OK;
    }
    const uint32_t count = static_cast<uint32_t>(copiedSizes_.size());
    const bool sameSize = std::all_of(copiedSizes_.begin(), copiedSizes_.end(),
                                      [&](uint8_t size) { return size == copiedSizes_[0]; });
    std::unique_ptr<CBuiltBox> saiz(new (std::nothrow) CBuiltBox(fourcc("saiz")));
    std::unique_ptr<CBuiltBox> senc(new (std::nothrow) CBuiltBox(fourcc("senc")));
    std::unique_ptr<CSampleAuxInfoOffsetsBox> saio(new (std::nothrow) CSampleAuxInfoOffsetsBox());
    if (!saiz || !senc || !saio) return MP4_ERR_OUT_OF_MEMORY;
    std::vector<uint8_t>& sizes = saiz->payload;
    putVersionAndFlags(&sizes, 0, auxTypeGiven_ ? 1 : 0);
    if (auxTypeGiven_) {
        put32(&sizes, auxType_);
        put32(&sizes, auxParameter_);
    }
    sizes.push_back(sameSize ? copiedSizes_[0] : 0);
    put32(&sizes, count);
    if (!sameSize) sizes.insert(sizes.end(), copiedSizes_.begin(), copiedSizes_.end());
    // Without a "senc" to say so, information longer than an IV (8 or 16
    // bytes), or of several sizes, holds subsample maps.
    const bool ivOnly = sameSize && (copiedSizes_[0] == 0 || copiedSizes_[0] == 8 ||
                                     copiedSizes_[0] == 16);
    const uint32_t sencFlags = sencFlagsKnown_ ? sencFlags_ : (ivOnly ? 0 : 2);
    putVersionAndFlags(&senc->payload, 0, sencFlags);
    put32(&senc->payload, count);
    senc->payload.insert(senc->payload.end(), copiedAux_.begin(), copiedAux_.end());
    // One offset, of 64 bits whatever the output's size; the table's
    // writer points it at the information in "senc".
    saio->version = 1;
    saio->flags = auxTypeGiven_ ? 1 : 0;
    saio->auxInfoType = auxType_;
    saio->auxInfoTypeParameter = auxParameter_;
    saio->offsets.assign(1, 0);
    CBoxList* list = stbl->childList();
    if (!list) return MP4_ERR_INVALID_DATA;
    MP4Err err = list->append(saiz.get());
    if (err != MP4_OK) return err;
    saiz.release();
    if ((err = list->append(senc.get())) != MP4_OK) return err;
    senc.release();
    if ((err = list->append(saio.get())) != MP4_OK) return err;
    saio.release();
    hasAux_ = false;
    return MP4_OK;
}

}  // namespace quil
