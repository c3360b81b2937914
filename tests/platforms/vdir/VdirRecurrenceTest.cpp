// Recurrence as the store serves it: the examples of RFC 5545 and RFC 7529 with the dates the
// RFCs give, the defects found against independent tables (each a regression test), and two
// properties over random rules: the occurrences in any window are the series' occurrences that
// overlap it, and what the cache keeps gives exactly the answers of a cold open.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <ctime>
#include <random>
#include <thread>

#include "Vesp/VespEventInstance.h"
#include "platforms/vdir/VdirExpansion.h"
#include "platforms/vdir/VdirStore.h"
#include "platforms/vdir/VdirZones.h"
#include "tests/platforms/vdir/VdirTestSupport.h"

namespace vesp::vdir {
namespace {

using testing::TemporaryDirectory;
using testing::utc;
using testing::writeFile;
namespace fs = std::filesystem;

// A calendar file of one VEVENT; `lines` are its DTSTART, RRULE, ... lines, CRLF added.
std::string eventFile(const std::string& uid, const std::vector<std::string>& lines) {
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:" + uid +
                     "\r\nDTSTAMP:20260101T000000Z\r\nSUMMARY:" + uid + "\r\n";
  for (const auto& line : lines) text += line + "\r\n";
  return text + "END:VEVENT\r\nEND:VCALENDAR\r\n";
}

// The wall-clock time of `date` in `zone`, as "YYYYMMDDTHHMMSS".
std::string wallClock(platform::Date date, const std::string& zone) {
  icaltimetype time = icaltime_from_timet_with_zone(static_cast<time_t>(std::floor(date.timeIntervalSince1970())), 0,
                                                    zone == "UTC" ? utcZone() : builtinZone(zone));
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02d%02dT%02d%02d%02d", time.year, time.month, time.day, time.hour, time.minute,
                time.second);
  return text;
}

VdirStoreOptions optionsFor(const fs::path& root, const std::string& zone, std::optional<std::string> cache = "") {
  VdirStoreOptions options;
  options.root = root.string();
  options.localTimeZone = zone;
  options.watch = false;
  options.cacheDirectory = std::move(cache);
  return options;
}

// The starts of the occurrences in [from, to), as wall-clock times in `zone` (dates alone when
// `datesOnly`), at most `limit` of them.
std::vector<std::string> starts(VdirStore& store, platform::Date from, platform::Date to, const std::string& zone,
                                std::size_t limit = 100000, bool datesOnly = false) {
  std::vector<std::string> result;
  for (const auto& event : store.events(from, to, std::nullopt)) {
    if (result.size() >= limit) break;
    std::string time = wallClock(*event->startDate(), zone);
    result.push_back(datesOnly ? time.substr(0, 8) : time);
  }
  return result;
}

// ---------------------------------------------------------------------------------------------
// RFC 5545, section 3.8.5.3: every example, DTSTART in America/New_York, the dates as the RFC
// lists them (for rules without end: the first ones it lists).

struct RfcExample {
  const char* what;
  std::string dtstart;  // local time in America/New_York
  std::vector<std::string> extra;
  std::vector<std::string> expected;  // local times, or dates for all-day series
  bool complete = true;               // the RFC lists every occurrence
};

class VdirRfcExampleTest : public ::testing::TestWithParam<RfcExample> {};

TEST_P(VdirRfcExampleTest, GivesTheDatesTheRfcLists) {
  const RfcExample& example = GetParam();
  TemporaryDirectory root;
  std::vector<std::string> lines = {"DTSTART;TZID=America/New_York:" + example.dtstart};
  lines.insert(lines.end(), example.extra.begin(), example.extra.end());
  writeFile(root.path() / "cal" / "example.ics", eventFile("example", lines));
  auto store = VdirStore::make(optionsFor(root.path(), "America/New_York"));
  EXPECT_TRUE(store->diagnostics().empty()) << store->diagnostics().front().problem;
  const auto from = utc(1996, 1, 1), to = utc(2008, 1, 1);
  auto got = starts(*store, from, to, "America/New_York", example.complete ? 100000 : example.expected.size());
  EXPECT_EQ(got, example.expected) << example.what;
  // The same occurrences, a year at a time.
  std::vector<std::string> yearly;
  for (int year = 1996; year < 2008 && yearly.size() < got.size(); ++year)
    for (auto& start : starts(*store, utc(year, 1, 1, 5), utc(year + 1, 1, 1, 5), "America/New_York"))
      if (yearly.size() < got.size()) yearly.push_back(start);
  EXPECT_EQ(yearly, got) << example.what << ", a year at a time";
}

std::vector<std::string> at9(const std::vector<std::string>& days) {
  std::vector<std::string> result;
  for (const auto& day : days) result.push_back(day + "T090000");
  return result;
}

std::vector<std::string> daysFrom(int year, int month, int firstDay, int lastDay, int step = 1) {
  std::vector<std::string> result;
  for (int day = firstDay; day <= lastDay; day += step) {
    char text[16];
    std::snprintf(text, sizeof text, "%04d%02d%02d", year, month, day);
    result.push_back(text);
  }
  return result;
}

std::vector<std::string> joined(std::initializer_list<std::vector<std::string>> parts) {
  std::vector<std::string> result;
  for (const auto& part : parts) result.insert(result.end(), part.begin(), part.end());
  return result;
}

const RfcExample kRfc5545[] = {
    {"daily for 10 occurrences", "19970902T090000", {"RRULE:FREQ=DAILY;COUNT=10"}, at9(daysFrom(1997, 9, 2, 11))},
    {"daily until December 24, 1997", "19970902T090000", {"RRULE:FREQ=DAILY;UNTIL=19971224T000000Z"},
     at9(joined({daysFrom(1997, 9, 2, 30), daysFrom(1997, 10, 1, 31), daysFrom(1997, 11, 1, 30), daysFrom(1997, 12, 1, 23)}))},
    {"every other day", "19970902T090000", {"RRULE:FREQ=DAILY;INTERVAL=2"},
     at9(joined({daysFrom(1997, 9, 2, 30, 2), daysFrom(1997, 10, 2, 30, 2), {"19971101"}})), false},
    {"every 10 days, 5 occurrences", "19970902T090000", {"RRULE:FREQ=DAILY;INTERVAL=10;COUNT=5"},
     at9({"19970902", "19970912", "19970922", "19971002", "19971012"})},
    {"every day in January, for 3 years (yearly)", "19980101T090000",
     {"RRULE:FREQ=YEARLY;UNTIL=20000131T140000Z;BYMONTH=1;BYDAY=SU,MO,TU,WE,TH,FR,SA"},
     at9(joined({daysFrom(1998, 1, 1, 31), daysFrom(1999, 1, 1, 31), daysFrom(2000, 1, 1, 31)}))},
    {"every day in January, for 3 years (daily)", "19980101T090000",
     {"RRULE:FREQ=DAILY;UNTIL=20000131T140000Z;BYMONTH=1"},
     at9(joined({daysFrom(1998, 1, 1, 31), daysFrom(1999, 1, 1, 31), daysFrom(2000, 1, 1, 31)}))},
    {"weekly for 10 occurrences", "19970902T090000", {"RRULE:FREQ=WEEKLY;COUNT=10"},
     at9({"19970902", "19970909", "19970916", "19970923", "19970930", "19971007", "19971014", "19971021", "19971028",
          "19971104"})},
    {"weekly until December 24, 1997", "19970902T090000", {"RRULE:FREQ=WEEKLY;UNTIL=19971224T000000Z"},
     at9({"19970902", "19970909", "19970916", "19970923", "19970930", "19971007", "19971014", "19971021", "19971028",
          "19971104", "19971111", "19971118", "19971125", "19971202", "19971209", "19971216", "19971223"})},
    {"every other week", "19970902T090000", {"RRULE:FREQ=WEEKLY;INTERVAL=2;WKST=SU"},
     at9({"19970902", "19970916", "19970930", "19971014", "19971028", "19971111", "19971125", "19971209", "19971223",
          "19980106", "19980120", "19980203", "19980217"}),
     false},
    {"weekly on Tuesday and Thursday for five weeks (UNTIL)", "19970902T090000",
     {"RRULE:FREQ=WEEKLY;UNTIL=19971007T000000Z;WKST=SU;BYDAY=TU,TH"},
     at9({"19970902", "19970904", "19970909", "19970911", "19970916", "19970918", "19970923", "19970925", "19970930",
          "19971002"})},
    {"weekly on Tuesday and Thursday for five weeks (COUNT)", "19970902T090000",
     {"RRULE:FREQ=WEEKLY;COUNT=10;WKST=SU;BYDAY=TU,TH"},
     at9({"19970902", "19970904", "19970909", "19970911", "19970916", "19970918", "19970923", "19970925", "19970930",
          "19971002"})},
    {"monthly on the first Friday until December 24, 1997", "19970905T090000",
     {"RRULE:FREQ=MONTHLY;UNTIL=19971224T000000Z;BYDAY=1FR"}, at9({"19970905", "19971003", "19971107", "19971205"})},
    {"every other week on Monday, Wednesday and Friday until December 24, 1997", "19970901T090000",
     {"RRULE:FREQ=WEEKLY;INTERVAL=2;UNTIL=19971224T000000Z;WKST=SU;BYDAY=MO,WE,FR"},
     at9({"19970901", "19970903", "19970905", "19970915", "19970917", "19970919", "19970929", "19971001", "19971003",
          "19971013", "19971015", "19971017", "19971027", "19971029", "19971031", "19971110", "19971112", "19971114",
          "19971124", "19971126", "19971128", "19971208", "19971210", "19971212", "19971222"})},
    {"every other week on Tuesday and Thursday, for 8 occurrences", "19970902T090000",
     {"RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=8;WKST=SU;BYDAY=TU,TH"},
     at9({"19970902", "19970904", "19970916", "19970918", "19970930", "19971002", "19971014", "19971016"})},
    {"monthly on the first Friday for 10 occurrences", "19970905T090000", {"RRULE:FREQ=MONTHLY;COUNT=10;BYDAY=1FR"},
     at9({"19970905", "19971003", "19971107", "19971205", "19980102", "19980206", "19980306", "19980403", "19980501",
          "19980605"})},
    {"every other month on the first and last Sunday, 10 occurrences", "19970907T090000",
     {"RRULE:FREQ=MONTHLY;INTERVAL=2;COUNT=10;BYDAY=1SU,-1SU"},
     at9({"19970907", "19970928", "19971102", "19971130", "19980104", "19980125", "19980301", "19980329", "19980503",
          "19980531"})},
    {"monthly on the second-to-last Monday for 6 months", "19970922T090000", {"RRULE:FREQ=MONTHLY;COUNT=6;BYDAY=-2MO"},
     at9({"19970922", "19971020", "19971117", "19971222", "19980119", "19980216"})},
    {"monthly on the third-to-the-last day", "19970928T090000", {"RRULE:FREQ=MONTHLY;BYMONTHDAY=-3"},
     at9({"19970928", "19971029", "19971128", "19971229", "19980129", "19980226"}), false},
    {"monthly on the 2nd and 15th for 10 occurrences", "19970902T090000", {"RRULE:FREQ=MONTHLY;COUNT=10;BYMONTHDAY=2,15"},
     at9({"19970902", "19970915", "19971002", "19971015", "19971102", "19971115", "19971202", "19971215", "19980102",
          "19980115"})},
    {"monthly on the first and last day for 10 occurrences", "19970930T090000",
     {"RRULE:FREQ=MONTHLY;COUNT=10;BYMONTHDAY=1,-1"},
     at9({"19970930", "19971001", "19971031", "19971101", "19971130", "19971201", "19971231", "19980101", "19980131",
          "19980201"})},
    {"every 18 months on the 10th to 15th, 10 occurrences", "19970910T090000",
     {"RRULE:FREQ=MONTHLY;INTERVAL=18;COUNT=10;BYMONTHDAY=10,11,12,13,14,15"},
     at9({"19970910", "19970911", "19970912", "19970913", "19970914", "19970915", "19990310", "19990311", "19990312",
          "19990313"})},
    {"every Tuesday, every other month", "19970902T090000", {"RRULE:FREQ=MONTHLY;INTERVAL=2;BYDAY=TU"},
     at9({"19970902", "19970909", "19970916", "19970923", "19970930", "19971104", "19971111", "19971118", "19971125",
          "19980106", "19980113", "19980120", "19980127", "19980303", "19980310", "19980317", "19980324", "19980331"}),
     false},
    {"yearly in June and July for 10 occurrences", "19970610T090000", {"RRULE:FREQ=YEARLY;COUNT=10;BYMONTH=6,7"},
     at9({"19970610", "19970710", "19980610", "19980710", "19990610", "19990710", "20000610", "20000710", "20010610",
          "20010710"})},
    {"every other year on January, February and March for 10 occurrences", "19970310T090000",
     {"RRULE:FREQ=YEARLY;INTERVAL=2;COUNT=10;BYMONTH=1,2,3"},
     at9({"19970310", "19990110", "19990210", "19990310", "20010110", "20010210", "20010310", "20030110", "20030210",
          "20030310"})},
    {"every third year on the 1st, 100th and 200th day for 10 occurrences", "19970101T090000",
     {"RRULE:FREQ=YEARLY;INTERVAL=3;COUNT=10;BYYEARDAY=1,100,200"},
     at9({"19970101", "19970410", "19970719", "20000101", "20000409", "20000718", "20030101", "20030410", "20030719",
          "20060101"})},
    {"every 20th Monday of the year", "19970519T090000", {"RRULE:FREQ=YEARLY;BYDAY=20MO"},
     at9({"19970519", "19980518", "19990517"}), false},
    {"Monday of week number 20", "19970512T090000", {"RRULE:FREQ=YEARLY;BYWEEKNO=20;BYDAY=MO"},
     at9({"19970512", "19980511", "19990517"}), false},
    {"every Thursday in March", "19970313T090000", {"RRULE:FREQ=YEARLY;BYMONTH=3;BYDAY=TH"},
     at9({"19970313", "19970320", "19970327", "19980305", "19980312", "19980319", "19980326", "19990304", "19990311",
          "19990318", "19990325"}),
     false},
    {"every Thursday, but only during June, July and August", "19970605T090000",
     {"RRULE:FREQ=YEARLY;BYDAY=TH;BYMONTH=6,7,8"},
     at9({"19970605", "19970612", "19970619", "19970626", "19970703", "19970710", "19970717", "19970724", "19970731",
          "19970807", "19970814", "19970821", "19970828", "19980604", "19980611", "19980618", "19980625", "19980702",
          "19980709", "19980716", "19980723", "19980730", "19980806", "19980813", "19980820", "19980827", "19990603",
          "19990610", "19990617", "19990624", "19990701", "19990708", "19990715", "19990722", "19990729", "19990805",
          "19990812", "19990819", "19990826"}),
     false},
    {"every Friday the 13th", "19970902T090000", {"EXDATE;TZID=America/New_York:19970902T090000",
                                                  "RRULE:FREQ=MONTHLY;BYDAY=FR;BYMONTHDAY=13"},
     at9({"19980213", "19980313", "19981113", "19990813", "20001013"}), false},
    {"the first Saturday that follows the first Sunday of the month", "19970913T090000",
     {"RRULE:FREQ=MONTHLY;BYDAY=SA;BYMONTHDAY=7,8,9,10,11,12,13"},
     at9({"19970913", "19971011", "19971108", "19971213", "19980110", "19980207", "19980307", "19980411", "19980509",
          "19980613"}),
     false},
    {"U.S. presidential election day", "19961105T090000",
     {"RRULE:FREQ=YEARLY;INTERVAL=4;BYMONTH=11;BYDAY=TU;BYMONTHDAY=2,3,4,5,6,7,8"},
     at9({"19961105", "20001107", "20041102"}), false},
    {"the third instance of Tuesday, Wednesday or Thursday, for the next 3 months", "19970904T090000",
     {"RRULE:FREQ=MONTHLY;COUNT=3;BYDAY=TU,WE,TH;BYSETPOS=3"}, at9({"19970904", "19971007", "19971106"})},
    {"the second-to-last weekday of the month", "19970929T090000",
     {"RRULE:FREQ=MONTHLY;BYDAY=MO,TU,WE,TH,FR;BYSETPOS=-2"},
     at9({"19970929", "19971030", "19971127", "19971230", "19980129", "19980226", "19980330"}), false},
    // The RFC writes UNTIL=19970902T170000Z, which is 13:00 in New York, yet lists 15:00 (a
    // known erratum); 17:00 New York time is 21:00 UTC.
    {"every 3 hours from 9:00 to 17:00 on one day", "19970902T090000",
     {"RRULE:FREQ=HOURLY;INTERVAL=3;UNTIL=19970902T210000Z"}, {"19970902T090000", "19970902T120000", "19970902T150000"}},
    {"every 15 minutes for 6 occurrences", "19970902T090000", {"RRULE:FREQ=MINUTELY;INTERVAL=15;COUNT=6"},
     {"19970902T090000", "19970902T091500", "19970902T093000", "19970902T094500", "19970902T100000", "19970902T101500"}},
    {"every hour and a half for 4 occurrences", "19970902T090000", {"RRULE:FREQ=MINUTELY;INTERVAL=90;COUNT=4"},
     {"19970902T090000", "19970902T103000", "19970902T120000", "19970902T133000"}},
    {"every 20 minutes from 9:00 to 16:40 (daily)", "19970902T090000",
     {"RRULE:FREQ=DAILY;BYHOUR=9,10,11,12,13,14,15,16;BYMINUTE=0,20,40"},
     {"19970902T090000", "19970902T092000", "19970902T094000", "19970902T100000", "19970902T102000"}, false},
    {"every 20 minutes from 9:00 to 16:40 (minutely)", "19970902T090000",
     {"RRULE:FREQ=MINUTELY;INTERVAL=20;BYHOUR=9,10,11,12,13,14,15,16"},
     {"19970902T090000", "19970902T092000", "19970902T094000", "19970902T100000", "19970902T102000"}, false},
    {"WKST=MO changes the days of an every-other-week rule", "19970805T090000",
     {"RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=4;BYDAY=TU,SU;WKST=MO"}, at9({"19970805", "19970810", "19970819", "19970824"})},
    {"WKST=SU changes the days of an every-other-week rule", "19970805T090000",
     {"RRULE:FREQ=WEEKLY;INTERVAL=2;COUNT=4;BYDAY=TU,SU;WKST=SU"}, at9({"19970805", "19970817", "19970819", "19970831"})},
    {"an invalid date (February 30) is ignored", "20070115T090000", {"RRULE:FREQ=MONTHLY;BYMONTHDAY=15,30;COUNT=5"},
     at9({"20070115", "20070130", "20070215", "20070315", "20070330"})},
};

INSTANTIATE_TEST_SUITE_P(Rfc5545, VdirRfcExampleTest, ::testing::ValuesIn(kRfc5545));

// RFC 7529 (non-Gregorian rules, SKIP), all-day series; dates as the RFC lists them.
struct ScaledExample {
  const char* what;
  std::string dtstart;  // a DATE
  std::string rule;
  std::vector<std::string> expected;
};

class VdirRfc7529ExampleTest : public ::testing::TestWithParam<ScaledExample> {};

TEST_P(VdirRfc7529ExampleTest, GivesTheDatesTheRfcLists) {
  const ScaledExample& example = GetParam();
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "example.ics",
            eventFile("example", {"DTSTART;VALUE=DATE:" + example.dtstart, "RRULE:" + example.rule}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  for (const auto& diagnostic : store->diagnostics()) ADD_FAILURE() << diagnostic.problem;
  auto got = starts(*store, utc(2012, 1, 1), utc(2019, 1, 1), "UTC", example.expected.size(), true);
  EXPECT_EQ(got, example.expected) << example.what;
}

const ScaledExample kRfc7529[] = {
    {"Chinese New Year", "20130210", "RSCALE=CHINESE;FREQ=YEARLY", {"20130210", "20140131", "20150219", "20160208"}},
    {"Ethiopian 13th month", "20130906", "RSCALE=ETHIOPIC;FREQ=MONTHLY;BYMONTH=13",
     {"20130906", "20140906", "20150906", "20160906"}},
    {"the 8th of Adar I, or of Adar in common years", "20140208",
     "RSCALE=HEBREW;FREQ=YEARLY;BYMONTH=5L;BYMONTHDAY=8;SKIP=FORWARD",
     {"20140208", "20150227", "20160217", "20170306", "20180223"}},
    {"monthly on the 31st, skipping forward", "20150131", "RSCALE=GREGORIAN;FREQ=MONTHLY;SKIP=FORWARD;COUNT=4",
     {"20150131", "20150301", "20150331", "20150501"}},
    {"monthly on the 31st, omitting short months", "20150131", "RSCALE=GREGORIAN;FREQ=MONTHLY;COUNT=4",
     {"20150131", "20150331", "20150531", "20150731"}},
    {"yearly on 29 February, skipping forward", "20120229", "RSCALE=GREGORIAN;FREQ=YEARLY;SKIP=FORWARD;COUNT=5",
     {"20120229", "20130301", "20140301", "20150301", "20160229"}},
    {"yearly on 29 February, skipping backward", "20120229", "RSCALE=GREGORIAN;FREQ=YEARLY;SKIP=BACKWARD;COUNT=5",
     {"20120229", "20130228", "20140228", "20150228", "20160229"}},
};

INSTANTIATE_TEST_SUITE_P(Rfc7529, VdirRfc7529ExampleTest, ::testing::ValuesIn(kRfc7529));

// ---------------------------------------------------------------------------------------------
// Defects found against independent tables, each from its reproduction.

TEST(VdirRecurrenceTest, SkipSurvivesTheCache) {
  TemporaryDirectory root, cache;
  writeFile(root.path() / "cal" / "skip.ics",
            eventFile("skip", {"DTSTART;VALUE=DATE:20140131",
                               "RRULE:RSCALE=GREGORIAN;FREQ=MONTHLY;SKIP=BACKWARD;UNTIL=20140430"}));
  const std::vector<std::string> expected = {"20140131", "20140228", "20140331", "20140430"};
  {
    auto cold = VdirStore::make(optionsFor(root.path(), "UTC", cache.path().string()), testing::settledClock());
    EXPECT_EQ(starts(*cold, utc(2014, 1, 1), utc(2015, 1, 1), "UTC", 100, true), expected);
    cold->flushCache();
  }
  auto warm = VdirStore::make(optionsFor(root.path(), "UTC", cache.path().string()));
  ASSERT_TRUE(warm->cacheStatus().loaded) << warm->cacheStatus().loadProblem;
  EXPECT_EQ(starts(*warm, utc(2014, 1, 1), utc(2015, 1, 1), "UTC", 100, true), expected);
}

// An occurrence given by a PERIOD RDATE lasts to the period's end, or for its duration, in its
// zone; one whose period ends before it starts lasts as the event does, and the file says so.
// A window that starts inside a long period still finds it, from a cold open and from the cache.
TEST(VdirRecurrenceTest, APeriodRdateLastsAsItsPeriodSays) {
  TemporaryDirectory root, cache;
  writeFile(root.path() / "cal" / "periods.ics",
            eventFile("periods", {"DTSTART;TZID=Europe/Berlin:20260302T100000",
                                  "DTEND;TZID=Europe/Berlin:20260302T103000", "RRULE:FREQ=WEEKLY;COUNT=2",
                                  "RDATE;VALUE=PERIOD;TZID=Europe/Berlin:20260320T140000/20260320T170000",
                                  "RDATE;VALUE=PERIOD:20260401T080000Z/PT2H,20260420T080000Z/P3D",
                                  "RDATE;VALUE=PERIOD:20260410T080000Z/20260410T070000Z",
                                  "RDATE;TZID=Europe/Berlin:20260415T100000"}));
  auto spans = [](VdirStore& store, platform::Date a, platform::Date b) {
    std::vector<std::string> result;
    for (const auto& event : store.events(a, b, std::nullopt))
      result.push_back(event->startDate()->iso8601() + " " + event->endDate()->iso8601());
    return result;
  };
  const std::vector<std::string> all = {
      "2026-03-02T09:00:00Z 2026-03-02T09:30:00Z", "2026-03-09T09:00:00Z 2026-03-09T09:30:00Z",
      "2026-03-20T13:00:00Z 2026-03-20T16:00:00Z", "2026-04-01T08:00:00Z 2026-04-01T10:00:00Z",
      "2026-04-10T08:00:00Z 2026-04-10T08:30:00Z", "2026-04-15T08:00:00Z 2026-04-15T08:30:00Z",
      "2026-04-20T08:00:00Z 2026-04-23T08:00:00Z"};
  // Two days after the last start plus the event's length: past where the event's own length reaches.
  const std::vector<std::string> inside = {"2026-04-20T08:00:00Z 2026-04-23T08:00:00Z"};
  {
    auto cold = VdirStore::make(optionsFor(root.path(), "Europe/Berlin", cache.path().string()),
                                testing::settledClock());
    EXPECT_EQ(spans(*cold, utc(2026, 3, 1), utc(2026, 5, 1)), all);
    EXPECT_EQ(spans(*cold, utc(2026, 4, 22, 12), utc(2026, 4, 22, 18)), inside);
    bool said = false;
    for (const auto& problem : cold->diagnostics())
      said |= problem.path == "cal/periods.ics" &&
              problem.problem == "RDATE period ends before it starts: the event's own length stands in";
    EXPECT_TRUE(said);
    cold->flushCache();
  }
  auto warm = VdirStore::make(optionsFor(root.path(), "Europe/Berlin", cache.path().string()));
  ASSERT_TRUE(warm->cacheStatus().loaded) << warm->cacheStatus().loadProblem;
  EXPECT_EQ(spans(*warm, utc(2026, 4, 22, 12), utc(2026, 4, 22, 18)), inside);
  EXPECT_EQ(spans(*warm, utc(2026, 3, 1), utc(2026, 5, 1)), all);
}

// Every window gives the whole range's occurrences that fall in it.
void expectWindowIndependence(const std::vector<std::string>& lines, platform::Date from, platform::Date to,
                              const std::vector<std::pair<platform::Date, platform::Date>>& windows) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "series.ics", eventFile("series", lines));
  auto whole = VdirStore::make(optionsFor(root.path(), "UTC"));
  auto all = whole->events(from, to, std::nullopt);
  ASSERT_FALSE(all.empty());
  for (const auto& [a, b] : windows) {
    auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
    std::vector<std::string> expected, got;
    for (const auto& event : all)
      if (*event->startDate() < b && *event->endDate() > a) expected.push_back(wallClock(*event->startDate(), "UTC"));
    for (const auto& event : store->events(a, b, std::nullopt)) got.push_back(wallClock(*event->startDate(), "UTC"));
    EXPECT_EQ(got, expected) << "window " << a.iso8601() << " to " << b.iso8601();
  }
}

