// The adaptive arithmetic codec of kind 26 node payloads (read only; NodeArithmeticPayload.h). A 32-bit
// range decoder over a byte stream, most significant byte first, and adaptive frequency models that the
// encoder of those data sets updated in the same way after every symbol.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace HSPC
{

// Symbol frequencies that adapt to the data: every coded symbol adds kIncrement to its count, and all
// counts are halved when the total passes kTotalLimit, which keeps the total below 2^16 and thus the
// decoder's interval per unit of frequency at least 2^8.
class AdaptiveDataModel
{
public:
    static constexpr uint32_t kMaxSymbols = 256;
    static constexpr uint32_t kIncrement = 32;
    static constexpr uint32_t kTotalLimit = 1u << 16;

    // 2 to kMaxSymbols symbols, each with count 1.
    explicit AdaptiveDataModel(uint32_t symbols);
    AdaptiveDataModel() : AdaptiveDataModel(kMaxSymbols) {}

    uint32_t symbols() const { return symbols_; }
    uint32_t total() const { return total_; }
    uint32_t count(uint32_t symbol) const { return counts_[symbol]; }
    // Sum of the counts of the symbols below `symbol`.
    uint32_t cumulative(uint32_t symbol) const;
    // The symbol whose cumulative range holds `target` (below total()).
    uint32_t find(uint32_t target) const;
    void update(uint32_t symbol);

private:
    uint32_t symbols_;
    uint32_t total_;
    std::array<uint32_t, kMaxSymbols> counts_{};
};

class ArithmeticDecoder
{
public:
    static constexpr uint32_t kMinLength = 1u << 24;

    // Starts on `code`; false with "invalid codec buffer size" for an empty buffer and "cannot start
    // decoder" for one shorter than the four bytes the decoder reads first (printed with a newline on
    // standard error).
    bool start(std::span<const uint8_t> code);
    // False when the bytes do not decode under the model: corrupt data.
    bool decode(AdaptiveDataModel& model, uint32_t& symbol);
    // False with "invalid to stop decoder" on standard error when decoding needed more bytes than the
    // buffer has.
    bool stop() const;

private:
    uint8_t nextByte();

    std::span<const uint8_t> code_;
    size_t position_ = 0;
    bool overrun_ = false;
    uint32_t value_ = 0;
    uint32_t length_ = 0;
};

}  // namespace HSPC
