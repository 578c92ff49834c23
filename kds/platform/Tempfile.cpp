#include "kds/platform/Tempfile.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>
#include <utility>
#include <vector>

namespace kds {
namespace {

// The files that stand. Never destroyed: stores that are static themselves end after the hook.
struct TStanding {
    std::mutex Lock;
    std::vector<std::pair<pid_t, std::u16string>> Names;
};

// A child that was forked has no right to its parent's files.
void RemoveStanding() noexcept;

TStanding& Standing() {
    static TStanding* const standing = [] {
        auto* const made = new TStanding;
        std::atexit([] { RemoveStanding(); });
        return made;
    }();
    return *standing;
}

void RemoveStanding() noexcept {
    TStanding& standing = Standing();
    const std::scoped_lock lock(standing.Lock);
    for (const auto& [process, name] : standing.Names) {
        if (process != ::getpid()) continue;
        try {
            FileSystem().Remove(name);
        } catch (...) {
        }
    }
}

void Forget(const std::u16string& name) noexcept {
    TStanding& standing = Standing();
    const std::scoped_lock lock(standing.Lock);
    std::erase_if(standing.Names, [&](const auto& entry) { return entry.second == name; });
}

}  // namespace

// Known to the hook before it exists, so that nothing can come between.
TTemporaryFile::TTemporaryFile(std::u16string_view prefix) {
    IFileSystem& files = FileSystem();
    fName = files.UniqueName(files.TemporaryFolder(), prefix);
    {
        TStanding& standing = Standing();
        const std::scoped_lock lock(standing.Lock);
        standing.Names.emplace_back(::getpid(), fName);
    }
    try {
        fFile = files.CreateExclusive(fName);
    } catch (...) {
        Forget(fName);
        throw;
    }
}

TTemporaryFile::~TTemporaryFile() {
    try {
        Remove();
    } catch (...) {
        // The hook has its name.
    }
}

void TTemporaryFile::Remove() {
    if (fFile == nullptr) return;
    fFile.reset();
    FileSystem().Remove(fName);
    Forget(fName);
}

}  // namespace kds