TEST(VdirRecurrenceTest, AYearlyWeekNumberRuleGivesNoExtraDayInALateWindow) {
  expectWindowIndependence({"DTSTART:20130101T000000", "RRULE:FREQ=YEARLY;BYWEEKNO=1,2;UNTIL=20170101T000000Z"},
                           utc(2012, 1, 1), utc(2018, 1, 1), {{utc(2015, 3, 11), utc(2017, 6, 17)}});
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "weeks.ics",
            eventFile("weeks", {"DTSTART:20130101T000000", "RRULE:FREQ=YEARLY;BYWEEKNO=1,2;UNTIL=20170101T000000Z"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  auto late = starts(*store, utc(2015, 3, 11), utc(2017, 6, 17), "UTC", 100, true);
  EXPECT_THAT(late, ::testing::Not(::testing::Contains("20151230")));
}

TEST(VdirRecurrenceTest, AnEveryFourHoursRuleStaysOnItsGridInEveryWindow) {
  const std::vector<std::string> rule = {"DTSTART:20050522T130300", "DTEND:20050522T133300",
                                         "RRULE:FREQ=MINUTELY;INTERVAL=240"};
  std::vector<std::pair<platform::Date, platform::Date>> windows;
  for (int day : {3, 17, 40, 41}) windows.push_back({utc(2005, 5, 22 + day % 9, day % 24, 57), utc(2005, 7, 1)});
  expectWindowIndependence(rule, utc(2005, 5, 1), utc(2005, 7, 1), windows);
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "grid.ics", eventFile("grid", rule));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  for (const auto& start : starts(*store, utc(2012, 3, 3, 20), utc(2012, 3, 5), "UTC"))
    EXPECT_EQ(start.substr(11), "0300") << start;  // hh:03:00, every 4 h from 13:03
  EXPECT_EQ(starts(*store, utc(2012, 3, 3, 20), utc(2012, 3, 4, 6), "UTC"),
            (std::vector<std::string>{"20120303T210300", "20120304T010300", "20120304T050300"}));
}

// Rules count on the wall clock of their zone, so a window reached by skipping ahead over a clock
// change finds the occurrences the walk from DTSTART finds.
TEST(VdirRecurrenceTest, AnEveryTwoHoursRuleKeepsItsWallClockAcrossClockChangesInEveryWindow) {
  const std::vector<std::string> rule = {"DTSTART;TZID=Europe/Berlin:20270105T080000", "DURATION:PT10M",
                                         "RRULE:FREQ=HOURLY;INTERVAL=2"};
  expectWindowIndependence(rule, utc(2027, 1, 1), utc(2028, 1, 7),
                           {{utc(2027, 7, 1), utc(2027, 7, 2)},
                            {utc(2027, 3, 27, 20), utc(2027, 3, 28, 8)},
                            {utc(2027, 10, 30, 20), utc(2027, 10, 31, 8)},
                            {utc(2028, 1, 5), utc(2028, 1, 6)}});
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "two-hourly.ics", eventFile("two-hourly", rule));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  // Even hours of the Berlin clock in summer, as in winter.
  EXPECT_EQ(starts(*store, utc(2027, 7, 1, 22), utc(2027, 7, 2, 6), "Europe/Berlin"),
            (std::vector<std::string>{"20270702T000000", "20270702T020000", "20270702T040000", "20270702T060000"}));
  EXPECT_EQ(starts(*store, utc(2028, 1, 5, 23), utc(2028, 1, 6, 5), "Europe/Berlin"),
            (std::vector<std::string>{"20280106T000000", "20280106T020000", "20280106T040000"}));
}

