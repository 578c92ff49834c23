// A file of the process's own in the user's temporary folder, which goes when its object goes.
//
// Shape      Created exclusively, readable by the owner alone, closed on exec. Files still open
//            when the process exits are removed by one hook; one that is killed leaves its files.
// Ownership  Owns the open file and its name.
// Errors     EStreamError when the file cannot be made; Remove raises it when the file is closed
//            but stays behind, and the exit hook then tries once more.
// Threads    Several objects may be used by several threads, each by one at a time.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "kds/platform/Files.h"

namespace kds {

class TTemporaryFile {
public:
    explicit TTemporaryFile(std::u16string_view prefix);
    ~TTemporaryFile();
    TTemporaryFile(const TTemporaryFile&) = delete;
    TTemporaryFile& operator=(const TTemporaryFile&) = delete;
    [[nodiscard]] const std::u16string& Name() const noexcept { return fName; }
    [[nodiscard]] IFile& File() noexcept { return *fFile; }
    // Closes the file and removes it; at most once, the destructor does it otherwise.
    void Remove();

private:
    std::u16string fName;
    std::unique_ptr<IFile> fFile;
};

}  // namespace kds
