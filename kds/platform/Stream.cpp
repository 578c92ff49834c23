#include "kds/platform/Stream.h"

#include <algorithm>
#include <cstring>

#include "kds/platform/Errors.h"

namespace kds {

void TStream::Seek(std::int64_t position) {
    if (position < 0) throw EStreamError(u"A stream has no position before its start");
    fPosition = position;
}

std::size_t TMemoryStream::Read(std::span<std::byte> target) {
    const auto start = std::min(static_cast<std::size_t>(fPosition), fBytes.size());
    const std::size_t count = std::min(target.size(), fBytes.size() - start);
    if (count > 0) std::memcpy(target.data(), fBytes.data() + start, count);
    fPosition += static_cast<std::int64_t>(count);
    return count;
}

void TMemoryStream::Write(std::span<const std::byte> source) {
    if (source.empty()) return;
    const auto start = static_cast<std::size_t>(fPosition);
    if (fBytes.size() < start + source.size()) fBytes.resize(start + source.size());
    std::memcpy(fBytes.data() + start, source.data(), source.size());
    fPosition += static_cast<std::int64_t>(source.size());
}

std::size_t TFileStream::Read(std::span<std::byte> target) {
    const std::size_t count = fFile->ReadAt(fPosition, target);
    fPosition += static_cast<std::int64_t>(count);
    return count;
}

void TFileStream::Write(std::span<const std::byte> source) {
    fFile->WriteAt(fPosition, source);
    fPosition += static_cast<std::int64_t>(source.size());
}

}  // namespace kds