TEST(VdirRecurrenceTest, AnOddSecondlyIntervalAnswersTheSameInEveryWindowAfterAClockChange) {
  expectWindowIndependence({"DTSTART;TZID=Europe/Berlin:20260302T100000", "RRULE:FREQ=SECONDLY;INTERVAL=32349"},
                           utc(2026, 3, 1), utc(2027, 2, 1),
                           {{utc(2026, 11, 20), utc(2026, 11, 23)}, {utc(2027, 1, 10, 7), utc(2027, 1, 14)}});
}

TEST(VdirRecurrenceTest, ADailyRuleKeepsItsTimeOnTheDaysAfterAClockChange) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "night.ics",
            eventFile("night", {"DTSTART;TZID=Europe/Berlin:20270326T023000", "DURATION:PT10M", "RRULE:FREQ=DAILY"}));
  writeFile(root.path() / "cal" / "counted.ics",
            eventFile("counted", {"DTSTART;TZID=Europe/Berlin:20270326T024500", "DURATION:PT10M",
                                  "RRULE:FREQ=DAILY;COUNT=6"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  EXPECT_EQ(starts(*store, utc(2027, 3, 28, 12), utc(2027, 4, 1), "Europe/Berlin"),
            (std::vector<std::string>{"20270329T023000", "20270329T024500", "20270330T023000", "20270330T024500",
                                      "20270331T023000", "20270331T024500"}));
  EXPECT_EQ(starts(*store, utc(2027, 3, 25), utc(2027, 3, 28), "Europe/Berlin"),
            (std::vector<std::string>{"20270326T023000", "20270326T024500", "20270327T023000", "20270327T024500"}));
}

// UNTIL names an instant: the occurrence at it is the last, in winter and in summer time alike.
TEST(VdirRecurrenceTest, UntilInAZoneEndsTheSeriesAtTheInstantItNames) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "winter.ics",
            eventFile("winter", {"DTSTART;TZID=Europe/Berlin:20270301T090000",
                                 "RRULE:FREQ=DAILY;UNTIL=20270303T080000Z"}));
  writeFile(root.path() / "cal" / "summer.ics",
            eventFile("summer", {"DTSTART;TZID=Europe/Berlin:20270601T090000",
                                 "RRULE:FREQ=DAILY;UNTIL=20270603T070000Z"}));
  writeFile(root.path() / "cal" / "before.ics",
            eventFile("before", {"DTSTART;TZID=Europe/Berlin:20270801T090000",
                                 "RRULE:FREQ=DAILY;UNTIL=20270803T065959Z"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  EXPECT_EQ(starts(*store, utc(2027, 2, 1), utc(2027, 9, 1), "Europe/Berlin"),
            (std::vector<std::string>{"20270301T090000", "20270302T090000", "20270303T090000", "20270601T090000",
                                      "20270602T090000", "20270603T090000", "20270801T090000", "20270802T090000"}));
}

// A DATE UNTIL ends the series with its day: in Berlin, 29 March 2026 lasts 23 hours and
// 25 October 2026 lasts 25.
TEST(VdirRecurrenceTest, ADateUntilEndsTheSeriesWithItsDayOnTheDaysOfAClockChange) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "allday.ics",
            eventFile("allday", {"DTSTART;VALUE=DATE:20260316", "DTEND;VALUE=DATE:20260317",
                                 "RRULE:FREQ=WEEKLY;BYDAY=MO,TU;UNTIL=20260329"}));
  writeFile(root.path() / "cal" / "spring.ics",
            eventFile("spring", {"DTSTART:20260327T233000", "RRULE:FREQ=DAILY;UNTIL=20260329"}));
  writeFile(root.path() / "cal" / "autumn.ics",
            eventFile("autumn", {"DTSTART:20261023T233000", "RRULE:FREQ=DAILY;UNTIL=20261025"}));
  auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  EXPECT_EQ(starts(*store, utc(2026, 3, 1), utc(2026, 12, 1), "Europe/Berlin"),
            (std::vector<std::string>{"20260316T000000", "20260317T000000", "20260323T000000", "20260324T000000",
                                      "20260327T233000", "20260328T233000", "20260329T233000", "20261023T233000",
                                      "20261024T233000", "20261025T233000"}));
}

// DTSTART on 30 February is read as 2 March, so the walk from it and a window far from it agree.
TEST(VdirRecurrenceTest, ARuleFromADayItsMonthDoesNotHaveAnswersTheSameInEveryWindow) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "feb.ics",
            eventFile("feb", {"DTSTART;TZID=Europe/Berlin:20260230T100000", "RRULE:FREQ=MINUTELY;INTERVAL=2400"}));
  auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  const auto whole = starts(*store, utc(2026, 1, 1), utc(2028, 1, 1), "Europe/Berlin");
  ASSERT_GT(whole.size(), 400u);
  EXPECT_EQ(whole.front(), "20260302T100000");
  EXPECT_EQ(whole[1], "20260304T020000");
  std::vector<std::string> july;
  for (const auto& start : whole)
    if (start >= "20270709T154149" && start < "20270712T015533") july.push_back(start);
  ASSERT_FALSE(july.empty());
  EXPECT_EQ(starts(*store, platform::Date::fromTimeIntervalSince1970(1815140509),
                   platform::Date::fromTimeIntervalSince1970(1815350133), "Europe/Berlin"),
            july);
}

