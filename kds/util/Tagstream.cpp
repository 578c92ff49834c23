#include "kds/util/Tagstream.h"

#include <algorithm>
#include <cstring>

#include "kds/platform/Bytes.h"
#include "kds/platform/Errors.h"

namespace kds {
namespace {

// Tags. Those below tagInteger16 are small integers, from -64 on.
constexpr std::uint8_t tagInteger16 = 0xc0;
constexpr std::uint8_t tagInteger32 = 0xc1;
constexpr std::uint8_t tagInteger64 = 0xc2;
constexpr std::uint8_t tagNarrow8 = 0xd0;   // 7-bit characters, 8-bit length
constexpr std::uint8_t tagNarrow32 = 0xd1;  // the same, 32-bit length
constexpr std::uint8_t tagWide8 = 0xd2;     // 16-bit characters, 8-bit length
constexpr std::uint8_t tagWide32 = 0xd3;

constexpr bool IsSmall(std::int64_t value) noexcept { return value >= -64 && value < 128; }

template <typename T>
constexpr bool Fits(std::int64_t value) noexcept {
    return value >= std::numeric_limits<T>::min() && value <= std::numeric_limits<T>::max();
}

[[noreturn]] void RaiseEnd() { throw EStreamError(u"The stream ends too early"); }
[[noreturn]] void RaiseTag() { throw EStreamError(u"An item of another kind"); }
[[noreturn]] void RaiseForm() { throw EStreamError(u"An item that is not in its shortest form"); }

}  // namespace

// ---- Writing ------------------------------------------------------------------------------

TTagWriter::TTagWriter(TStream& stream)
    : fStream(stream), fBuffer(std::make_unique_for_overwrite<std::byte[]>(TagBufferSize)) {}

void TTagWriter::WriteWide(std::int64_t value) {
    const auto write = [&]<typename T>(std::uint8_t tag, T number) {
        std::byte* const place = Claim(1 + sizeof(T));
        *place = static_cast<std::byte>(tag);
        StoreRaw(place + 1, number);
    };
    if (Fits<std::int16_t>(value)) {
        write(tagInteger16, static_cast<std::int16_t>(value));
    } else if (Fits<std::int32_t>(value)) {
        write(tagInteger32, static_cast<std::int32_t>(value));
    } else {
        write(tagInteger64, value);
    }
}

void TTagWriter::WriteString(std::u16string_view text) {
    if (text.size() > std::numeric_limits<std::uint32_t>::max()) {
        throw EStreamError(u"A text is too long for a stream");
    }
    const bool isNarrow = std::ranges::all_of(text, [](char16_t c) { return c < 128; });
    if (text.size() < 256) {
        WriteByte(isNarrow ? tagNarrow8 : tagWide8);
        WriteByte(static_cast<std::uint8_t>(text.size()));
    } else {
        WriteByte(isNarrow ? tagNarrow32 : tagWide32);
        StoreRaw(Claim(4), static_cast<std::uint32_t>(text.size()));
    }
    for (const char16_t c : text) {
        if (isNarrow) {
            WriteByte(static_cast<std::uint8_t>(c));
        } else {
            StoreRaw(Claim(2), c);
        }
    }
}

void TTagWriter::WriteRaw(std::span<const std::byte> bytes) {
    if (bytes.empty()) return;
    if (bytes.size() <= TagBufferSize) {
        std::memcpy(Claim(bytes.size()), bytes.data(), bytes.size());
        return;
    }
    Flush();
    fStream.Write(bytes);
}

void TTagWriter::Flush() {
    if (fUsed == 0) return;
    fStream.Write({fBuffer.get(), fUsed});
    fUsed = 0;
}

// ---- Reading ------------------------------------------------------------------------------

TTagReader::TTagReader(TStream& stream)
    : fStream(stream),
      fBuffer(std::make_unique_for_overwrite<std::byte[]>(TagBufferSize)),
      fEnd(std::max(stream.Size(), stream.Position())),
      fFilledTo(stream.Position()),
      fItem(fFilledTo) {}

std::int64_t TTagReader::ReadInteger(std::int64_t lowest, std::int64_t highest) {
    fItem = Here();
    const auto tag = static_cast<std::uint8_t>(Next(1)[0]);
    std::int64_t value = tag - 64;
    if (tag == tagInteger16) {
        value = LoadRaw<std::int16_t>(Next(2).data());
        if (IsSmall(value)) RaiseForm();
    } else if (tag == tagInteger32) {
        value = LoadRaw<std::int32_t>(Next(4).data());
        if (Fits<std::int16_t>(value)) RaiseForm();
    } else if (tag == tagInteger64) {
        value = LoadRaw<std::int64_t>(Next(8).data());
        if (Fits<std::int32_t>(value)) RaiseForm();
    } else if (tag > tagInteger64) {
        RaiseTag();
    }
    if (value < lowest || value > highest) throw EStreamError(u"A number out of its range");
    return value;
}

std::u16string TTagReader::ReadString() {
    fItem = Here();
    const auto tag = static_cast<std::uint8_t>(Next(1)[0]);
    if (tag < tagNarrow8 || tag > tagWide32) RaiseTag();
    const bool isLong = tag == tagNarrow32 || tag == tagWide32;
    const std::size_t length =
        isLong ? LoadRaw<std::uint32_t>(Next(4).data()) : static_cast<std::uint8_t>(Next(1)[0]);
    if (isLong && length < 256) RaiseForm();
    std::u16string text;
    if (tag == tagWide8 || tag == tagWide32) {
        const auto bytes = Next(length * 2);
        text.resize(length);
        if (length > 0) std::memcpy(text.data(), bytes.data(), bytes.size());
        if (std::ranges::all_of(text, [](char16_t c) { return c < 128; })) RaiseForm();
    } else {
        for (const std::byte byte : Next(length)) {
            if (static_cast<std::uint8_t>(byte) > 127) RaiseTag();
            text += static_cast<char16_t>(byte);
        }
    }
    return text;
}

// Not all of it is in the buffer.
std::span<const std::byte> TTagReader::Fill(std::size_t size) {
    if (static_cast<std::uint64_t>(size) > static_cast<std::uint64_t>(Remaining())) RaiseEnd();
    const std::size_t rest = fFilled - fUsed;
    if (size > TagBufferSize) {
        fLong.resize(size);
        std::memcpy(fLong.data(), fBuffer.get() + fUsed, rest);
        fUsed = fFilled;
        ReadFully(std::span(fLong).subspan(rest));
        return fLong;
    }
    std::memmove(fBuffer.get(), fBuffer.get() + fUsed, rest);
    fUsed = 0;
    fFilled = rest;
    const auto more =
        std::min<std::uint64_t>(TagBufferSize - rest, static_cast<std::uint64_t>(fEnd - fFilledTo));
    ReadFully({fBuffer.get() + rest, static_cast<std::size_t>(more)});
    fFilled = rest + static_cast<std::size_t>(more);
    fUsed = size;
    return {fBuffer.get(), size};
}

// The stream said that it has so many bytes. It may have lost some meanwhile.
void TTagReader::ReadFully(std::span<std::byte> target) {
    if (fStream.Read(target) != target.size()) RaiseEnd();
    fFilledTo += static_cast<std::int64_t>(target.size());
}

}  // namespace kds
