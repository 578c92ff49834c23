// Rows, positions and events as the demo prints them.
#pragma once

#include <string>
#include <utility>

#include "examples/world/Terminal.h"
#include "kds/kds.h"

namespace world {

inline std::string Cell(kds::TKdsRecord* row, std::u16string_view column) {
    const std::string text = kds::ToUtf8(row->Format(column));
    return text.empty() ? "-" : text;
}

inline std::string At(std::int32_t position) {
    return position < 0 ? "none" : "#" + std::to_string(position);
}

// A link writes down what it hears. Events come when all views have placed the row.
class TListener final : public kds::TKdsViewLink {
public:
    TListener(TSheet* heard, std::string name) : fHeard(heard), fName(std::move(name)) {}
    void HandleEvent(kds::TKdsEvent* event) override {
        const auto reason = static_cast<std::size_t>(event->Reason);
        kds::TKdsRecord* const row = event->Origin;
        fHeard->Row({fName, Reasons[reason], row == nullptr ? "" : At(event->OldRow),
                     row == nullptr ? "" : At(event->NewRow),
                     row == nullptr ? "" : Cell(row, u"Zone")});
    }
    void Name(std::string name) { fName = std::move(name); }

private:
    static constexpr const char* Reasons[] = {"evSourceChange", "evStatusChange", "evFieldsChange",
                                              "evRecordInsert", "evRecordDelete", "evRecordUpdate",
                                              "evRecordSignal"};

    TSheet* fHeard;
    std::string fName;
};

}  // namespace world