// A 60th second (a leap second, which RFC 5545 allows) is the first second of the next minute to
// the rule's walk as to every instant: the fuzzer's rule, September 2027 against two years cut to it.
TEST(VdirRecurrenceTest, ARuleFromASixtiethSecondAnswersTheSameInEveryWindow) {
  for (const char* start : {"DTSTART;TZID=Europe/Berlin:20260302T100060", "DTSTART;TZID=Nowhere:20260302T100060"}) {
    TemporaryDirectory root;
    writeFile(root.path() / "cal" / "leap.ics", eventFile("leap", {start, "RRULE:FREQ=MINUTELY;INTERVAL=2400"}));
    auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
    const auto whole = starts(*store, utc(2026, 1, 1), utc(2028, 1, 1), "Europe/Berlin");
    ASSERT_GT(whole.size(), 400u) << start;
    EXPECT_EQ(whole.front(), "20260302T100100") << start;
    const platform::Date from = platform::Date::fromTimeIntervalSince1970(1821495528);
    const platform::Date to = platform::Date::fromTimeIntervalSince1970(1821565674);
    std::vector<std::string> cut;
    for (const auto& event : store->events(utc(2026, 1, 1), utc(2028, 1, 1), std::nullopt))
      if (*event->startDate() >= from && *event->startDate() < to)
        cut.push_back(wallClock(*event->startDate(), "Europe/Berlin"));
    ASSERT_FALSE(cut.empty()) << start;
    EXPECT_EQ(starts(*store, from, to, "Europe/Berlin"), cut) << start;
  }
}

