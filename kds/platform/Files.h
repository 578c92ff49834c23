// Files as the library uses them: temporary names and random access, replaceable by a test.
//
// Units      Offsets and sizes are bytes, 64-bit.
// Ownership  Open and CreateExclusive answer an owned file; destroying it closes it.
// Errors     EStreamError, with the system's reason. Read answers fewer bytes only at the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace kds {

class IFile {
public:
    virtual ~IFile() = default;
    [[nodiscard]] virtual std::int64_t Size() = 0;
    [[nodiscard]] virtual std::size_t ReadAt(std::int64_t offset, std::span<std::byte> target) = 0;
    virtual void WriteAt(std::int64_t offset, std::span<const std::byte> source) = 0;
    virtual void Truncate(std::int64_t size) = 0;
    virtual void Sync() = 0;
};

class IFileSystem {
public:
    virtual ~IFileSystem() = default;
    [[nodiscard]] virtual std::u16string TemporaryFolder() = 0;
    // A name in `folder` that no file bears at the moment.
    [[nodiscard]] virtual std::u16string UniqueName(std::u16string_view folder,
                                                    std::u16string_view prefix) = 0;
    // New and empty, refused when the name is taken; readable by the owner alone, closed on exec.
    [[nodiscard]] virtual std::unique_ptr<IFile> CreateExclusive(std::u16string_view name) = 0;
    [[nodiscard]] virtual std::unique_ptr<IFile> OpenRead(std::u16string_view name) = 0;
    virtual void Remove(std::u16string_view name) = 0;  // an absent file is no error
    virtual void Rename(std::u16string_view from, std::u16string_view to) = 0;  // replaces `to`
};

[[nodiscard]] IFileSystem& FileSystem() noexcept;
void SetFileSystem(IFileSystem* system) noexcept;  // borrows; nullptr brings back the system's

}  // namespace kds
