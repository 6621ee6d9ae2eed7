// One zstd frame around a whole buffer, the form in which tree bodies and tree comments are stored.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace HSPC
{

// Appends `input` compressed at `level` as one frame to `output`. False, with zstd's reason in `error`, when
// zstd fails.
bool appendZstdFrame(std::span<const uint8_t> input, int level, std::vector<uint8_t>& output, std::string& error);

// Inflates the single frame `frame` into `output` (replacing its content); it must fill exactly
// `declaredSize` bytes and use every input byte. The output grows with what the frame really yields, never
// ahead of it by more than a step, so a size field that lies costs no memory; a frame that asks for a window
// larger than any writer of ours uses is refused. False with the reason in `error`.
bool inflateZstdFrame(std::span<const uint8_t> frame, uint64_t declaredSize, std::vector<uint8_t>& output,
                      std::string& error);

}  // namespace HSPC
