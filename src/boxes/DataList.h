// The block-linked list that holds every sample table and the track's time
// table. Entries live in nodes of `blockSize` entries each; a node is one
// allocation (node fields followed by its block of entries), so appending
// never moves entries and a table costs little more than its entries.
// Indices are 1-based. A cursor remembers the node of the last lookup, so
// walking the list forwards costs one step per node.
#ifndef QUIL_BOXES_DATALIST_H
#define QUIL_BOXES_DATALIST_H

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "quil/MP4Err.h"

namespace quil {

template <class T>
class CDataListNode {
public:
    // Makes a node whose block of blockSize default-constructed entries
    // follows the node in the same allocation. Null when out of memory.
    static CDataListNode* create(uint32_t firstIndex, uint32_t blockSize) {
        return new (blockSize, std::nothrow) CDataListNode(firstIndex, blockSize);
    }

    virtual ~CDataListNode() {
        if (!std::is_trivially_destructible<T>::value) {
            T* block = entries();
            for (uint32_t i = 0; i < blockSize_; ++i) block[i].~T();
        }
    }

    CDataListNode(const CDataListNode&) = delete;
    CDataListNode& operator=(const CDataListNode&) = delete;

    // The block starts right after the node's own fields.
    T* entries() { return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(this) + sizeof(CDataListNode)); }

    uint32_t firstIndex;  // 1-based list index of entries()[0]
private:
    uint32_t blockSize_;  // entries in the block; sits in the padding after firstIndex
public:
    CDataListNode* next = nullptr;

    // One allocation for the node and its block; deleting the node frees both.
    static void* operator new(size_t nodeBytes, uint32_t blockSize, const std::nothrow_t&) noexcept {
        return ::operator new(nodeBytes + static_cast<size_t>(blockSize) * sizeof(T), std::nothrow);
    }
    static void operator delete(void* raw) noexcept { ::operator delete(raw); }
    // Matches the placement form above; called only if a constructor threw.
    static void operator delete(void* raw, uint32_t, const std::nothrow_t&) noexcept { ::operator delete(raw); }

private:
    CDataListNode(uint32_t first, uint32_t blockSize) : firstIndex(first), blockSize_(blockSize) {
        static_assert(alignof(T) <= alignof(CDataListNode) && sizeof(CDataListNode) % alignof(T) == 0,
                      "entries must be aligned right after the node");
        T* block = entries();
        for (uint32_t i = 0; i < blockSize_; ++i) new (block + i) T();
    }
};

// Entries [first, first + count) of a list, held in one node's block: a
// reader walking the list in order takes each entry with one load instead
// of a lookup. Empty (count 0) until a list fills it. It stays valid while
// the list keeps its nodes (the entries may change in place).
template <class T>
struct CDataListSpan {
    const T* block = nullptr;
    uint32_t first = 0;
    uint32_t count = 0;

    // The entry at a 1-based list index, null outside the span.
    const T* at(uint32_t index) const {
        return index - first < count ? block + (index - first) : nullptr;
    }
};

template <class T>
class CDataList {
public:
    static constexpr uint32_t kDefaultBlockSize = 100;

    // A block size of 0 would make every append divide by zero; it falls
    // back to the default.
    explicit CDataList(uint32_t blockSize = kDefaultBlockSize)
        : blockSize_(blockSize ? blockSize : kDefaultBlockSize) {}
    ~CDataList() { clear(); }
    CDataList(const CDataList&) = delete;
    CDataList& operator=(const CDataList&) = delete;

    // Adds an entry at index count() + 1. 1 when a node cannot be made (the
    // list is then unchanged).
    MP4Err append(const T& entry) { return append(T(entry)); }
    MP4Err append(T&& entry) {
        T* slot = nullptr;
        MP4Err err = reserveSlot(&slot);
        if (err != MP4_OK) return err;
        *slot = std::move(entry);
        ++count_;
        return MP4_OK;
    }

    // Free slots at the end of the list for appending many entries at once:
    // *slots receives the slot of entry count() + 1 (a new node is made when
    // the tail is full) and *available how many follow it in the same node.
    // The caller fills some of them, then counts them with commit().
    MP4Err reserveRun(T** slots, uint32_t* available) {
        MP4Err err = reserveSlot(slots);
        if (err != MP4_OK) return err;
        *available = tail_->firstIndex + blockSize_ - (count_ + 1);
        return MP4_OK;
    }
    void commit(uint32_t filled) { count_ += filled; }

