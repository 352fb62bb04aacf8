#include "watch/block_map.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "catalogue/catalogue.h"
#include "storage/file_state.h"
#include "storage/map_guard.h"

namespace cm::watch {
namespace {

struct Layout {
    std::vector<uint32_t> offset[storage::kNumFiles];     // by relative ID
    std::vector<int> firstRecord[storage::kNumFiles];     // by block
    size_t maxBlocks = 0;
};

// Made on first use (by the first diff, not at start-up); immutable after.
// Never destroyed: a process may exit while its watch thread is diffing.
const Layout& layout() {
    static const Layout& l = *[] {
        auto* made = new Layout;
        Layout& out = *made;
        for (int i = 0; i < storage::kNumFiles; ++i) {
            const auto& file = catalogue::sConfigItemList[i];
            auto& off = out.offset[i];
            uint32_t at = storage::kHeaderSize;
            for (int r = 0; r < file.iNumItems; ++r) {
                off.push_back(at);
                at += storage::kRecordHeader + file.pItems[r].wDataSize;
            }
            const size_t blocks = at / kBlockSize + 1;
            out.maxBlocks = std::max(out.maxBlocks, blocks);
            auto& first = out.firstRecord[i];
            int r = 0;
            for (size_t b = 0; b < blocks; ++b) {
                // Skip the records that end at or before the block's start.
                const uint64_t start = b * kBlockSize;
                while (r < file.iNumItems && off[static_cast<size_t>(r)] + storage::kRecordHeader +
                                                     file.pItems[r].wDataSize <= start)
                    ++r;
                first.push_back(r);
            }
        }
        return made;
    }();
    return l;
}

}  // namespace

bool differingBlocks(const uint8_t* mapped, const uint8_t* copy, uint32_t len, std::span<const uint32_t>& out) {
    // An unchanged file is the common case: one comparison settles it.
    int whole = 0;
    if (!storage::guardedCompare(mapped, copy, len, whole)) return false;
    out = {};
    if (whole == 0) return true;
    thread_local std::vector<uint32_t> scratch;
    const size_t blocks = len / kBlockSize + 1;
    if (scratch.size() < blocks) scratch.resize(std::max(blocks, layout().maxBlocks));
    // Each guarded comparison costs a jump-buffer set-up: spans of 16
    // blocks are compared first, and only a span that differs block by block.
    constexpr uint32_t kSpan = 16 * kBlockSize;
    size_t n = 0;
    for (uint32_t span = 0; span < len; span += kSpan) {
        const uint32_t spanEnd = std::min(len, span + kSpan);
        int diff = 0;
        if (!storage::guardedCompare(mapped + span, copy + span, spanEnd - span, diff)) return false;
        if (diff == 0) continue;
        for (uint32_t start = span; start < spanEnd; start += kBlockSize) {
            if (!storage::guardedCompare(mapped + start, copy + start, std::min(kBlockSize, spanEnd - start), diff))
                return false;
            if (diff != 0) scratch[n++] = start / kBlockSize;
        }
    }
    out = {scratch.data(), n};
    return true;
}

int firstRecordOfBlock(int i, uint32_t block) {
    const auto& first = layout().firstRecord[i];
    return block < first.size() ? first[block] : catalogue::sConfigItemList[i].iNumItems;
}

uint32_t layoutOffset(int i, int rel) { return layout().offset[i][static_cast<size_t>(rel)]; }

}  // namespace cm::watch
