// Vendor models: whole type ids, load options (prefixes kept, value classes
// by rule), and the lines a load prints about what it did.
#include <fstream>

#include "internal/qvloader.h"
#include "qvaddied.h"
#include "qvtest.h"

using namespace qvtest;

namespace {

class VendorModels : public RealStoreTest {};

std::string daNames() {
    std::string names;
    for (const auto& row : query(realDbPath(), "select daName from DA order by rowid")) names += row[0] + " ";
    return names;
}

}  // namespace

TEST_F(VendorModels, TypeIdsAreComparedWhole) {
    ASSERT_EQ(zq_addIEDRealDB(dataPath("long_type_ids.scd").c_str()), 0);
    EXPECT_EQ(daNames(), "IED1LD0/GGIO1$ST$Ind1$stVal IED1LD0/GGIO1$MX$Ind2$mag ");
}