    // The entry at a 1-based index, changeable in place. 17 for index 0,
    // 3 beyond the count, 5 when the nodes do not hold what the count says.
    // Walking forwards resumes at the cursor node; a step backwards before
    // the cursor's node restarts at the head.
    MP4Err getEntry(uint32_t index, T** entry) {
        *entry = nullptr;
        if (index == 0) return MP4_ERR_BAD_INDEX;
        if (index > count_) return MP4_ERR_NOT_AVAILABLE;
        // Most lookups land in the cursor's own node.
        if (cursor_ && index - cursor_->firstIndex < blockSize_) {
            *entry = cursor_->entries() + (index - cursor_->firstIndex);
            return MP4_OK;
        }
        Node* node = cursor_ ? cursor_ : head_;
        if (node && node->firstIndex > index) node = head_;
        // Compared as index - first >= blockSize so that a last node near
        // UINT32_MAX cannot overflow the sum first + blockSize.
        while (node && index - node->firstIndex >= blockSize_) node = node->next;
        if (!node || index < node->firstIndex) return MP4_ERR_INVALID_DATA;
        cursor_ = node;
        *entry = node->entries() + (index - node->firstIndex);
        return MP4_OK;
    }

    // The entries of the node holding index, up to the list's end or index
    // last, whichever comes first: false, the span emptied, where getEntry
    // would not give the entry or index is beyond last.
    bool spanAt(uint32_t index, uint32_t last, CDataListSpan<T>* span) {
        *span = CDataListSpan<T>();
        T* entry = nullptr;
        if (index > last || getEntry(index, &entry) != MP4_OK) return false;
        // Counted from the node's first index, so that an index near
        // UINT32_MAX cannot overflow a sum.
        uint32_t available = count_ - cursor_->firstIndex + 1;
        if (available > blockSize_) available = blockSize_;
        if (available > last - cursor_->firstIndex + 1) available = last - cursor_->firstIndex + 1;
        span->block = cursor_->entries();
        span->first = cursor_->firstIndex;
        span->count = available;
        return true;
    }

    // The entry at index through span, refilled when index lies outside
    // it: null where spanAt fails.
    const T* spannedEntry(uint32_t index, uint32_t last, CDataListSpan<T>* span) {
        const T* entry = span->at(index);
        if (entry == nullptr && spanAt(index, last, span)) entry = span->at(index);
        return entry;
    }

    // The last entry, or null when the list is empty. Used by the run-length
    // merges of table building, which only ever touch the end of a list.
    T* last() { return count_ ? tail_->entries() + (count_ - tail_->firstIndex) : nullptr; }

    // Frees every node, iteratively (long tables would overflow the stack
    // if nodes freed their successors).
    void clear() {
        Node* node = head_;
        while (node) {
            Node* next = node->next;
            delete node;
            node = next;
        }
        head_ = tail_ = cursor_ = nullptr;
        count_ = 0;
    }

    uint32_t count() const { return count_; }
    uint32_t blockSize() const { return blockSize_; }
    CDataListNode<T>* head() const { return head_; }

private:
    using Node = CDataListNode<T>;

    // The slot for entry count_ + 1, making a new tail node when the last
    // one is full.
    MP4Err reserveSlot(T** slot) {
        if (count_ == UINT32_MAX) return MP4_ERR_OUT_OF_MEMORY;  // no index left
        // A new node when the tail is full (compared, not divided: appends
        // are the hot loop of reading a file).
        if (!tail_ || count_ + 1 - tail_->firstIndex >= blockSize_) {
            Node* node = Node::create(count_ + 1, blockSize_);
            if (!node) return MP4_ERR_OUT_OF_MEMORY;
            if (tail_) tail_->next = node;
            else head_ = node;
            tail_ = node;
        }
        *slot = tail_->entries() + (count_ + 1 - tail_->firstIndex);
        return MP4_OK;
    }

    uint32_t count_ = 0;
    uint32_t blockSize_;
    Node* head_ = nullptr;
    Node* tail_ = nullptr;
    Node* cursor_ = nullptr;
};

}  // namespace quil

#endif
