// What the benchmarks' results become on the page.

#include "goals.hpp"
#include "page.hpp"
#include "plot.hpp"
#include "result_file.hpp"
#include "tables.hpp"

#include <gmock/gmock.h>

#include <sstream>
#include <stdexcept>
#include <string>

namespace {

using bench::render::ResultFile;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

std::string const ROWS =
    "# a machine\n"
    "client,as shipped,throughput-qos0-64,throughput,msg/s,raw,1000,950,0.95,0.91,0.97\n"
    "client,as shipped,throughput-qos0-64,throughput,msg/s,Paho,1000,950,0.5,0.4,0.6\n"
    "client,as shipped,throughput-qos1-64,throughput,msg/s,raw,1000,800,0.80,0.7,0.9\n"
    "client,as shipped,request-reply,p99,us,raw,90000,1200,0.0133,0.01,0.02\n"
    "idle,,idle,heap of one more,KiB,raw,4,6,1.5,1.5,1.5\n"
    "idle,,idle,threads of one more,,Paho,0,1,inf,inf,inf\n"
    "dispatch,,text; none,10000,ns,10,100,120,1.2,1.1,1.3\n"
    "paths,,receive 4 bytes,allocations,,by hand,1,0,0,0,0\n"
    "paths,,receive 4 bytes,processor time,ns,by hand,50,100,2,1.9,2.1\n";

ResultFile resultsOf(std::string const& text) {
    std::istringstream in(text);
    return bench::render::readResults(in);
}

std::string tablesOf(std::string const& text) {
    std::ostringstream out;
    bench::render::writeTables(resultsOf(text), "plot.svg", out);
    return out.str();
}

TEST(AResultFile, IsReadWithItsConditions) {
    auto const results = resultsOf(ROWS);
    EXPECT_THAT(results.conditions, ElementsAre("a machine"));
    ASSERT_EQ(results.rows.size(), 9U);
    auto const* const row =
        results.find("client", "as shipped", "throughput-qos0-64", "throughput", "Paho");
    ASSERT_NE(row, nullptr);
    EXPECT_EQ(row->ratio, 0.5);
    EXPECT_EQ(row->lowest, 0.4);
    EXPECT_EQ(row->highest, 0.6);
    EXPECT_EQ(results.find("client", "as shipped", "request-reply", "p50", "raw"), nullptr);
}

TEST(AResultFile, ThatIsNoneIsRefusedWithTheLine) {
    try {
        resultsOf("# a machine\nclient,too,little\n");
        FAIL() << "it was read";
    } catch (std::runtime_error const& error) {
        EXPECT_THAT(error.what(), HasSubstr("line 2"));
    }
    EXPECT_THROW(resultsOf("client,a,b,c,d,e,1,2,3,4,none\n"), std::runtime_error);
}

TEST(ThePage, ShowsRatiosWithWhatTheyLayBetween) {
    auto const page = tablesOf(ROWS);
    EXPECT_THAT(page, HasSubstr("- a machine\n"));
    EXPECT_THAT(page, HasSubstr("](plot.svg)"));
    EXPECT_THAT(page, HasSubstr("| throughput-qos0-64 | throughput | 0.95 (0.91..0.97) | 0.50 "
                                "(0.40..0.60) |"));
    EXPECT_THAT(page, HasSubstr("| text, none | 1.20 (1.10..1.30) |"));
    EXPECT_THAT(page, HasSubstr("| receive 4 bytes | 0 | 1 | 2 (1.90..2.10) |"));
}

TEST(ThePage, SaysWhichGoalsAreKept) {
    auto const page = tablesOf(ROWS);
    // A throughput should be high, all else low; some goals are no ratios.
    EXPECT_THAT(page, HasSubstr("of it at least 0.88 | 0.95 | yes |"));
    EXPECT_THAT(page, HasSubstr("of it at least 0.88 | 0.80 | **no** |"));
    EXPECT_THAT(page, HasSubstr("at most 1000 us | 1200 | **no** |"));
    EXPECT_THAT(page, HasSubstr("beyond it at most 8 KiB | 2 | yes |"));
    EXPECT_THAT(page, HasSubstr("of it at most 1.50 | 1.20 | yes |"));
}

TEST(ThePage, SaysWherePahoIsAhead) {
    auto const page = tablesOf(ROWS);
    EXPECT_THAT(page, HasSubstr("- throughput-qos0-64, throughput, broker as shipped: 0.50"));
    EXPECT_THAT(page, HasSubstr("- idle, threads of one more: 1 to 0"));
    EXPECT_THAT(page, Not(HasSubstr("- throughput-qos1-64")));
}

TEST(ThePage, KeepsWhatIsOutsideItsMarks) {
    std::string const begin = bench::render::BEGIN_MARK;
    std::string const end = bench::render::END_MARK;
    EXPECT_EQ(bench::render::withFigures("a\n" + begin + "old\n" + end + "b\n", "new\n"),
              "a\n" + begin + "new\n" + end + "b\n");
    EXPECT_THROW(bench::render::withFigures("a\n" + end + begin, "new"), std::runtime_error);
}

TEST(ThePlot, ShowsWhatIsBetterToTheRight) {
    std::ostringstream out;
    bench::render::writePlot(resultsOf(ROWS), out);
    auto const plot = out.str();
    EXPECT_THAT(plot, AllOf(HasSubstr("<svg "), HasSubstr("</svg>"), HasSubstr("as shipped"),
                            Not(HasSubstr("inf")), Not(HasSubstr("nan"))));
    auto const positionOf = [&](std::string const& title) {
        auto const circle = plot.rfind("<circle", plot.find("<title>" + title + "</title>"));
        return std::stod(plot.substr(plot.find('"', circle) + 1));
    };
    // 0.5 of a throughput is worse than 0.95 of it, 0.0133 of a time is the best.
    EXPECT_LT(positionOf("Paho: 0.50"), positionOf("raw: 0.95"));
    EXPECT_LT(positionOf("raw: 0.95"), positionOf("raw: 0.013"));
}

} // namespace
