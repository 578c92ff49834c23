// Integers and texts that tell their kind and width, mixed with plain bytes, through a buffer.
//
// Shape      An integer is one byte where it is small (-64 to 127), else a tag and 2, 4 or 8 bytes;
//            always the shortest form. A text is a tag, its length and its characters: one byte
//            each where all of them are 7-bit, else two. docs/formats.md shows the bytes.
// Units      Lengths of texts are characters; positions are those of the stream.
// Ownership  Borrows the stream.
// Errors     EStreamError; the reader's Position is then where the item that is wrong begins. The
//            reader asks the stream for its size first and believes no length beyond it, so it
//            never takes more memory than there are bytes.
// Validity   What Take and Claim answer is good until the next call.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "kds/platform/Stream.h"

namespace kds {

inline constexpr std::size_t TagBufferSize = 64 * 1024;

class TTagWriter {
public:
    explicit TTagWriter(TStream& stream);
    void WriteInteger(std::int64_t value) {
        if (value >= -64 && value < 128) {
            WriteByte(static_cast<std::uint8_t>(value + 64));
        } else {
            WriteWide(value);
        }
    }
    void WriteString(std::u16string_view text);
    void WriteByte(std::uint8_t value) { *Claim(1) = static_cast<std::byte>(value); }
    void WriteRaw(std::span<const std::byte> bytes);
    // So many bytes, at most those of the buffer, for the caller to fill.
    [[nodiscard]] std::byte* Claim(std::size_t size) {
        if (TagBufferSize - fUsed < size) Flush();
        std::byte* const place = fBuffer.get() + fUsed;
        fUsed += size;
        return place;
    }
    // Nothing is complete before it.
    void Flush();

private:
    void WriteWide(std::int64_t value);

    TStream& fStream;
    std::unique_ptr<std::byte[]> fBuffer;
    std::size_t fUsed = 0;
};

class TTagReader {
public:
    explicit TTagReader(TStream& stream);
    [[nodiscard]] std::int64_t ReadInteger(
        std::int64_t lowest = std::numeric_limits<std::int64_t>::min(),
        std::int64_t highest = std::numeric_limits<std::int64_t>::max());
    [[nodiscard]] std::u16string ReadString();
    [[nodiscard]] std::uint8_t ReadByte() { return static_cast<std::uint8_t>(Take(1)[0]); }
    [[nodiscard]] std::span<const std::byte> Take(std::size_t size) {
        fItem = Here();
        return Next(size);
    }
    [[nodiscard]] std::int64_t Remaining() const noexcept { return fEnd - Here(); }
    // Where the item begins that was read last.
    [[nodiscard]] std::int64_t Position() const noexcept { return fItem; }
    // Puts the stream behind what was read, for it has been asked for more.
    void GiveBack() { fStream.Seek(Here()); }

private:
    [[nodiscard]] std::int64_t Here() const noexcept {
        return fFilledTo - static_cast<std::int64_t>(fFilled - fUsed);
    }
    [[nodiscard]] std::span<const std::byte> Next(std::size_t size) {
        if (fFilled - fUsed < size) return Fill(size);
        const std::byte* const place = fBuffer.get() + fUsed;
        fUsed += size;
        return {place, size};
    }
    [[nodiscard]] std::span<const std::byte> Fill(std::size_t size);
    void ReadFully(std::span<std::byte> target);

    TStream& fStream;
    std::unique_ptr<std::byte[]> fBuffer;
    std::size_t fUsed = 0;
    std::size_t fFilled = 0;
    std::int64_t fEnd;
    std::int64_t fFilledTo;  // the stream's position behind what the buffer holds
    std::int64_t fItem;
    std::vector<std::byte> fLong;  // of an item that the buffer cannot hold
};

}  // namespace kds
