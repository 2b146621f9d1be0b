// Timed values: every timed save writes the time it is given (or the time of
// the save) into DAValue.timestamp and every timed read gives it back; the
// untimed saves never touch that column.
#include <sys/time.h>

#include <functional>
#include <string>
#include <vector>

#include "qvrealapi.h"
#include "qvtest.h"

using namespace qvtest;

namespace {

// The members of IED1/dsA in member order, with value rows (model_store.sql).
const char* const kA = "IED1LD0/MMXU1$MX$TotW$mag$f";
const char* const kB = "IED1LD0/MMXU1$MX$Hz$mag$f";
const char* const kC = "IED1LD0/GGIO1$ST$Ind1$stVal";
constexpr double kSeededTime = 123.25;
constexpr int kQuality = 7;
// An expected time that stands for "the time of the save".
constexpr double kNow = -1;

double wallClock() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return static_cast<double>(now.tv_sec) + now.tv_usec * 1e-6;
}

std::vector<std::string> column(const char* name, const char* reference) {
    return query(realDbPath(), std::string("select ") + name + " from DAValue where hashID=" +
                                   std::to_string(rowKey(reference)))[0];
}

double storedTime(const char* reference) {
    return std::stod(column("printf('%.17g',timestamp)", reference)[0]);
}

class TimedValues : public RealStoreTest {
protected:
    void SetUp() override {
        RealStoreTest::SetUp();
        execSqlFile(realDbPath(), dataPath("model_store.sql"));
        execSql(realDbPath(), "update DAValue set timestamp=" + std::to_string(kSeededTime));
    }
};

struct Expected {
    const char* reference;
    double time;  // kNow: between the moments before and after the save
};

struct TimedSaveCase {
    const char* name;
    std::function<int()> save;
    std::vector<Expected> expected;
};

DaNameRow g_names[2] = {"IED1LD0/MMXU1$MX$TotW$mag$f", "IED1LD0/MMXU1$MX$Hz$mag$f"};
const double g_values[3] = {1.5, 2.5, 3.5};
const int g_qualities[3] = {kQuality, kQuality, kQuality};

}  // namespace

