// Where a watch pass looks first: a data file is compared with its private
// copy in fixed blocks, and a table made once per process maps each block
// to the first record that reaches into it, so that only the records of
// the blocks that differ are walked.  Offsets follow the catalogue layout
// (a record's offset, when set-up found it good, is exactly this one).
#pragma once

#include <cstdint>
#include <span>

namespace cm::watch {

inline constexpr uint32_t kBlockSize = 512;

// Sets `out` to the indexes of the blocks of [0, len) in which the mapping
// `mapped` and the copy `copy` differ, ascending; the span lives in the
// calling thread's scratch space until its next call.  False when the file
// was cut under the mapping (nothing else is then defined).
bool differingBlocks(const uint8_t* mapped, const uint8_t* copy, uint32_t len, std::span<const uint32_t>& out);

// The first record of file i whose bytes reach into block `block`; the
// file's record count when none does.
int firstRecordOfBlock(int iFileIndex, uint32_t block);
// The offset of record `rel` of file i by the catalogue layout.
uint32_t layoutOffset(int iFileIndex, int rel);

}  // namespace cm::watch
