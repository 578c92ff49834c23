// Countries, and zones that look into them.
#pragma once

#include <gtest/gtest.h>

#include "kds/kds.h"

namespace kds::support {

class TLookupTest : public testing::Test {
protected:
    explicit TLookupTest(TKdsDataType code = dtAnsiString) : fStore(TKdsStore::Create(u"Lookups")) {
        const std::int32_t length = code == dtAnsiString ? 2 : DefaultVariableLength;
        fCountries = fStore->Tables()->Add(u"Countries");
        fCountries->Columns()->Add(u"Code", code, length);
        fCountries->Columns()->Add(u"Name", dtAnsiString, 16);
        fCountries->Columns()->Add(u"Number", dtInteger);
        fCountries->SetPrimaryKey(u"Code");
        fZones = fStore->Tables()->Add(u"Zones");
        fZones->Columns()->Add(u"Id", dtInteger);
        fZones->Columns()->Add(u"Country", code, length)->ForeignKey(u"Countries", u"Code");
        fZones->SetPrimaryKey(u"Id");
    }
    ~TLookupTest() override { fStore->Free(); }

    TKdsColumn* AddName(TKdsLookupKind kind = lkNormal) {
        return fZones->Columns()->AddLookup(u"Name", u"Country", u"Name", kind);
    }
    void AddCountries(int count) {
        for (int i = 0; i < count; ++i) fCountries->Insert({Code(i), u"N" + Code(i), i});
    }
    static std::u16string Letter(int i) { return {static_cast<char16_t>(u'a' + i)}; }
    static std::u16string Code(int i) {
        return {static_cast<char16_t>(u'A' + i / 26), static_cast<char16_t>(u'A' + i % 26)};
    }
    TKdsRecord* AddZone(int id, const TVariant& country) {
        TOwned<TKdsRecord> zone = fZones->NewRow();
        zone->SetDataN(u"Id", id);
        zone->SetDataN(u"Country", country);
        return fZones->Records()->Add(std::move(zone));
    }

    TKdsStore* fStore;
    TKdsTable* fCountries;
    TKdsTable* fZones;
};

}  // namespace kds::support
