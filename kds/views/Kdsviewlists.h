// The views of one table, and the kinds that the table makes itself.
//
// Shape      "DV_" names the default view (the table in primary-key order), "VW_" selections,
//            "UV_" unique keys. Before an ordered view is made, one that serves may be found.
// Ownership  The list owns its views.
// Errors     As the views'.
// Cost       FindIndex O(views).
#pragma once

#include "kds/views/Kdsviews.h"

namespace kds {

// Makes the view of a selection, for hosts that derive from TKdsView.
class IKdsViewFactory : public IInterface {
public:
    [[nodiscard]] virtual TOwned<TKdsView> CreateView(TKdsTable* table,
                                                      std::u16string_view name) = 0;
};

class TKdsViewList final : public TKdsActiveList {
public:
    using TKdsActiveList::Items;
    [[nodiscard]] TKdsView* Items(std::int32_t index) const {
        return static_cast<TKdsView*>(TKdsActiveList::Items(index));
    }
    [[nodiscard]] TKdsView* GetItem(std::int32_t index) const { return Items(index); }
    // Raises NameNotFound when absent.
    [[nodiscard]] TKdsView* GetView(std::u16string_view name) const;
    [[nodiscard]] TKdsView* Find(std::u16string_view name) const;
    // The first built view in exactly this order that shows every record.
    [[nodiscard]] TKdsView* FindIndex(std::u16string_view orderBy, TKdsViewOptions include,
                                      TKdsViewOptions exclude) const;
    // A view that enforces a unique key; not switched on.
    TKdsView* MakeIndex(std::u16string_view orderBy, TKdsViewOptions options);
    void Clear() override;
    using TKdsActiveList::Notify;
    void Notify(TNotification* notification) override;
    using TKdsActiveList::Handle;
    void Handle(TNotification* notification) override;
    [[nodiscard]] const char* Inconsistency();

    // Range-for over the views, in list order; good until the list changes.
    class TIterator {
    public:
        explicit TIterator(TKdsItem* const* place) noexcept : fPlace(place) {}
        TKdsView* operator*() const noexcept { return static_cast<TKdsView*>(*fPlace); }
        TIterator& operator++() noexcept {
            ++fPlace;
            return *this;
        }
        friend bool operator==(TIterator, TIterator) = default;
        friend std::ptrdiff_t operator-(TIterator a, TIterator b) noexcept {
            return a.fPlace - b.fPlace;
        }

    private:
        TKdsItem* const* fPlace;
    };
    [[nodiscard]] TIterator begin() const noexcept { return TIterator(fItems.data()); }
    [[nodiscard]] TIterator end() const noexcept { return TIterator(fItems.data() + fCount); }

protected:
    void DoInsert(std::int32_t index, TKdsItem* item) override;
    void DoDelete(std::int32_t index) override;

private:
    friend class TKdsTable;
    explicit TKdsViewList(TKdsTable* table) : TKdsActiveList(table) {}
    ~TKdsViewList() override = default;
};

}  // namespace kds
