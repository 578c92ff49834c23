#include "kds/platform/Process.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <memory>
#include <thread>

#include "kds/platform/Seam.h"
#include "kds/platform/Text.h"

namespace kds {
namespace {

// Empty when it cannot be read: then there are no parameters.
std::string CommandLine() {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
        std::fopen("/proc/self/cmdline", "rbe"), &std::fclose);
    std::string line;
    if (file == nullptr) return line;
    char block[4096];
    for (std::size_t count; (count = std::fread(block, 1, sizeof block, file.get())) > 0;) {
        line.append(block, count);
    }
    return line;
}

class TSystemProcess final : public IProcess {
public:
    // A library is not handed the arguments of main, so it asks the system for them.
    std::vector<std::u16string> Parameters() override {
        const std::string line = CommandLine();
        std::vector<std::u16string> parameters;
        // Each argument ends in a zero; the first one is the program's name.
        std::size_t at = std::min(line.find('\0'), line.size());
        while (at + 1 < line.size()) {
            const std::size_t first = at + 1;
            at = std::min(line.find('\0', first), line.size());
            parameters.push_back(ToUtf16(std::string_view(line).substr(first, at - first)));
        }
        return parameters;
    }

    std::int32_t ProcessorCount() override {
        // 0 when the system does not tell.
        constexpr unsigned most = std::numeric_limits<std::int32_t>::max();
        return static_cast<std::int32_t>(std::clamp(std::thread::hardware_concurrency(), 1u, most));
    }
};

constinit TSeam<IProcess, TSystemProcess> seam;

}  // namespace

IProcess& Process() noexcept { return seam.Get(); }
void SetProcess(IProcess* process) noexcept { seam.Set(process); }

}  // namespace kds