TEST(VdirRecurrenceTest, ExruleExcludesItsOccurrences) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "exrule.ics",
            eventFile("exrule", {"DTSTART:20260105T090000Z", "DTEND:20260105T100000Z", "RRULE:FREQ=DAILY;COUNT=14",
                                 "EXRULE:FREQ=WEEKLY;BYDAY=SA,SU"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  EXPECT_EQ(starts(*store, utc(2026, 1, 1), utc(2026, 2, 1), "UTC", 100, true),
            (std::vector<std::string>{"20260105", "20260106", "20260107", "20260108", "20260109", "20260112", "20260113",
                                      "20260114", "20260115", "20260116"}));
}

TEST(VdirRecurrenceTest, ANonGregorianCalendarLibicalDoesNotKnowIsReadAsGregorianAndSaidSo) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "mars.ics",
            eventFile("mars", {"DTSTART;VALUE=DATE:20260105", "RRULE:RSCALE=MARTIAN;FREQ=MONTHLY;COUNT=3"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  EXPECT_EQ(starts(*store, utc(2026, 1, 1), utc(2027, 1, 1), "UTC", 100, true),
            (std::vector<std::string>{"20260105", "20260205", "20260305"}));
  bool said = false;
  for (const auto& diagnostic : store->diagnostics())
    if (diagnostic.problem.find("RSCALE=martian expanded as Gregorian") != std::string::npos) said = true;
  EXPECT_TRUE(said);
}

TEST(VdirRecurrenceTest, ARuledComponentWithARecurrenceIdAndNoMasterIsServedAsTheSeries) {
  TemporaryDirectory root;
  writeFile(root.path() / "cal" / "orphan.ics",
            eventFile("orphan", {"RECURRENCE-ID:20260105T090000Z", "DTSTART:20260105T090000Z", "DTEND:20260105T100000Z",
                                 "RRULE:FREQ=WEEKLY;COUNT=4"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  auto events = store->events(utc(2026, 1, 1), utc(2026, 3, 1), std::nullopt);
  ASSERT_EQ(events.size(), 4u);
  for (const auto& event : events) {
    // Every occurrence is found again as the library looks it up: the event by its identifier,
    // then the occurrence with the same original date in a span around that date.
    ASSERT_NE(store->firstOccurrence(*event->eventIdentifier()), nullptr);
    const platform::Date occurrence = *event->occurrenceDate();
    std::shared_ptr<platform::EKEvent> again;
    for (const auto& candidate : store->events(occurrence.addingTimeInterval(-86400), occurrence.addingTimeInterval(86400),
                                               std::nullopt))
      if (candidate->eventIdentifier() == event->eventIdentifier() && candidate->occurrenceDate() == occurrence)
        again = candidate;
    ASSERT_NE(again, nullptr) << occurrence.iso8601();
    EXPECT_EQ(VespEventInstance(*again), VespEventInstance(*event));
  }
  bool said = false;
  for (const auto& diagnostic : store->diagnostics())
    if (diagnostic.problem.find("served as the series") != std::string::npos) said = true;
  EXPECT_TRUE(said);
}

// libical would test such rules minute by minute inside one call, for ever.
// A weekly series on Mondays at 09:00 in Berlin, six of them from 2 March 2026 (the clocks change
// on 29 March), with `overrides` (each a VEVENT's lines after its UID).
std::string mondaysWith(const std::vector<std::string>& overrides) {
  std::string text = "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:m\r\n"
                     "DTSTAMP:20260101T000000Z\r\nSUMMARY:Weekly\r\nDTSTART;TZID=Europe/Berlin:20260302T090000\r\n"
                     "DTEND;TZID=Europe/Berlin:20260302T100000\r\nRRULE:FREQ=WEEKLY;COUNT=6\r\nEND:VEVENT\r\n";
  for (const auto& lines : overrides)
    text += "BEGIN:VEVENT\r\nUID:m\r\nDTSTAMP:20260101T000000Z\r\n" + lines + "END:VEVENT\r\n";
  return text + "END:VCALENDAR\r\n";
}

// Each occurrence in [from, to) as "start-end title", wall clock in Berlin, moved ones marked "*".
std::vector<std::string> rows(VdirStore& store, platform::Date from, platform::Date to) {
  std::vector<std::string> result;
  for (const auto& event : store.events(from, to, std::nullopt))
    result.push_back(wallClock(*event->startDate(), "Europe/Berlin") + "-" +
                     wallClock(*event->endDate(), "Europe/Berlin").substr(9, 4) + " " + event->title().value_or("") +
                     (event->isDetached() ? "*" : ""));
  return result;
}

const std::string kMovedFromThe16th =
    "RECURRENCE-ID;RANGE=THISANDFUTURE;TZID=Europe/Berlin:20260316T090000\r\nSUMMARY:Moved\r\n"
    "DTSTART;TZID=Europe/Berlin:20260316T100000\r\nDTEND;TZID=Europe/Berlin:20260316T113000\r\n";

TEST(VdirRecurrenceTest, AThisAndFutureOverrideMovesAndRetitlesEveryLaterOccurrence) {
  TemporaryDirectory root, cache;
  writeFile(root.path() / "cal/m.ics", mondaysWith({kMovedFromThe16th}));
  const std::vector<std::string> expected = {
      "20260302T090000-1000 Weekly",  "20260309T090000-1000 Weekly",  "20260316T100000-1130 Moved*",
      "20260323T100000-1130 Moved*",  "20260330T100000-1130 Moved*",  // the wall-clock time, after the change
      "20260406T100000-1130 Moved*"};
  {
    auto cold =
        VdirStore::make(optionsFor(root.path(), "Europe/Berlin", cache.path().string()), testing::settledClock());
    EXPECT_EQ(rows(*cold, utc(2026, 3, 1), utc(2026, 5, 1)), expected);
    // Each window alone, the moved occurrences among them.
    EXPECT_THAT(rows(*cold, utc(2026, 4, 6, 8, 30), utc(2026, 4, 6, 9)), ::testing::ElementsAre(expected[5]));
    EXPECT_THAT(rows(*cold, utc(2026, 4, 6, 7), utc(2026, 4, 6, 8)), ::testing::IsEmpty());  // 09:00 local: moved away
    cold->flushCache();
  }
  auto warm = VdirStore::make(optionsFor(root.path(), "Europe/Berlin", cache.path().string()));
  ASSERT_TRUE(warm->cacheStatus().loaded) << warm->cacheStatus().loadProblem;
  EXPECT_EQ(rows(*warm, utc(2026, 3, 1), utc(2026, 5, 1)), expected);
  // The moved occurrences keep their own original date, so each can be found again.
  auto moved = warm->events(utc(2026, 3, 30), utc(2026, 3, 31), std::nullopt);
  ASSERT_EQ(moved.size(), 1u);
  EXPECT_EQ(moved[0]->occurrenceDate(), utc(2026, 3, 30, 7));  // 09:00 in Berlin, summer time
}

// A PERIOD RDATE lasts as its period says until a THISANDFUTURE override governs it: then it
// moves and lasts as the override does, like every other later occurrence.
TEST(VdirRecurrenceTest, APeriodRdateUnderAThisAndFutureOverrideMovesAndLastsAsTheOverride) {
  TemporaryDirectory root;
  std::string text = mondaysWith({kMovedFromThe16th});
  const std::string rule = "RRULE:FREQ=WEEKLY;COUNT=6\r\n";
  text.replace(text.find(rule), rule.size(),
               rule + "RDATE;VALUE=PERIOD;TZID=Europe/Berlin:20260311T140000/20260311T170000,"
                      "20260325T140000/20260325T170000\r\n");
  writeFile(root.path() / "cal/m.ics", text);
  auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  EXPECT_THAT(rows(*store, utc(2026, 3, 10), utc(2026, 3, 27)),
              ::testing::ElementsAre("20260311T140000-1700 Weekly", "20260316T100000-1130 Moved*",
                                     "20260323T100000-1130 Moved*", "20260325T150000-1630 Moved*"));
}

TEST(VdirRecurrenceTest, LaterOverridesOfAThisAndFutureOverrideTakeTheirOwnPlace) {
  TemporaryDirectory root;
  // A single override after it keeps to itself; a second THISANDFUTURE one takes over from its date.
  writeFile(root.path() / "cal/m.ics",
            mondaysWith({kMovedFromThe16th,
                         "RECURRENCE-ID;TZID=Europe/Berlin:20260323T090000\r\nSUMMARY:Once\r\n"
                         "DTSTART;TZID=Europe/Berlin:20260323T140000\r\nDTEND;TZID=Europe/Berlin:20260323T150000\r\n",
                         "RECURRENCE-ID;RANGE=THISANDFUTURE;TZID=Europe/Berlin:20260330T090000\r\nSUMMARY:Early\r\n"
                         "DTSTART;TZID=Europe/Berlin:20260330T080000\r\n"
                         "DTEND;TZID=Europe/Berlin:20260330T083000\r\n"}));
  auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  EXPECT_THAT(rows(*store, utc(2026, 3, 1), utc(2026, 5, 1)),
              ::testing::ElementsAre("20260302T090000-1000 Weekly", "20260309T090000-1000 Weekly",
                                     "20260316T100000-1130 Moved*", "20260323T140000-1500 Once*",
                                     "20260330T080000-0830 Early*", "20260406T080000-0830 Early*"));
}

TEST(VdirRecurrenceTest, AThisAndFutureMoveByDaysReachesWindowsTheOriginalDatesMiss) {
  TemporaryDirectory root;
  // From the 16th on, Tuesdays; and an all-day series moved two weeks on from its second day.
  writeFile(root.path() / "cal/m.ics",
            mondaysWith({"RECURRENCE-ID;RANGE=THISANDFUTURE;TZID=Europe/Berlin:20260316T090000\r\nSUMMARY:Tuesdays\r\n"
                         "DTSTART;TZID=Europe/Berlin:20260317T090000\r\n"
                         "DTEND;TZID=Europe/Berlin:20260317T100000\r\n"}));
  writeFile(root.path() / "cal/d.ics",
            "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Vesp tests//EN\r\nBEGIN:VEVENT\r\nUID:d\r\n"
            "DTSTAMP:20260101T000000Z\r\nSUMMARY:Day\r\nDTSTART;VALUE=DATE:20260302\r\nRRULE:FREQ=WEEKLY;COUNT=4\r\n"
            "END:VEVENT\r\nBEGIN:VEVENT\r\nUID:d\r\nDTSTAMP:20260101T000000Z\r\n"
            "RECURRENCE-ID;RANGE=THISANDFUTURE;VALUE=DATE:20260309\r\nSUMMARY:Two weeks later\r\n"
            "DTSTART;VALUE=DATE:20260323\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
  auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  EXPECT_THAT(rows(*store, utc(2026, 3, 23, 23), utc(2026, 3, 24, 23)),  // Tuesday the 24th in Berlin
              ::testing::ElementsAre("20260324T090000-1000 Tuesdays*"));
  // Monday the 23rd: the weekly one has moved to Tuesday; the all-day override itself lands there.
  EXPECT_THAT(rows(*store, utc(2026, 3, 22, 23), utc(2026, 3, 23, 23)),
              ::testing::ElementsAre("20260323T000000-0000 Two weeks later*"));
  // Moved further than any occurrence lasts: found only by looking that far back.
  EXPECT_THAT(rows(*store, utc(2026, 4, 5, 22), utc(2026, 4, 6, 22)),
              ::testing::ElementsAre("20260406T000000-0000 Two weeks later*"));
  EXPECT_THAT(starts(*store, utc(2026, 3, 1), utc(2026, 4, 1), "Europe/Berlin", 100, true),
              ::testing::ElementsAre("20260302", "20260302", "20260309", "20260317", "20260323", "20260324",
                                     "20260330", "20260331"));
}

TEST(VdirRecurrenceTest, ASubDailyRuleThatMatchesNoDayOrBreaksTheRfcIsRefusedNotExpanded) {
  TemporaryDirectory root;
  const std::vector<std::string> rules = {"FREQ=MINUTELY;COUNT=2;BYDAY=1SU,-1SU", "FREQ=MINUTELY;BYMONTH=2;BYMONTHDAY=30",
                                          "FREQ=SECONDLY;BYMONTHDAY=31;BYMONTH=4,6,9,11", "FREQ=DAILY;BYWEEKNO=3",
                                          "FREQ=WEEKLY;BYMONTHDAY=2", "FREQ=MONTHLY;BYYEARDAY=40"};
  for (std::size_t i = 0; i < rules.size(); ++i)
    writeFile(root.path() / "cal" / ("r" + std::to_string(i) + ".ics"),
              eventFile("r" + std::to_string(i), {"DTSTART:20260105T090000Z", "RRULE:" + rules[i]}));
  writeFile(root.path() / "cal" / "on-a-date.ics",
            eventFile("on-a-date", {"DTSTART;VALUE=DATE:20260105", "RRULE:FREQ=MINUTELY;INTERVAL=20;BYHOUR=9,10"}));
  auto store = VdirStore::make(optionsFor(root.path(), "UTC"));
  // Each is served as its first occurrence alone, and said so.
  EXPECT_EQ(store->events(utc(2026, 1, 1), utc(2027, 1, 1), std::nullopt).size(), rules.size() + 1);
  std::size_t refused = 0;
  for (const auto& diagnostic : store->diagnostics())
    if (diagnostic.problem.find(": ignored") != std::string::npos) ++refused;
  EXPECT_EQ(refused, rules.size() + 1);
  // A rare but possible day is kept: 29 February, every minute of it.
  TemporaryDirectory leapRoot;
  writeFile(leapRoot.path() / "cal" / "leap.ics",
            eventFile("leap", {"DTSTART:20260105T090000Z", "RRULE:FREQ=HOURLY;BYMONTH=2;BYMONTHDAY=29"}));
  auto leap = VdirStore::make(optionsFor(leapRoot.path(), "UTC"));
  EXPECT_EQ(starts(*leap, utc(2028, 2, 29), utc(2028, 3, 1), "UTC").size(), 24u);
}

// ---------------------------------------------------------------------------------------------
// Properties over random rules.

struct RandomSeries {
  std::vector<std::string> lines;
  bool subDaily = false;
  double start = 0.0;  // seconds since 1970, roughly (for choosing windows)
};

class RuleGenerator {
 public:
  explicit RuleGenerator(unsigned seed) : random_(seed), periods_(seed + 1) {}
  int below(int n) { return static_cast<int>(random_() % static_cast<unsigned>(n)); }

  RandomSeries next() {
    static const char* const kFrequencies[] = {"SECONDLY", "MINUTELY", "HOURLY", "DAILY", "WEEKLY", "MONTHLY", "YEARLY"};
    static const char* const kDays[] = {"MO", "TU", "WE", "TH", "FR", "SA", "SU"};
    RandomSeries series;
    int frequency = 3 + below(4);
    if (below(5) == 0) frequency = below(3);
    series.subDaily = frequency < 3;
    std::string rule = std::string("RRULE:FREQ=") + kFrequencies[frequency];
    if (below(2)) rule += ";INTERVAL=" + std::to_string(1 + below(frequency == 0 ? 4000 : frequency < 3 ? 300 : 4));
    auto list = [&](const char* name, int low, int high, bool negative, int most) {
      std::string part = std::string(";") + name + "=";
      for (int i = 0, n = 1 + below(most); i < n; ++i) {
        int value = low + below(high - low + 1);
        if (negative && below(3) == 0) value = -value;
        part += (i ? "," : "") + std::to_string(value);
      }
      return part;
    };
    if (below(3) == 0) {
      rule += ";BYDAY=";
      for (int i = 0, n = 1 + below(3); i < n; ++i) {
        std::string day = kDays[below(7)];
        if ((frequency == 5 || frequency == 6) && below(2))
          day = std::to_string((below(2) ? -1 : 1) * (1 + below(frequency == 6 ? 30 : 4))) + day;
        rule += (i ? "," : "") + day;
      }
    }
    if (!series.subDaily) {
      if (below(5) == 0) rule += list("BYMONTHDAY", 1, 31, true, 2);
      if (below(5) == 0) rule += list("BYMONTH", 1, 12, false, 3);
      if (frequency == 6 && below(4) == 0) rule += list("BYWEEKNO", 1, 53, true, 2);
      if (frequency == 6 && below(6) == 0) rule += list("BYYEARDAY", 1, 366, true, 2);
    }
    if (frequency != 2 && below(5) == 0) rule += list("BYHOUR", 0, 23, false, 3);
    if (frequency != 1 && below(6) == 0) rule += list("BYMINUTE", 0, 59, false, 2);
    if (frequency != 0 && below(8) == 0) rule += list("BYSECOND", 0, 59, false, 2);
    if (below(8) == 0) rule += list("BYSETPOS", 1, 3, true, 1);
    if (below(4) == 0) rule += std::string(";WKST=") + kDays[below(7)];
    const int year = 2018 + below(8), month = 1 + below(12), day = 1 + below(28);
    const int hour = below(24), minute = below(60), second = below(2) ? 0 : below(60);
    const int ending = below(5);
    if (ending == 0) rule += ";COUNT=" + std::to_string(1 + below(60));
    char text[64];
    const bool allDay = !series.subDaily && below(6) == 0;
    const int kind = allDay ? 0 : 1 + below(3);  // all-day, floating, UTC, zoned
    if (ending == 1) {
      std::snprintf(text, sizeof text, allDay ? ";UNTIL=%04d%02d%02d" : ";UNTIL=%04d%02d%02dT%02d%02d%02dZ",
                    year + (series.subDaily ? 0 : 1 + below(3)), 1 + below(12), 1 + below(28), below(24), below(60), 0);
      rule += text;
    }
    static const char* const kZones[] = {"Europe/Berlin", "America/New_York", "Australia/Sydney"};
    std::snprintf(text, sizeof text, "%04d%02d%02d", year, month, day);
    std::string date = text;
    std::snprintf(text, sizeof text, "T%02d%02d%02d", hour, minute, second);
    std::string time = text;
    switch (kind) {
      case 0: series.lines.push_back("DTSTART;VALUE=DATE:" + date); break;
      case 1: series.lines.push_back("DTSTART:" + date + time); break;
      case 2: series.lines.push_back("DTSTART:" + date + time + "Z"); break;
      default: series.lines.push_back(std::string("DTSTART;TZID=") + kZones[below(3)] + ":" + date + time); break;
    }
    if (kind != 0 && below(2)) series.lines.push_back("DURATION:PT" + std::to_string(1 + below(300)) + "M");
    if (kind == 0 && below(2)) series.lines.push_back("DURATION:P" + std::to_string(1 + below(3)) + "D");
    series.start = civilSecondsSince1970(year, month, day, hour, minute, second);
    if (!allDay) addPeriods(series);
    series.lines.push_back(rule);
    return series;
  }

 private:
  // Half the timed series get one or two PERIOD RDATEs in UTC, lasting up to five days (longer than
  // any occurrence of the rule), by their end or their duration. They come from a generator of
  // their own, so the rules are those the seed gave before.
  void addPeriods(RandomSeries& series) {
    const int count = static_cast<int>(periods_() % 4) - 1;
    for (int i = 0; i < count; ++i) {
      const unsigned spread = series.subDaily ? 2 * 86400 : 300 * 86400;
      const auto start = static_cast<std::time_t>(series.start + periods_() % spread);
      const auto minutes = static_cast<std::time_t>(1 + periods_() % (5 * 24 * 60));
      std::string line = "RDATE;VALUE=PERIOD:" + utcText(start) + "/";
      line += periods_() % 2 ? "PT" + std::to_string(minutes) + "M" : utcText(start + minutes * 60);
      series.lines.push_back(line);
    }
  }
  static std::string utcText(std::time_t instant) {
    std::tm parts{};
    gmtime_r(&instant, &parts);
    char text[32];
    std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &parts);
    return text;
  }

  std::mt19937 random_, periods_;
};

struct Parsed {
  VdirZones zones;
  VdirClock clock{"Europe/Berlin"};
  std::shared_ptr<const VdirItem> item;
  explicit Parsed(const std::string& text) {
    VdirParseContext context;
    context.zones = &zones;
    context.clock = &clock;
    item = parseItem("cal/random.ics", "random.ics", text, context).item;
  }
};

bool overlapsWindow(const VdirOccurrence& occurrence, double a, double b) {
  if (occurrence.end <= occurrence.start) return occurrence.start >= a && occurrence.start < b;
  return occurrence.start < b && occurrence.end > a;
}

TEST(VdirRecurrencePropertyTest, OccurrencesInAnyWindowAreTheWholeExpansionRestrictedToIt) {
  RuleGenerator generator(20261123);
  std::mt19937 random(7);
  int checked = 0, cut = 0;
  for (int n = 0; n < 160; ++n) {
    RandomSeries series = generator.next();
    Parsed parsed(eventFile("random", series.lines));
    ASSERT_TRUE(parsed.item) << series.lines.back();
    ASSERT_EQ(parsed.item->series.size(), 1u);
    const VdirSeriesData& data = parsed.item->series.front();
    const double horizon = series.subDaily ? 4 * 86400.0 : 3 * 366 * 86400.0;
    const double from = series.start - 3 * 86400.0, to = series.start + horizon;
    VdirExpansionLimits limits;
    std::vector<VdirOccurrence> whole;
    if (!expandSeries(data, parsed.clock, from, to, limits, whole)) {
      ++cut;
      continue;
    }
    ++checked;
    for (int w = 0; w < 6; ++w) {
      static const double kWidths[] = {3600.0, 86400.0, 7 * 86400.0, 32 * 86400.0, 100 * 86400.0, 400 * 86400.0};
      const double a = from + std::uniform_real_distribution<double>(0.0, horizon)(random);
      const double b = std::min(to, a + kWidths[random() % 6] * (series.subDaily ? 0.05 : 1.0));
      std::vector<std::pair<double, double>> expected, got;
      for (const auto& occurrence : whole)
        if (overlapsWindow(occurrence, a, b)) expected.emplace_back(occurrence.start, occurrence.end);
      std::vector<VdirOccurrence> inWindow;
      auto expanded = expandSeries(data, parsed.clock, a, b, limits, inWindow);
      ASSERT_TRUE(expanded.has_value()) << (expanded ? "" : expanded.error().description());
      for (const auto& occurrence : inWindow) got.emplace_back(occurrence.start, occurrence.end);
      std::sort(expected.begin(), expected.end());
      std::sort(got.begin(), got.end());
      ASSERT_EQ(got, expected) << ::testing::PrintToString(series.lines) << "\n"
                               << series.lines.back() << "\nwindow " << platform::Date::fromTimeIntervalSince1970(a).iso8601()
                               << " to " << platform::Date::fromTimeIntervalSince1970(b).iso8601();
    }
  }
  EXPECT_GT(checked, 130) << cut << " rules were cut by the limits";
}

// A wall-clock walk through a gap gives times in it that fall after those it gives just past it (a
// time in a gap is read with the offset before the gap), so a window that ends or starts in that
// stretch must still find them all: swept over the spring change of three zones, every five minutes.
TEST(VdirRecurrencePropertyTest, AWindowEdgeNearAClockGapCutsTheWholeExpansionExactly) {
  struct Change {
    const char* zone;
    const char* dayBefore;  // local date of DTSTART, at midnight
    double instant;         // the change, in UTC
  };
  const Change changes[] = {{"Europe/Berlin", "20270327", civilSecondsSince1970(2027, 3, 28, 1, 0, 0)},
                            {"America/New_York", "20270313", civilSecondsSince1970(2027, 3, 14, 7, 0, 0)},
                            {"Australia/Sydney", "20271002", civilSecondsSince1970(2027, 10, 2, 16, 0, 0)}};
  const char* const rules[] = {"RRULE:FREQ=MINUTELY;INTERVAL=25", "RRULE:FREQ=HOURLY;BYMINUTE=7,41",
                               "RRULE:FREQ=DAILY;BYHOUR=1,2,3;BYMINUTE=20,55"};
  VdirExpansionLimits limits;
  for (const Change& change : changes) {
    for (const char* rule : rules) {
      Parsed parsed(eventFile("gap", {std::string("DTSTART;TZID=") + change.zone + ":" + change.dayBefore + "T000000",
                                      "DURATION:PT1M", rule}));
      ASSERT_TRUE(parsed.item) << change.zone << " " << rule;
      const VdirSeriesData& data = parsed.item->series.front();
      const double from = change.instant - 2 * 86400.0, to = change.instant + 2 * 86400.0;
      std::vector<VdirOccurrence> whole;
      ASSERT_TRUE(expandSeries(data, parsed.clock, from, to, limits, whole).has_value());
      for (double edge = change.instant - 2 * 3600.0; edge <= change.instant + 2 * 3600.0; edge += 300.0) {
        for (const auto& [a, b] : {std::pair{from, edge}, std::pair{edge, to}}) {
          std::vector<double> expected, got;
          for (const auto& occurrence : whole)
            if (overlapsWindow(occurrence, a, b)) expected.push_back(occurrence.start);
          std::vector<VdirOccurrence> inWindow;
          ASSERT_TRUE(expandSeries(data, parsed.clock, a, b, limits, inWindow).has_value());
          for (const auto& occurrence : inWindow) got.push_back(occurrence.start);
          std::sort(got.begin(), got.end());
          std::sort(expected.begin(), expected.end());
          ASSERT_EQ(got, expected) << change.zone << " " << rule << " window "
                                   << platform::Date::fromTimeIntervalSince1970(a).iso8601() << " to "
                                   << platform::Date::fromTimeIntervalSince1970(b).iso8601();
          // Walking on past the end finds nothing more, so a limit of just these is no cut.
          VdirExpansionLimits exact = limits;
          exact.maximumOccurrencesPerSeries = expected.size();
          inWindow.clear();
          EXPECT_TRUE(expandSeries(data, parsed.clock, a, b, exact, inWindow).has_value())
              << change.zone << " " << rule << " " << expected.size() << " occurrences";
        }
      }
    }
  }
}

// The same through a store, whose period cache answers windows of up to 16 periods from what
// earlier queries expanded: queries in random order must agree with one query of everything.
TEST(VdirRecurrencePropertyTest, AStoreAnswersEveryWindowAsItsWholeRangeRestrictedToIt) {
  RuleGenerator generator(4242);
  TemporaryDirectory root;
  for (int n = 0; n < 60; ++n) {
    RandomSeries series = generator.next();
    if (series.subDaily) series = generator.next();
    writeFile(root.path() / "cal" / ("s" + std::to_string(n) + ".ics"), eventFile("s" + std::to_string(n), series.lines));
  }
  auto key = [](const std::shared_ptr<platform::EKEvent>& event) {
    return *event->eventIdentifier() + " " + event->startDate()->iso8601();
  };
  const platform::Date from = utc(2018, 1, 1), to = utc(2031, 1, 1);
  auto whole = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  auto all = whole->events(from, to, std::nullopt);
  auto store = VdirStore::make(optionsFor(root.path(), "Europe/Berlin"));
  std::mt19937 random(99);
  for (int w = 0; w < 120; ++w) {
    const double a = from.timeIntervalSince1970() +
                     std::uniform_real_distribution<double>(0.0, to.timeIntervalSince1970() - from.timeIntervalSince1970())(random);
    const double b = std::min(to.timeIntervalSince1970(), a + std::uniform_real_distribution<double>(3600.0, 500 * 86400.0)(random));
    const auto start = platform::Date::fromTimeIntervalSince1970(a), end = platform::Date::fromTimeIntervalSince1970(b);
    std::vector<std::string> expected, got;
    for (const auto& event : all)
      if (*event->startDate() < end && (*event->endDate() > start || (*event->endDate() <= *event->startDate() &&
                                                                      *event->startDate() >= start)))
        expected.push_back(key(event));
    for (const auto& event : store->events(start, end, std::nullopt)) got.push_back(key(event));
    std::sort(expected.begin(), expected.end());
    std::sort(got.begin(), got.end());
    std::vector<std::string> missing, extra;
    std::set_difference(expected.begin(), expected.end(), got.begin(), got.end(), std::back_inserter(missing));
    std::set_difference(got.begin(), got.end(), expected.begin(), expected.end(), std::back_inserter(extra));
    ASSERT_TRUE(missing.empty() && extra.empty())
        << "window " << start.iso8601() << " to " << end.iso8601() << ": missing " << ::testing::PrintToString(missing)
        << ", extra " << ::testing::PrintToString(extra);
  }
}

// A cold open, a warm open and a warm open after some files changed answer alike, record for
// record (every field the data model has).
TEST(VdirRecurrencePropertyTest, TheCacheGivesExactlyTheAnswersOfAColdOpen) {
  RuleGenerator generator(1123);
  TemporaryDirectory root, cache;
  auto writeSeries = [&](int n) {
    RandomSeries series = generator.next();
    while (series.subDaily) series = generator.next();
    if (generator.below(4) == 0) series.lines.push_back("EXRULE:FREQ=WEEKLY;BYDAY=" + std::string(generator.below(2) ? "SA" : "TU"));
    if (generator.below(5) == 0) series.lines.back() = "RRULE:RSCALE=" + std::string(generator.below(2) ? "HEBREW" : "GREGORIAN") +
                                                       ";FREQ=MONTHLY;SKIP=" + (generator.below(2) ? "BACKWARD" : "FORWARD");
    writeFile(root.path() / "cal" / ("s" + std::to_string(n) + ".ics"), eventFile("s" + std::to_string(n), series.lines));
  };
  for (int n = 0; n < 80; ++n) writeSeries(n);
  const std::vector<std::pair<platform::Date, platform::Date>> windows = {
      {utc(2022, 1, 1), utc(2023, 1, 1)}, {utc(2022, 3, 1), utc(2022, 4, 1)}, {utc(2025, 6, 1), utc(2025, 6, 2)}};
  auto answer = [&](VdirStore& store) {
    std::vector<VespEventInstance> records;
    for (const auto& [a, b] : windows)
      for (const auto& event : store.events(a, b, std::nullopt)) records.emplace_back(*event);
    return records;
  };
  auto coldOpen = [&] { return VdirStore::make(optionsFor(root.path(), "Europe/Berlin")); };
  auto cachedOpen = [&] {
    return VdirStore::make(optionsFor(root.path(), "Europe/Berlin", cache.path().string()), testing::settledClock());
  };
  auto expectSame = [](const std::vector<VespEventInstance>& got, const std::vector<VespEventInstance>& expected) {
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < got.size(); ++i)
      ASSERT_TRUE(got[i] == expected[i]) << "record " << i << ": " << got[i].eventIdentifier() << " at "
                                         << got[i].startDate().iso8601() << " / " << expected[i].eventIdentifier()
                                         << " at " << expected[i].startDate().iso8601();
  };
  const auto cold = answer(*coldOpen());
  ASSERT_GT(cold.size(), 100u);
  cachedOpen()->flushCache();
  {
    auto warm = cachedOpen();
    ASSERT_TRUE(warm->cacheStatus().loaded) << warm->cacheStatus().loadProblem;
    expectSame(answer(*warm), cold);
    warm->flushCache();
  }
  for (int n = 0; n < 80; n += 9) writeSeries(n);
  auto changed = cachedOpen();
  ASSERT_TRUE(changed->cacheStatus().loaded) << changed->cacheStatus().loadProblem;
  expectSame(answer(*changed), answer(*coldOpen()));
}

}  // namespace
}  // namespace vesp::vdir
