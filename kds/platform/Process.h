// What the library asks about its process: the command line and the processors.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kds {

class IProcess {
public:
    virtual ~IProcess() = default;
    // Without the program's name; empty when the system does not tell. Read at each call.
    [[nodiscard]] virtual std::vector<std::u16string> Parameters() = 0;
    [[nodiscard]] virtual std::int32_t ProcessorCount() = 0;  // at least 1
};

[[nodiscard]] IProcess& Process() noexcept;
void SetProcess(IProcess* process) noexcept;  // borrows; nullptr brings back the system's

}  // namespace kds
