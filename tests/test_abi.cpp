// The public records as C callers see them: the sizes and offsets that the
// interface fixes, identical in C and C++.
#include "qvtest.h"
#include "record_layouts.h"

TEST(RecordLayout, PublicRecordsHaveTheirFixedBytesInCAndCxx) {
    struct Row {
        const char* expression;
        size_t cxx, expected;
    };
#define CXX_ROW(expression, expected) {#expression, expression, expected},
    const Row rows[] = {QV_RECORD_LAYOUTS(CXX_ROW)};
#undef CXX_ROW
    for (size_t i = 0; i < sizeof rows / sizeof rows[0]; ++i) {
        EXPECT_EQ(rows[i].cxx, rows[i].expected) << rows[i].expression;
        EXPECT_EQ(qv_c_layouts[i], rows[i].expected) << rows[i].expression << " (C)";
    }
}
