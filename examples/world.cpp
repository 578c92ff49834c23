// The demo: the world's time zones in a store, read and changed through live views.
//   world [--plain] [--large] [<folder of the data>]
// --plain leaves out the times, which differ from run to run.
// --large loads the whole Unicode character table as well and tells how fast that was.
#include <unistd.h>

#include <algorithm>
#include <exception>
#include <filesystem>
#include <initializer_list>
#include <iostream>
#include <string>
#include <system_error>
#include <utility>

#include "examples/world/Data.h"
#include "examples/world/Large.h"
#include "examples/world/Lookups.h"
#include "examples/world/Rows.h"
#include "examples/world/Terminal.h"
#include "kds/kds.h"

namespace world {
namespace {

// ---- Printing rows ------------------------------------------------------------------------

struct TRange {
    std::int32_t First;
    std::int32_t Count;
};

// Some ranges of a view's rows, with their positions.
void PrintRows(kds::TKdsView* view, std::initializer_list<TRange> ranges) {
    TSheet sheet(
        {Right("#"), "Country", "Zone", Right("Latitude"), Right("Longitude"), "Comments"});
    std::int32_t next = 0;
    for (const TRange range : ranges) {
        if (range.First > next) sheet.Row({"..."});
        next = std::min(range.First + range.Count, view->Count());
        for (std::int32_t i = range.First; i < next; ++i) {
            kds::TKdsRecord* const row = view->Items(i);
            sheet.Row({std::to_string(i), Cell(row, u"Country"), Cell(row, u"Zone"),
                       Cell(row, u"Latitude"), Cell(row, u"Longitude"), Cell(row, u"Comments")});
        }
    }
    if (next < view->Count()) sheet.Row({"..."});
    sheet.Print();
    Say(std::to_string(view->Count()) + " rows");
}

// ---- Reading ------------------------------------------------------------------------------

void ShowTables(const TWorld& world) {
    Title("The store \"World\" after loading");
    TSheet tables({"Table", Right("Rows"), Right("Bytes a row"), "Primary key"});
    TSheet columns({"Column", "Type", Right("Bytes"), "Null"});
    for (kds::TKdsTable* const table : *world.Store->Tables()) {
        // The record and its values lie in one block; its places in views come on top.
        const std::size_t bytes =
            sizeof(kds::TKdsRecord) + static_cast<std::size_t>(table->Columns()->RecordSize());
        tables.Row({kds::ToUtf8(table->Name()), std::to_string(table->Records()->Count()),
                    std::to_string(bytes), kds::ToUtf8(table->GetPrimaryKey())});
        for (kds::TKdsColumn* const column : *table->Columns()) {
            columns.Row({kds::ToUtf8(table->Columns()->QualifyName(column->Name())),
                         kds::ToUtf8(kds::KdsTypeName(column->DataType())),
                         std::to_string(column->ActualSize()),
                         column->AllowNull() ? "allowed" : "refused"});
        }
    }
    tables.Print();
    columns.Print();
}

void ShowOrder(const TWorld& world) {
    Title("Zones by country and name: \"Country, Zone\"");
    kds::TKdsView* const view = world.Zones->Select(u"Country, Zone");
    PrintRows(view, {{0, 5}, {view->Count() - 2, 2}});
    view->Free();
}

// Rows without a comment come last in both directions; "most of ..." and "Mountain" are neighbours,
// because case does not count.
void ShowCommentsOrder(const TWorld& world) {
    for (const std::u16string order : {u"Comments nocase, Zone", u"Comments nocase desc, Zone"}) {
        Title("A column that may be null: \"" + kds::ToUtf8(order) + "\"");
        kds::TKdsView* const view = world.Zones->Select(order);
        const std::int32_t withoutComment = view->Find({kds::Null});
        PrintRows(view,
                  {{0, 2}, {view->FindNearest({u"Mountain"}) - 2, 4}, {withoutComment - 1, 3}});
        view->Free();
    }
}

void ShowSelection(const TWorld& world) {
    Title("Beyond the polar circles: an accept routine and \"Latitude desc, Zone\"");
    const kds::TKdsColumn* const latitude = world.Zones->Columns()->Columns(u"Latitude");
    const kds::TFixed circle = kds::StrToFixed(u"66.5622");
    kds::TKdsView* const polar = world.Zones->SelectA(
        u"Latitude desc, Zone", {}, kds::AcceptWhen([=](kds::TKdsRecord* row) {
            const kds::TFixed degrees = row->Get<kds::TFixed>(latitude).value();
            return degrees > circle || degrees < -circle;
        }));
    PrintRows(polar, {{0, polar->Count()}});
    polar->Free();
}

void ShowSearches(const TWorld& world) {
    Title("Finding rows and positions");
    TSheet sheet({"What", "Answer"});
    kds::TKdsRecord* const kyiv = world.Zones->Records()->Find({u"UA", u"Europe/Kyiv"});
    sheet.Row({"the row with the key (UA, Europe/Kyiv)", Cell(kyiv, u"Coordinates")});

    kds::TKdsView* const byKey = world.Zones->GetDefaultView();
    const std::int32_t first = byKey->Find({u"JP"});
    sheet.Row({"the first row of JP, by the key's first column",
               At(first) + " " + Cell(byKey->Items(first), u"Zone")});
    sheet.Row({"the first row of XX, which is not there", At(byKey->Find({u"XX"}))});

    kds::TKdsView* const byName = world.Countries->Select(u"Name nocase");
    const std::int32_t nearest = byName->FindNearest({u"atlantis"});
    sheet.Row({"where a country \"atlantis\" would stand",
               At(nearest) + ", between " + Cell(byName->Items(nearest - 1), u"Name") + " and " +
                   Cell(byName->Items(nearest), u"Name")});
    byName->Free();

    const std::int32_t position = byKey->IndexOf(kyiv);
    sheet.Row({"the position of the row of Europe/Kyiv", At(position)});
    sheet.Row(
        {"the row at position " + At(position + 1), Cell(byKey->Items(position + 1), u"Zone")});
    sheet.Print();
}

// ---- Changing -----------------------------------------------------------------------------

// Two views of one country's zones with a link each.
class TTwoViews {
public:
    TTwoViews(kds::TKdsTable* zones, std::string_view country)
        : fByName(OfCountry(zones, country, u"Zone")),
          fNorthFirst(OfCountry(zones, country, u"Latitude desc")),
          fHeard({"Link of", "Event", Right("Old row"), Right("New row"), "Zone"}) {
        fNameLink.SetView(fByName);
        fNorthLink.SetView(fNorthFirst);
    }
    void Print(kds::TKdsRecord* marked) const {
        TSheet sheet({Right("#"), "By name", "", "North first", "", Right("Latitude")});
        for (std::int32_t i = 0; i < fByName->Count(); ++i) {
            kds::TKdsRecord* const left = fByName->Items(i);
            kds::TKdsRecord* const right = fNorthFirst->Items(i);
            sheet.Row({std::to_string(i), Cell(left, u"Zone"), left == marked ? "<" : "",
                       Cell(right, u"Zone"), right == marked ? "<" : "", Cell(right, u"Latitude")});
        }
        sheet.Print();
    }
    void PrintHeard() const { fHeard.Print(); }
    // The views belong to their table: they are ended, not deleted.
    void Free() {
        fByName->Free();
        fNorthFirst->Free();
    }

private:
    static kds::TKdsView* OfCountry(kds::TKdsTable* zones, std::string_view country,
                                    std::u16string_view order) {
        const kds::TKdsColumn* const column = zones->Columns()->Columns(u"Country");
        return zones->SelectA(order, {}, kds::AcceptWhen([=](kds::TKdsRecord* row) {
                                  return row->Get<std::string_view>(column) == country;
                              }));
    }

