// A copy of a view that follows by change lists alone, printed whenever a list has arrived.
#include <iostream>
#include <string>

#include "kds/kds.h"

namespace {

class TLeague final : public kds::TKdsMirror {
public:
    void HandleChanges(const kds::TKdsChangeList& changes) override {
        TKdsMirror::HandleChanges(changes);
        for (const kds::TKdsChange& change : changes) std::cout << "  " << Describe(change) << '\n';
        std::cout << "  now:";
        for (kds::TKdsRecord* const row : Rows()) std::cout << ' ' << Name(row);
        std::cout << "\n\n";
    }

private:
    static std::string Name(kds::TKdsRecord* row) { return kds::ToUtf8(row->Format(u"Name")); }
    static std::string Describe(const kds::TKdsChange& change) {
        const std::string from = std::to_string(change.From);
        const std::string to = std::to_string(change.To);
        switch (change.Kind) {
            case kds::ckInserted: return "inserted at " + to + ": " + Name(change.Record);
            case kds::ckRemoved: return "removed at " + from + ": " + Name(change.Record);
            case kds::ckMoved: return "moved " + from + " to " + to + ": " + Name(change.Record);
            case kds::ckUpdated: return "updated at " + from + ": " + Name(change.Record);
            case kds::ckRebuilt: break;
        }
        return "rebuilt";
    }
};

void Score(kds::TKdsTable* table, const char16_t* name, int points) {
    kds::TKdsEdit team(table->Records()->Find({name}));
    team->SetDataN(u"Points", points);
    team.Post();
}

}  // namespace

int main() {
    kds::TKdsStore* const store = kds::TKdsStore::Create(u"League");
    kds::TKdsTable* const teams = store->Tables()->Add(u"Teams");
    teams->Columns()->Add(u"Name", kds::dtAnsiString);
    teams->Columns()->Add(u"Points", kds::dtInteger);
    teams->SetPrimaryKey(u"Name");
    teams->Insert({u"Otters", 7});
    teams->Insert({u"Herons", 5});
    teams->Insert({u"Badgers", 3});

    TLeague league;
    std::cout << "The mirror is attached\n";
    league.SetView(teams->Select(u"Points desc"));

    std::cout << "The Badgers win twice\n";
    Score(teams, u"Badgers", 9);
    std::cout << "A match day in one bracket: two results, a new team, a team that leaves\n";
    {
        kds::TKdsLoad day(teams, kds::mtsUploads);
        Score(teams, u"Otters", 8);
        Score(teams, u"Herons", 11);
        teams->Insert({u"Martens", 1});
        teams->Delete({u"Otters"});
        day.Leave();
    }
    std::cout << "The view is turned round\n";
    league.View()->SetOrderBy(u"Points");
    std::cout << "The store ends\n";
    store->Free();
}
