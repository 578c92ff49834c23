// A file system of which one call fails.
//
// Ownership  Takes the place of the system's while it lives; files that it opened must not outlive
//            it.
#pragma once

#include <memory>
#include <string>

#include "kds/platform/Errors.h"
#include "kds/platform/Files.h"

namespace kds::support {

class TFailingFiles final : public IFileSystem {
public:
    enum class TMode {
        Refused,  // nothing has happened
        Short     // half of the bytes were read or written
    };

    explicit TFailingFiles(int nth = 0, std::u16string folder = {})
        : fNth(nth), fFolder(std::move(folder)), fSystem(FileSystem()) {
        SetFileSystem(this);
    }
    ~TFailingFiles() override { SetFileSystem(nullptr); }
    // Counted from now on.
    void FailAt(int nth, TMode mode) {
        fNth = nth;
        fMode = mode;
        fCalls = 0;
    }
    [[nodiscard]] bool Happened() const { return fCalls >= fNth; }
    std::u16string TemporaryFolder() override {
        Count();
        return fFolder.empty() ? fSystem.TemporaryFolder() : fFolder;
    }
    std::u16string UniqueName(std::u16string_view folder, std::u16string_view prefix) override {
        return Do().UniqueName(folder, prefix);
    }
    std::unique_ptr<IFile> CreateExclusive(std::u16string_view name) override {
        return std::make_unique<TFile>(this, Do().CreateExclusive(name));
    }
    std::unique_ptr<IFile> OpenRead(std::u16string_view name) override {
        return std::make_unique<TFile>(this, Do().OpenRead(name));
    }
    void Remove(std::u16string_view name) override { Do().Remove(name); }
    void Rename(std::u16string_view from, std::u16string_view to) override {
        Do().Rename(from, to);
    }

private:
    struct TFile final : IFile {
        TFile(TFailingFiles* files, std::unique_ptr<IFile> file)
            : Files(files), File(std::move(file)) {}
        IFile& Do() { return static_cast<void>(Files->Count()), *File; }
        std::int64_t Size() override { return Do().Size(); }
        std::size_t ReadAt(std::int64_t offset, std::span<std::byte> target) override {
            if (!Files->IsShort()) return Do().ReadAt(offset, target);
            ++Files->fCalls;
            return File->ReadAt(offset, target.first(target.size() / 2));
        }
        void WriteAt(std::int64_t offset, std::span<const std::byte> source) override {
            if (Files->IsShort()) File->WriteAt(offset, source.first(source.size() / 2));
            Do().WriteAt(offset, source);
        }
        void Truncate(std::int64_t size) override { Do().Truncate(size); }
        void Sync() override { Do().Sync(); }
        TFailingFiles* Files;
        std::unique_ptr<IFile> File;
    };
    [[nodiscard]] bool IsShort() const { return fMode == TMode::Short && fCalls + 1 == fNth; }
    void Count() {
        if (++fCalls == fNth) throw EStreamError(u"Disk full");
    }
    IFileSystem& Do() {
        Count();
        return fSystem;
    }

    int fNth, fCalls = 0;
    TMode fMode = TMode::Refused;
    std::u16string fFolder;
    IFileSystem& fSystem;
};

}  // namespace kds::support
