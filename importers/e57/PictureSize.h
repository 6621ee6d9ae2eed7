#pragma once

#include <cstdint>
#include <optional>
#include <span>

namespace pc_preprocess
{

// The size in pixels that a picture declares in its header.
struct PictureSize
{
    uint64_t width = 0;
    uint64_t height = 0;
};

// The size a PNG (its IHDR chunk) or JPEG (its first start-of-frame segment) declares, read from the header
// alone, so that a picture can be refused before a decoder allocates for it. Nothing for bytes of any other
// kind, or a header cut short. A JPEG whose height comes later (a DNL segment) declares height 0.
std::optional<PictureSize> declaredPictureSize(std::span<const uint8_t> bytes);

}  // namespace pc_preprocess