// Each timed save, then every timed read of the rows it wrote: the same time
// in the column and from each read, with the quality saved beside it.
TEST_F(TimedValues, SavesWriteTheirTimesAndTheReadsGiveThemBack) {
    static const double listTimes[2] = {1000.5, -3};
    static const double setTimes[3] = {11.0, 22.0, 33.0};
    const TimedSaveCase cases[] = {
        {"single double", [] { return zq_saveDoubDAValueT(kA, 4.5, kQuality, 1.7e9 + 0.25); },
         {{kA, 1.7e9 + 0.25}}},
        {"single int at the time of the save",
         [] { return zq_saveIntDAValueValueT(kB, 3, kQuality, 0); }, {{kB, kNow}}},
        {"list, one time <= 0",
         [] { return zq_saveDAValuesT(g_names, g_values, g_qualities, listTimes, 2); },
         {{kA, 1000.5}, {kB, kNow}}},
        {"list without times",
         [] { return zq_saveDAValuesT(g_names, g_values, g_qualities, nullptr, 2); },
         {{kA, kNow}, {kB, kNow}}},
        {"data set",
         [] { return zq_saveDAValuesByDataSetT("IED1", "dsA", g_values, g_qualities, setTimes, 3); },
         {{kA, 11.0}, {kB, 22.0}, {kC, 33.0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        execSql(realDbPath(), "update DAValue set timestamp=0, quality=0");
        const double before = wallClock();
        ASSERT_EQ(c.save(), 0);
        const double after = wallClock();
        for (const Expected& e : c.expected) {
            SCOPED_TRACE(e.reference);
            const double stored = storedTime(e.reference);
            if (e.time == kNow) {
                EXPECT_GE(stored, before - 0.01);
                EXPECT_LE(stored, after + 0.01);
            } else {
                EXPECT_EQ(stored, e.time);
            }
            double value = 0, time = 0, intTime = 0;
            int quality = 0, asInt = 0, intQuality = 0;
            ASSERT_EQ(zq_getDoubDAValueT(e.reference, &value, &quality, &time), 0);
            ASSERT_EQ(zq_getIntDAValueT(e.reference, &asInt, &intQuality, &intTime), 0);
            // The column comes back as text of 16 digits: exact for the given
            // times, within a microsecond for the clock's.
            EXPECT_NEAR(time, stored, 1e-6);
            EXPECT_EQ(intTime, time);
            if (e.time != kNow) {
                EXPECT_EQ(time, e.time);
            }
            EXPECT_EQ(quality, kQuality);
            EXPECT_EQ(intQuality, kQuality);
            EXPECT_EQ(std::stod(column("value", e.reference)[0]), value);
        }
        double values[2], times[2];
        int qualities[2];
        ASSERT_EQ(zq_getDAValuesT(g_names, 2, values, qualities, times), 0);
        double time0 = 0, time1 = 0, value = 0;
        int quality = 0;
        ASSERT_EQ(zq_getDoubDAValueT(kA, &value, &quality, &time0) |
                      zq_getDoubDAValueT(kB, &value, &quality, &time1), 0);
        EXPECT_EQ(times[0], time0);
        EXPECT_EQ(times[1], time1);
    }
}

// The bounded data-set read: the members that fit, in member order, with
// their times; 1 when members were left out, and the rest of the caller's
// arrays untouched.
TEST_F(TimedValues, DataSetReadIsBoundedAndGivesTheTimesInMemberOrder) {
    static const double setTimes[3] = {11.0, 22.0, 33.0};
    ASSERT_EQ(zq_saveDAValuesByDataSetT("IED1", "dsA", g_values, g_qualities, setTimes, 3), 0);
    const struct {
        int capacity, result, count;
    } cases[] = {{3, 0, 3}, {4, 0, 3}, {2, 1, 2}, {0, 1, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.capacity);
        double values[4] = {-9, -9, -9, -9}, times[4] = {-9, -9, -9, -9};
        int qualities[4] = {-9, -9, -9, -9};
        int count = -1;
        ASSERT_EQ(zq_getDAValuesByDataSetT("IED1", "dsA", values, qualities, times, c.capacity,
                                           &count),
                  c.result);
        EXPECT_EQ(count, c.count);
        for (int i = 0; i < 4; ++i) {
            const bool read = i < c.count;
            EXPECT_EQ(times[i], read ? setTimes[i] : -9) << i;
            EXPECT_EQ(values[i], read ? g_values[i] : -9) << i;
            EXPECT_EQ(qualities[i], read ? kQuality : -9) << i;
        }
    }
    double value = 0, time = 0;
    int quality = 0, count = 0;
    EXPECT_EQ(zq_getDoubDAValueT(kA, &value, &quality, nullptr), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_ARGUMENT);
    EXPECT_EQ(zq_getDAValuesByDataSetT("IED1", "dsA", &value, &quality, nullptr, 1, &count), -1);
    EXPECT_EQ(zq_lastErrorCode(), QV_ERR_ARGUMENT);
    EXPECT_EQ(time, 0);
}

// Every untimed save writes its value and leaves the seeded time as it was.
TEST_F(TimedValues, UntimedSavesLeaveTheTimeAlone) {
    const struct {
        const char* name;
        std::function<int()> save;
    } cases[] = {
        {"zq_saveDoubDAValue", [] { return zq_saveDoubDAValue(kA, 4.5); }},
        {"zq_saveDoubDAValue1", [] { return zq_saveDoubDAValue1(kA, 4.5, 1); }},
        {"zq_saveIntDAValueValue", [] { return zq_saveIntDAValueValue(kA, 4); }},
        {"zq_saveIntDAValueValue1", [] { return zq_saveIntDAValueValue1(kA, 4, 1); }},
        {"zq_saveDAValues", [] { return zq_saveDAValues(g_names, g_values, 1); }},
        {"zq_saveDAValues1", [] { return zq_saveDAValues1(g_names, g_values, g_qualities, 1); }},
        {"zq_saveDAValuesByDataSet",
         [] { return zq_saveDAValuesByDataSet("IED1", "dsA", g_values, 1); }},
        {"zq_saveDAValues1ByDataSet",
         [] { return zq_saveDAValues1ByDataSet("IED1", "dsA", g_values, g_qualities, 1); }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        execSql(realDbPath(), "update DAValue set value=-1");
        ASSERT_EQ(c.save(), 0);
        EXPECT_NE(column("value", kA)[0], "-1.0");
        EXPECT_EQ(storedTime(kA), kSeededTime);
    }
}
