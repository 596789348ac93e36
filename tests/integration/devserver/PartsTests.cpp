#include "tools/devserver/FaultInjector.h"
#include "tools/devserver/FaultRule.h"
#include "tools/devserver/PostgrestQuery.h"

#include <gtest/gtest.h>

using namespace kavelo;

namespace {

std::vector<Json> sampleRows() {
    return {Json{{"id", "a"}, {"n", 3}, {"s", nullptr}, {"name", "Weekstart"}},
            Json{{"id", "b"}, {"n", 10}, {"s", "done"}, {"name", "Retro"}},
            Json{{"id", "c"}, {"n", 2}, {"s", "failed"}, {"name", "weekend"}}};
}
const std::vector<std::string> kColumns = {"id", "n", "s", "name"};

Json run(std::multimap<std::string, std::string> params) {
    return PostgrestQuery::parse(params).select(sampleRows(), "t", kColumns);
}

TEST(PostgrestQueryTest, FiltersFollowSqlRulesForNullsNumbersAndPatterns) {
    EXPECT_EQ(run({{"select", "id"}, {"s", "is.null"}}), Json::parse(R"([{"id":"a"}])"));
    // A comparison with NULL is never true, also for neq.
    EXPECT_EQ(run({{"select", "id"}, {"s", "neq.done"}}), Json::parse(R"([{"id":"c"}])"));
    EXPECT_EQ(run({{"select", "id"}, {"s", "not.is.null"}}).size(), 2u);
    // Numbers compare as numbers: 10 > 3, though "10" < "3" as text.
    EXPECT_EQ(run({{"select", "id"}, {"n", "gt.3"}}), Json::parse(R"([{"id":"b"}])"));
    EXPECT_EQ(run({{"select", "id"}, {"id", "in.(a,\"c\")"}}), Json::parse(R"([{"id":"a"},{"id":"c"}])"));
    EXPECT_EQ(run({{"select", "id"}, {"name", "like.Week*"}}), Json::parse(R"([{"id":"a"}])"));
    EXPECT_EQ(run({{"select", "id"}, {"name", "ilike.week*"}}).size(), 2u);
}

TEST(PostgrestQueryTest, OrderLimitAndSelectShapeTheAnswer) {
    EXPECT_EQ(run({{"select", "id"}, {"order", "n.desc"}, {"limit", "2"}}),
              Json::parse(R"([{"id":"b"},{"id":"a"}])"));
    EXPECT_EQ(run({{"limit", "0"}}), Json::array());
    EXPECT_EQ(run({{"select", "*"}, {"id", "eq.b"}})[0].size(), 4u);
}

TEST(PostgrestQueryTest, UnknownColumnsEmbedsAndBadSyntaxAreRefused) {
    auto codeOf = [](std::multimap<std::string, std::string> params) {
        try {
            run(std::move(params));
        } catch (const PostgrestError& e) {
            return e.code();
        }
        return std::string("accepted");
    };
    EXPECT_EQ(codeOf({{"select", "id,job_title"}}), "42703");
    EXPECT_EQ(codeOf({{"job_title", "eq.x"}}), "42703");
    EXPECT_EQ(codeOf({{"order", "job_title.asc"}}), "42703");
    EXPECT_EQ(codeOf({{"select", "id,profiles(email)"}}), "PGRST200");
    EXPECT_EQ(codeOf({{"id", "approx.a"}}), "PGRST100");
    EXPECT_EQ(codeOf({{"id", "in.a,b"}}), "PGRST100");
    EXPECT_EQ(codeOf({{"limit", "-1"}}), "PGRST102");
}

TEST(FaultRuleTest, ParsesSpecsAndRefusesWhatCouldNotWork) {
    auto rule = FaultRule::parse("signed-upload:status=500,count=3,rate=0.5,latency-ms=20");
    EXPECT_EQ(rule, (FaultRule{"signed-upload", 500, false, 0.5, 3, 20}));
    EXPECT_EQ(FaultRule::fromJson(rule.toJson()), rule);
    EXPECT_TRUE(FaultRule::parse("*:drop").drop);
    for (const char* bad :
         {"signed-upload", "nosuch:status=500", "init-recording:status=5000",
          "init-recording:rate=2,status=500", "init-recording:count=x,status=500",
          "init-recording:", "init-recording:drop,status=500", "init-recording:colour=red"}) {
        EXPECT_THROW(FaultRule::parse(bad), std::invalid_argument) << bad;
    }
}

TEST(FaultInjectorTest, LatenciesAddUpTheFirstFailureWinsAndCountsRunOut) {
    FaultInjector faults(1);
    faults.add(FaultRule{"*", 0, false, 1.0, -1, 10});
    faults.add(FaultRule{"init-recording", 503, false, 1.0, 1, 5});
    faults.add(FaultRule{"init-recording", 500, false, 1.0, 2, 0});

    auto first = faults.decide("init-recording");
    EXPECT_EQ(first.latencyMs, 15);
    EXPECT_EQ(first.status, 503);
    EXPECT_EQ(faults.decide("init-recording").status, 500);
    EXPECT_EQ(faults.decide("init-recording").status, 500);
    auto later = faults.decide("init-recording");
    EXPECT_FALSE(later.fails());
    EXPECT_EQ(later.latencyMs, 10);
    EXPECT_FALSE(faults.decide("signed-upload").fails());

    auto listed = faults.toJson();
    EXPECT_EQ(listed[1]["fired"], 1);
    EXPECT_EQ(listed[2]["fired"], 2); // the 503 rule took the first request; the 500 rule kept its count
    EXPECT_EQ(listed[0]["fired"], 5);
}

} // namespace
