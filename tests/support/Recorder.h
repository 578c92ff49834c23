// Writes down the notifications that pass an item, and refuses or meddles on demand.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kds/core/Kdsstores.h"
#include "kds/core/Kdstables.h"
#include "kds/platform/Text.h"
#include "kds/views/Kdsviewlists.h"

namespace kds::support {

using TLines = std::vector<std::string>;

[[nodiscard]] inline std::string NameOf(const TKdsItem* item) {
    if (const auto* const name = dynamic_cast<const TKdsName*>(item)) return ToUtf8(name->Name());
    if (const auto* const record = dynamic_cast<const TKdsRecord*>(item)) {
        return "row" + (record->RowID() == NoRowID ? "?" : std::to_string(record->RowID()));
    }
    return item == nullptr ? "nil" : "list";
}

// The elements of a list, in order.
[[nodiscard]] inline TLines NamesOf(const TKdsList* list) {
    TLines names;
    for (std::int32_t i = 0; i < list->Count(); ++i) names.push_back(NameOf(list->Items(i)));
    return names;
}

// "acPrepareInsert a @0": the action, whom it is about, and the position.
[[nodiscard]] inline std::string LineOf(const TNotification& notification) {
    static constexpr const char* Actions[] = {
        "acObjectDestroy", "acPrepareInsert", "acConfirmInsert", "acPrepareDelete",
        "acConfirmDelete", "acPrepareRename", "acConfirmRename", "acPrepareUpdate",
        "acConfirmUpdate", "acStatusChanged"};
    const TKdsItem* const about =
        notification.Target != nullptr ? notification.Target : notification.Sender;
    return std::string(Actions[static_cast<std::size_t>(notification.Action)]) + " " +
           NameOf(about) + " @" + std::to_string(notification.Index);
}

struct TRecorder {
    TLines Lines;
    // Runs when the line has been written; what it raises goes to the sender.
    std::function<void(const TNotification&)> OnNote;

    void Note(const std::string& prefix, const TNotification& notification) {
        Lines.push_back(prefix + LineOf(notification));
        if (OnNote) OnNote(notification);
    }
    void Refuse(TKdsAction action) {
        OnNote = [action](const TNotification& notification) {
            if (notification.Action == action) throw EKdsError(u"refused");
        };
    }
    [[nodiscard]] TLines Take() { return std::exchange(Lines, {}); }
};

// An item of class B that writes down what climbs through it and, as "name < ...", what it is
// handed on the way down.
template <typename B>
class TRecording final : public B {
public:
    template <typename... A>
    [[nodiscard]] static TOwned<TRecording> Create(TRecorder* recorder, A&&... arguments) {
        TOwned<TRecording> item(new TRecording(recorder, std::forward<A>(arguments)...));
        if constexpr (std::is_base_of_v<TKdsTable, B>) item->Init();
        return item;
    }
    using B::Notify;
    void Notify(TNotification* notification) override {
        fRecorder->Note("", *notification);
        B::Notify(notification);
    }
    void Handle(TNotification* notification) override {
        if (fRecordsHandle) fRecorder->Note(NameOf(this) + " < ", *notification);
        B::Handle(notification);
    }
    void RecordHandle() { fRecordsHandle = true; }

private:
    template <typename... A>
    explicit TRecording(TRecorder* recorder, A&&... arguments)
        : B(std::forward<A>(arguments)...), fRecorder(recorder) {}
    ~TRecording() override = default;

    TRecorder* fRecorder;
    bool fRecordsHandle = false;
};

// The message of the exception that `operation` raises.
template <typename F>
[[nodiscard]] std::string Refusal(F&& operation) {
    try {
        operation();
    } catch (const Exception& error) {
        return error.what();
    }
    return "nothing raised";
}

}  // namespace kds::support
