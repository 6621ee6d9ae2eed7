// The encoder that matches HSPC's read-only arithmetic decoder, for tests only: no writer of kind 26 node
// payloads exists any more, so tests build them with this. Same interval arithmetic as the decoder, with
// the carry that an addition to the interval's base can push into bytes already written.
#pragma once

#include <cstdint>
#include <vector>

#include "hspc/format/AdaptiveArithmeticDecoder.h"

namespace pcp_test
{

class ArithmeticEncoder
{
public:
    void encode(HSPC::AdaptiveDataModel& model, uint32_t symbol)
    {
        const uint32_t unit = length_ / model.total();
        const uint32_t low = model.cumulative(symbol) * unit;
        const uint32_t before = base_;
        base_ += low;
        if (base_ < before)
        {
            propagateCarry();
        }
        length_ = symbol + 1 == model.symbols() ? length_ - low : model.count(symbol) * unit;
        while (length_ < HSPC::ArithmeticDecoder::kMinLength)
        {
            bytes_.push_back(uint8_t(base_ >> 24));
            base_ <<= 8;
            length_ <<= 8;
        }
        model.update(symbol);
    }

    // The stream: the bytes so far and the four bytes of the base.
    std::vector<uint8_t> finish()
    {
        std::vector<uint8_t> bytes = bytes_;
        for (int shift = 24; shift >= 0; shift -= 8)
            bytes.push_back(uint8_t(base_ >> shift));
        return bytes;
    }

private:
    void propagateCarry()
    {
        for (size_t i = bytes_.size(); i-- > 0;)
        {
            if (++bytes_[i] != 0)
                return;
        }
    }

    std::vector<uint8_t> bytes_;
    uint32_t base_ = 0;
    uint32_t length_ = ~uint32_t(0);
};

}  // namespace pcp_test
