#include "kds/platform/Files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdlib>
#include <system_error>

#include "kds/platform/Errors.h"
#include "kds/platform/Seam.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

static_assert(sizeof(off_t) == 8, "swap files and table files may pass 2 GiB");

[[noreturn]] void FileError(std::u16string_view action, std::u16string_view name, int error) {
    const std::string reason = std::generic_category().message(error);
    throw EStreamError(Format(u"Cannot %s \"%s\": %s", {action, name, ToUtf16(reason)}));
}

// Repeats a system call that a signal has interrupted.
template <typename F>
auto Retried(F call) {
    for (;;) {
        const auto result = call();
        if (result >= 0 || errno != EINTR) return result;
    }
}

// The name as the system takes it. A zero inside would silently name another file.
std::string SystemName(std::u16string_view action, std::u16string_view name) {
    if (name.find(u'\0') != std::u16string_view::npos) FileError(action, name, EINVAL);
    return ToUtf8(name);
}

class TSystemFile final : public IFile {
public:
    // Takes a name for its messages first, so that nothing can fail once the file is open.
    explicit TSystemFile(std::u16string_view name) : fName(name) {}
    TSystemFile(const TSystemFile&) = delete;
    TSystemFile& operator=(const TSystemFile&) = delete;
    ~TSystemFile() override {
        if (fDescriptor >= 0) ::close(fDescriptor);  // never again: the number may be in use
    }

    void Open(std::u16string_view action, int flags) {
        const std::string name = SystemName(action, fName);
        fDescriptor = Retried([&] { return ::open(name.c_str(), flags | O_CLOEXEC, 0600); });
        if (fDescriptor < 0) FileError(action, fName, errno);
    }

    std::int64_t Size() override {
        struct stat status {};
        if (::fstat(fDescriptor, &status) != 0) FileError(u"examine", fName, errno);
        return status.st_size;
    }

    std::size_t ReadAt(std::int64_t offset, std::span<std::byte> target) override {
        std::size_t done = 0;
        while (done < target.size()) {
            const ssize_t count = Retried([&] {
                return ::pread(fDescriptor, target.data() + done, target.size() - done,
                               offset + static_cast<std::int64_t>(done));
            });
            if (count < 0) FileError(u"read", fName, errno);
            if (count == 0) break;
            done += static_cast<std::size_t>(count);
        }
        return done;
    }

    void WriteAt(std::int64_t offset, std::span<const std::byte> source) override {
        std::size_t done = 0;
        while (done < source.size()) {
            const ssize_t count = Retried([&] {
                return ::pwrite(fDescriptor, source.data() + done, source.size() - done,
                                offset + static_cast<std::int64_t>(done));
            });
            if (count <= 0) FileError(u"write", fName, count < 0 ? errno : ENOSPC);
            done += static_cast<std::size_t>(count);
        }
    }

    void Truncate(std::int64_t size) override {
        if (Retried([&] { return ::ftruncate(fDescriptor, size); }) != 0) {
            FileError(u"resize", fName, errno);
        }
    }

    void Sync() override {
        if (Retried([&] { return ::fsync(fDescriptor); }) != 0) FileError(u"sync", fName, errno);
    }

private:
    std::u16string fName;
    int fDescriptor = -1;
};

std::unique_ptr<IFile> OpenFile(std::u16string_view action, std::u16string_view name, int flags) {
    auto file = std::make_unique<TSystemFile>(name);
    file->Open(action, flags);
    return file;
}

class TSystemFiles final : public IFileSystem {
public:
    std::u16string TemporaryFolder() override {
        const char* const folder = std::getenv("TMPDIR");
        return folder != nullptr && *folder != '\0' ? ToUtf16(folder) : u"/tmp";
    }

    // Process, moment and a counter: two processes, two runs and two calls differ. What still
    // collides is met by CreateExclusive.
    std::u16string UniqueName(std::u16string_view folder, std::u16string_view prefix) override {
        static std::atomic<std::uint64_t> counter{0};
        std::u16string base(folder);
        if (!base.empty() && base.back() != u'/') base += u'/';
        base += prefix;
        AppendHex(base, static_cast<std::uint64_t>(::getpid()));
        for (;;) {
            const auto now = std::chrono::system_clock::now().time_since_epoch().count();
            std::u16string name = base + u'-';
            AppendHex(name, static_cast<std::uint64_t>(now));
            name += u'-';
            AppendHex(name, counter.fetch_add(1, std::memory_order_relaxed));
            const std::string systemName = SystemName(u"find a name like", name);
            struct stat status {};
            if (::lstat(systemName.c_str(), &status) == 0) continue;
            if (errno != ENOENT) FileError(u"find a name like", name, errno);
            return name;
        }
    }

    std::unique_ptr<IFile> CreateExclusive(std::u16string_view name) override {
        return OpenFile(u"create", name, O_RDWR | O_CREAT | O_EXCL);
    }
    std::unique_ptr<IFile> OpenRead(std::u16string_view name) override {
        return OpenFile(u"open", name, O_RDONLY);
    }
    void Remove(std::u16string_view name) override {
        const std::string systemName = SystemName(u"remove", name);
        if (::unlink(systemName.c_str()) != 0 && errno != ENOENT) {
            FileError(u"remove", name, errno);
        }
    }
    void Rename(std::u16string_view from, std::u16string_view to) override {
        const std::string source = SystemName(u"rename", from);
        const std::string target = SystemName(u"rename to", to);
        if (::rename(source.c_str(), target.c_str()) != 0) FileError(u"rename", from, errno);
    }

private:
    static void AppendHex(std::u16string& text, std::uint64_t value) {
        char digits[16];
        const char* const end = std::to_chars(digits, digits + sizeof digits, value, 16).ptr;
        text.append(static_cast<const char*>(digits), end);
    }
};

constinit TSeam<IFileSystem, TSystemFiles> seam;

}  // namespace

IFileSystem& FileSystem() noexcept { return seam.Get(); }
void SetFileSystem(IFileSystem* system) noexcept { seam.Set(system); }

}  // namespace kds
