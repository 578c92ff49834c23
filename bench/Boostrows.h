// The rows of Rows.h in Boost.MultiIndex: a hashed key and one ranked index an order, the id as the
// last thing compared. Users keep the iterator of the key's index.
#pragma once

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/identity.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ranked_index.hpp>
#include <boost/multi_index_container.hpp>
#include <cstdint>
#include <vector>

#include "bench/Rows.h"

namespace kds {

template <typename... TOrders>
class TBoostSide {
public:
    using TSet = boost::multi_index_container<
        TRow,
        boost::multi_index::indexed_by<
            boost::multi_index::hashed_unique<
                boost::multi_index::member<TRow, std::int64_t, &TRow::Id>>,
            boost::multi_index::ranked_unique<boost::multi_index::identity<TRow>, TOrders>...>>;
    using TPlace = typename TSet::iterator;

    void LoadKept() {
        fPlaces.resize(static_cast<std::size_t>(RowCount() + BatchSize + 1));
        for (const TRow& row : Rows()) InsertKept(row);
    }
    void InsertOnly(const TRow& row) { (void)fRows.insert(row); }
    void InsertKept(const TRow& row) {
        const auto [place, isNew] = fRows.insert(row);
        if (isNew) fPlaces[static_cast<std::size_t>(row.Id)] = place;
    }
    void Update(TPlace place, const TRow& row) {
        fRows.modify(place, [&](TRow& held) { held = row; });
    }
    void UpdateValue(TPlace place, double value) {
        fRows.modify(place, [value](TRow& held) { held.Value = value; });
    }
    void Delete(TPlace place) { fRows.erase(place); }
    [[nodiscard]] const TPlace& Handle(std::int64_t id) const {
        return fPlaces[static_cast<std::size_t>(id)];
    }
    [[nodiscard]] bool Holds(const TRow& row) const {
        const auto place = fRows.find(row.Id);
        return place != fRows.end() && *place == row;
    }
    [[nodiscard]] std::int64_t Count() const { return static_cast<std::int64_t>(fRows.size()); }
    [[nodiscard]] bool ViewsInOrder() const { return true; }
    [[nodiscard]] const TSet& Set() const noexcept { return fRows; }

private:
    TSet fRows;
    std::vector<TPlace> fPlaces;
};

}  // namespace kds