    kds::TKdsView* fByName;
    kds::TKdsView* fNorthFirst;
    TSheet fHeard;
    TListener fNameLink{&fHeard, "by name"};
    TListener fNorthLink{&fHeard, "north first"};
};

void ShowEdit(const TWorld& world) {
    Title("Two views of Kazakhstan");
    TTwoViews views(world.Zones, "KZ");
    kds::TKdsRecord* const row = world.Zones->Records()->Find({u"KZ", u"Asia/Almaty"});
    views.Print(row);

    Title("The same when Asia/Almaty has become Asia/Astana, and what the links heard");
    kds::TKdsEdit edit(row);
    const TPlace place = ParseCoordinates("+5108+07126");
    edit->SetDataN(u"Zone", u"Asia/Astana");
    edit->SetDataN(u"Latitude", kds::FixedToVar(place.Latitude));
    edit->SetDataN(u"Longitude", kds::FixedToVar(place.Longitude));
    edit->SetDataN(u"Coordinates", u"+5108+07126");
    edit.Post();
    views.Print(row);
    views.PrintHeard();
    views.Free();
}

void Upsert(kds::TKdsTable* zones, const char16_t* zone, const char* coordinates) {
    const TPlace place = ParseCoordinates(coordinates);
    zones->Upsert({u"NZ", zone, kds::FixedToVar(place.Latitude), kds::FixedToVar(place.Longitude),
                   coordinates});
}

void ShowChanges(const TWorld& world) {
    Title("New Zealand: upsert twice, edit and cancel, delete");
    kds::TKdsTable* const zones = world.Zones;
    TTwoViews views(zones, "NZ");
    Upsert(zones, u"Pacific/Chatham", "-4402-17626");    // stands there: changed
    Upsert(zones, u"Pacific/Antipodes", "-4941+17848");  // does not: inserted
    kds::TKdsRecord* const auckland = zones->Records()->Find({u"NZ", u"Pacific/Auckland"});
    auckland->Edit();
    auckland->SetDataN(u"Zone", u"Pacific/Wellington");
    Say("while edited: now " + Cell(auckland, u"Zone") + ", posted " +
        kds::ToUtf8(kds::VarToStr(auckland->GetOldN(u"Zone"))));
    auckland->Cancel();
    Say("cancelled: " + Cell(auckland, u"Zone"));
    views.Print(auckland);
    zones->Delete({u"NZ", u"Pacific/Antipodes"});
    Say("deleted: Pacific/Antipodes; " + std::to_string(zones->Records()->Count()) + " rows");
    views.PrintHeard();
    views.Free();
}

// ---- Refusals -----------------------------------------------------------------------------

// What the library says to something that it refuses.
template <typename F>
std::string Refusal(F&& act) {
    try {
        act();
    } catch (const kds::Exception& error) {
        return error.what();
    }
    return "(it was not refused)";
}

// A second row with this key is what several of the refusals are about.
kds::TKdsRecord* InsertTwin(kds::TKdsTable* zones) {
    return zones->Insert({u"UA", u"Europe/Kyiv", 50, 30, u"+5000+03000"});
}

std::string State(kds::TKdsTable* zones) {
    kds::TKdsRecord* const kyiv = zones->Records()->Find({u"UA", u"Europe/Kyiv"});
    return std::to_string(zones->Records()->Count()) + " rows, " + Cell(kyiv, u"Zone") + " at " +
           Cell(kyiv, u"Coordinates") +
           (zones->Inconsistency() == nullptr ? ", consistent" : ", broken");
}

void ShowRefusals(const TWorld& world) {
    Title("What is refused leaves the table as it was");
    kds::TKdsTable* const zones = world.Zones;
    kds::TKdsRecord* const kyiv = zones->Records()->Find({u"UA", u"Europe/Kyiv"});
    TSheet sheet({"What", "Message", "The table afterwards"});
    sheet.Row({"(before)", "", State(zones)});
    const std::string duplicate = Refusal([&] { InsertTwin(zones); });
    sheet.Row({"a second row with the same key", duplicate, State(zones)});
    const std::string missing = Refusal([&] {
        kds::TKdsEdit edit(kyiv);  // cancelled when the scope is left before Post has succeeded
        edit->SetDataN(u"Coordinates", u"+0000+00000");
        edit->SetNullN(u"Latitude");
        edit.Post();
    });
    sheet.Row({"a row without its latitude", missing, State(zones)});
    const std::string tooLong = Refusal([&] {
        kds::TKdsEdit edit(kyiv);
        edit->SetDataN(u"Zone", std::u16string(33, u'x'));
        edit.Post();
    });
    sheet.Row({"33 characters where 32 fit", tooLong, State(zones)});
    sheet.Print();
}

// While rows are loaded the views are off, so a duplicate shows when they are built again.
void ShowLateDuplicate(const TWorld& world) {
    Title("A duplicate that surfaces at the end of a load bracket");
    kds::TKdsTable* const zones = world.Zones;
    TSheet sheet({"Step", "Message", Right("Rows")});
    const auto tell = [&](const char* step, const std::string& message) {
        sheet.Row({step, message, std::to_string(zones->Records()->Count())});
    };
    kds::TKdsLoad load(zones, kds::mtsMassive);
    kds::TKdsRecord* const twin = InsertTwin(zones);
    tell("in the bracket a second Europe/Kyiv is taken", "");
    tell("the bracket is left: what was loaded stands", Refusal([&] { load.Leave(); }));
    tell("another insertion has no key to be checked by", Refusal([&] {
             zones->Insert({u"UA", u"Europe/Odesa", 46, 31});
         }));
    twin->Delete();
    tell("the second one is deleted", "");
    sheet.Print();
    Say("The key is whole again: " + State(zones));
}

void ShowLanguages(const TWorld& world) {
    Title("One message in three languages");
    TSheet sheet({"Language", "Message"});
    const auto withoutName = [&] { world.Countries->Insert({u"XX"}); };
    sheet.Row({"English", Refusal(withoutName)});
    kds::SetLanguage(kds::TLanguage::Russian);
    sheet.Row({"Russian", Refusal(withoutName)});
    kds::SetLanguage(kds::TLanguage::Ukrainian);
    sheet.Row({"Ukrainian", Refusal(withoutName)});
    kds::SetLanguage(kds::TLanguage::English);
    sheet.Print();
}

// ---- Saving -------------------------------------------------------------------------------

// All values of all rows in the order of the key.
std::string Contents(kds::TKdsTable* table) {
    std::string text;
    for (kds::TKdsRecord* const row : *table->GetDefaultView()) {
        for (kds::TKdsColumn* const column : *table->Columns()) {
            text += Cell(row, column->Name()) + "\t";
        }
        text += "\n";
    }
    return text;
}

// A file of its own for each run; it goes when the scope is left.
class TTemporaryFile {
public:
    explicit TTemporaryFile(const std::string& name)
        : fPath(std::filesystem::temp_directory_path() / (std::to_string(getpid()) + name)) {}
    TTemporaryFile(const TTemporaryFile&) = delete;
    TTemporaryFile& operator=(const TTemporaryFile&) = delete;
    ~TTemporaryFile() {
        std::error_code ignored;
        std::filesystem::remove(fPath, ignored);
    }
    [[nodiscard]] const std::filesystem::path& Path() const { return fPath; }

private:
    std::filesystem::path fPath;
};

void ShowSaving(const TWorld& world) {
    Title("Saved to files, and loaded into another store");
    const TWorld copy = CreateWorld(u"Copy");
    TSheet sheet({"Table", Right("Bytes"), Right("Rows loaded"), "All values"});
    // The countries first: the zones show their names.
    for (kds::TKdsTable* const table : {world.Countries, world.Zones}) {
        kds::TKdsTable* const loaded = table == world.Zones ? copy.Zones : copy.Countries;
        const TTemporaryFile file(kds::ToUtf8(table->Name()) + ".kds");
        table->SaveToFile(file.Path().u16string());
        const std::int32_t rows = loaded->LoadFromFile(file.Path().u16string()).Loaded;
        sheet.Row({kds::ToUtf8(table->Name()),
                   std::to_string(std::filesystem::file_size(file.Path())), std::to_string(rows),
                   Contents(loaded) == Contents(table) ? "the same" : "different"});
    }
    sheet.Print();
    copy.Store->Free();
}

// ---- Figures ------------------------------------------------------------------------------

void ShowStatistics(const TWorld& world, bool plain) {
    Title("How the view \"Comments nocase, Zone\" was built, and then built again");
    kds::TKdsView* const view = world.Zones->Select(u"Comments nocase, Zone");
    view->Refresh();
    const kds::TKdsViewStats& stats = view->Stats();
    const auto time = [plain](std::int64_t ticks) {
        const auto perSecond = static_cast<double>(kds::Clock().TicksPerSecond());
        return plain ? "..." : Number(1e6 * static_cast<double>(ticks) / perSecond, 1) + " us";
    };
    TSheet sheet({Right("Rows"), Right("Builds"), Right("Filter"), Right("Sort"),
                  Right("Last build"), Right("All builds")});
    sheet.Row({std::to_string(view->Count()), std::to_string(stats.UpdateCount),
               time(stats.LastFilter), time(stats.LastSort), time(stats.LastUpdate),
               time(stats.TotalUpdate)});
    sheet.Print();
    view->Free();
}

void ShowWorld(const TWorld& world, bool plain) {
    ShowTables(world);
    ShowOrder(world);
    ShowCommentsOrder(world);
    ShowSelection(world);
    ShowSearches(world);
    ShowEdit(world);
    ShowChanges(world);
    ShowLookups(world);
    ShowCalculated(world);
    ShowFilters(world);
    ShowWatch(world);
    ShowRefusals(world);
    ShowLateDuplicate(world);
    ShowLanguages(world);
    ShowSaving(world);
    ShowStatistics(world, plain);
}

}  // namespace
}  // namespace world

int main(int argumentCount, char** arguments) {
    bool plain = false;
    bool large = false;
    std::string folder = KDS_EXAMPLE_DATA;
    for (int i = 1; i < argumentCount; ++i) {
        const std::string argument = arguments[i];
        if (argument == "--plain") {
            plain = true;
        } else if (argument == "--large") {
            large = true;
        } else {
            folder = argument;
        }
    }
    try {
        const world::TWorld world = world::CreateWorld();
        world::LoadWorld(world, folder);
        world::ShowWorld(world, plain);
        if (large) world::ShowLarge(world.Store);
        world.Store->Free();
    } catch (const std::exception& error) {
        std::cerr << "world: " << error.what() << "\n";
        return 1;
    }
    return 0;
}
