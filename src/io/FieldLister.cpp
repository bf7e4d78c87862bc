#include "FieldLister.h"

namespace quil {

bool FieldLister::have(uint64_t end) {
    if (end > reach_) return false;
    if (end <= fetched_.size()) return true;
    // Fetched in growing pieces: a long table costs a few reads, and no
    // more is fetched than the walk reaches.
    uint64_t wanted = fetched_.size() * 2;
    if (wanted < end) wanted = end;
    if (wanted < kFieldReach) wanted = kFieldReach;
    if (wanted > reach_) wanted = reach_;
    const size_t had = fetched_.size();
    fetched_.resize(static_cast<size_t>(wanted));
    if (!source_->read(had, fetched_.data() + had, static_cast<uint32_t>(wanted - had))) {
        fetched_.resize(had);
        reach_ = had;  // nothing past what was had can be listed
        return false;
    }
    return true;
}

bool FieldLister::take(uint32_t width, uint64_t* raw) {
    *raw = 0;
    if (short_ || !have(at_ + width)) {
        short_ = true;
        return false;
    }
    for (uint32_t i = 0; i < width; ++i) *raw = *raw << 8 | fetched_[static_cast<size_t>(at_ + i)];
    at_ += width;
    return true;
}

ListedField& FieldLister::add(ListedForm form) {
    listed_.emplace_back();
    ListedField& field = listed_.back();
    field.key = key_;
    field.entry = entry_;
    field.form = form;
    key_ = nullptr;
    return field;
}

void FieldLister::record(uint64_t raw, uint32_t width, bool isSigned) {
    if (form_ == FieldForm::kUnsigned) isSigned = false;
    if (form_ == FieldForm::kSignedInVersion1) isSigned = version_ == 1;
    const ListedForm form = form_ == FieldForm::kCode ? ListedForm::kCode
                            : isSigned                ? ListedForm::kSigned
                                                      : ListedForm::kNumber;
    // A signed field of fewer than 8 bytes is sign-extended.
    if (isSigned && width < 8 && (raw >> (8 * width - 1) & 1)) raw |= ~uint64_t{0} << (8 * width);
    add(form).number = raw;
}

FieldLister& FieldLister::codes() {
    ListedField& field = add(ListedForm::kCodes);
    while (!short_ && have(at_ + 4)) {
        field.bytes.append(reinterpret_cast<const char*>(&fetched_[static_cast<size_t>(at_)]), 4);
        at_ += 4;
    }
    return *this;
}

FieldLister& FieldLister::text() {
    ListedField& field = add(ListedForm::kText);
    while (!short_ && have(at_ + 1) && fetched_[static_cast<size_t>(at_)] != 0) {
        field.bytes += static_cast<char>(fetched_[static_cast<size_t>(at_++)]);
    }
    return *this;
}

}  // namespace quil
