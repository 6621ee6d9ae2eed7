#include "hspc/format/AdaptiveArithmeticDecoder.h"

#include <algorithm>
#include <cstdio>

namespace HSPC
{

AdaptiveDataModel::AdaptiveDataModel(uint32_t symbols) : symbols_(symbols), total_(symbols)
{
    for (uint32_t s = 0; s < symbols_; ++s)
    {
        counts_[s] = 1;
    }
}

uint32_t AdaptiveDataModel::cumulative(uint32_t symbol) const
{
    uint32_t sum = 0;
    for (uint32_t s = 0; s < symbol; ++s)
    {
        sum += counts_[s];
    }
    return sum;
}

uint32_t AdaptiveDataModel::find(uint32_t target) const
{
    uint32_t sum = 0;
    for (uint32_t s = 0; s + 1 < symbols_; ++s)
    {
        sum += counts_[s];
        if (target < sum)
        {
            return s;
        }
    }
    return symbols_ - 1;
}

void AdaptiveDataModel::update(uint32_t symbol)
{
    counts_[symbol] += kIncrement;
    total_ += kIncrement;
    if (total_ > kTotalLimit)
    {
        total_ = 0;
        for (uint32_t s = 0; s < symbols_; ++s)
        {
            counts_[s] = (counts_[s] + 1) / 2;
            total_ += counts_[s];
        }
    }
}

bool ArithmeticDecoder::start(std::span<const uint8_t> code)
{
    if (code.empty())
    {
        std::fprintf(stderr, "%s\n", "invalid codec buffer size");
        return false;
    }
    if (code.size() < 4)
    {
        std::fprintf(stderr, "%s\n", "cannot start decoder");
        return false;
    }
    code_ = code;
    position_ = 0;
    overrun_ = false;
    length_ = ~uint32_t(0);
    value_ = 0;
    for (int i = 0; i < 4; ++i)
    {
        value_ = (value_ << 8) | nextByte();
    }
    return true;
}

uint8_t ArithmeticDecoder::nextByte()
{
    if (position_ < code_.size())
    {
        return code_[position_++];
    }
    // The encoder flushes four bytes, which covers every byte the decoder asks for; past them only a
    // corrupt stream reads on. Zeros keep the arithmetic defined until stop() reports it.
    overrun_ = true;
    return 0;
}

bool ArithmeticDecoder::decode(AdaptiveDataModel& model, uint32_t& symbol)
{
    // A valid stream keeps the value inside the interval; the last symbol also owns the rounding remainder
    // at the interval's top, hence the clamp.
    if (value_ >= length_)
    {
        return false;
    }
    const uint32_t unit = length_ / model.total();
    const uint32_t target = std::min(value_ / unit, model.total() - 1);
    symbol = model.find(target);
    const uint32_t low = model.cumulative(symbol) * unit;
    value_ -= low;
    length_ = symbol + 1 == model.symbols() ? length_ - low : model.count(symbol) * unit;
    while (length_ < kMinLength)
    {
        value_ = (value_ << 8) | nextByte();
        length_ <<= 8;
    }
    model.update(symbol);
    return true;
}

bool ArithmeticDecoder::stop() const
{
    if (overrun_)
    {
        std::fprintf(stderr, "%s\n", "invalid to stop decoder");
        return false;
    }
    return true;
}

}  // namespace HSPC
