// Streams of bytes: in memory, in files, and whatever else a host derives from TStream.
//
// Shape      A stream has a size and a position at which the next bytes are read or written.
// Units      Positions and sizes are bytes, 64-bit.
// Ownership  A file stream owns its file; a memory stream its bytes.
// Errors     EStreamError. Read answers fewer bytes than asked for at the end and nowhere else.
// Cost       Every call of a file stream is one call of the system: write through a buffer.
// Threads    One thread at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "kds/platform/Files.h"

namespace kds {

class TStream {
public:
    virtual ~TStream() = default;
    [[nodiscard]] virtual std::size_t Read(std::span<std::byte> target) = 0;
    virtual void Write(std::span<const std::byte> source) = 0;
    [[nodiscard]] virtual std::int64_t Size() = 0;
    [[nodiscard]] std::int64_t Position() const noexcept { return fPosition; }
    // Anywhere from 0 on; a position behind the end is that of the next write.
    void Seek(std::int64_t position);

protected:
    TStream() = default;
    TStream(const TStream&) = default;
    TStream& operator=(const TStream&) = default;
    std::int64_t fPosition = 0;
};

class TMemoryStream final : public TStream {
public:
    TMemoryStream() = default;
    explicit TMemoryStream(std::vector<std::byte> bytes) noexcept : fBytes(std::move(bytes)) {}
    [[nodiscard]] std::size_t Read(std::span<std::byte> target) override;
    void Write(std::span<const std::byte> source) override;
    [[nodiscard]] std::int64_t Size() override { return static_cast<std::int64_t>(fBytes.size()); }
    [[nodiscard]] const std::vector<std::byte>& Bytes() const noexcept { return fBytes; }

private:
    std::vector<std::byte> fBytes;
};

class TFileStream final : public TStream {
public:
    explicit TFileStream(std::unique_ptr<IFile> file) noexcept : fFile(std::move(file)) {}
    [[nodiscard]] std::size_t Read(std::span<std::byte> target) override;
    void Write(std::span<const std::byte> source) override;
    [[nodiscard]] std::int64_t Size() override { return fFile->Size(); }
    void Sync() { fFile->Sync(); }

private:
    std::unique_ptr<IFile> fFile;
};

}  // namespace kds
