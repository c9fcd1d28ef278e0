#include "meter/meter.h"

#include <gtest/gtest.h>
#include <memory>

#include "support/fake_clock.h"

namespace {

// As modules declare them: linked before main, the metric ahead of its group.
extern meter::Group late_group;
meter::IntegerCounter early_metric{&late_group, "early", "", "Declared ahead of its group"};
meter::Group late_group{"test_group"};

TEST(Meter, TreeTakesWhatWasLinkedAndWhatComesLater) {
    EXPECT_EQ(late_group.find("early"), nullptr);
    for (int round = 0; round < 2; ++round) {  // a tree can be built again after one has ended
        const meter::Tree tree("dbms");
        EXPECT_EQ(tree.root().find("test_group"), &late_group);
        EXPECT_EQ(late_group.find("early"), &early_metric);
        meter::Group sub(&late_group, "sub");
        const meter::IntegerGauge gauge(&sub, "gauge", "KiB", "");
        EXPECT_EQ(late_group.find("sub"), &sub);
        EXPECT_EQ(sub.find("gauge"), &gauge);
        EXPECT_EQ(late_group.groups(), std::vector<meter::Group*>{&sub});
        EXPECT_EQ(late_group.metrics(), std::vector<meter::Metric*>{&early_metric});
    }
    EXPECT_EQ(late_group.find("early"), nullptr);
}

TEST(Meter, ObjectsLeaveInAnyOrder) {
    const meter::Tree tree("dbms");
    auto group = std::make_unique<meter::Group>("passing");
    auto metric = std::make_unique<meter::IntegerCounter>(group.get(), "m", "", "");
    group.reset();
    EXPECT_EQ(tree.root().find("passing"), nullptr);
    metric.reset();
    const meter::Group again("passing");
    EXPECT_EQ(tree.root().find("passing"), &again);
}

TEST(Meter, SecondNameInAGroupIsFatal) {
    const meter::Tree tree("dbms");
    EXPECT_DEATH(meter::IntegerCounter(&late_group, "early", "", ""),
                 "Assertion failed: Attempt to add duplicate metric name: early");
}

TEST(Meter, TimingKeepsItsFiveNumbers) {
    meter::MicroSecondTiming timing(&late_group, "time", "");
    for (const uint64_t duration : {7U, 3U, 5U}) timing.add(duration);
    support::FakeClock clock;
    {
        const meter::TimingScope scope(timing, clock);
        clock.advance_us(10);
    }
    const auto value = std::get<meter::TimingValue>(timing.read());
    EXPECT_EQ(value.count, 4U);
    EXPECT_EQ(value.min, 3U);
    EXPECT_EQ(value.max, 10U);
    EXPECT_EQ(value.sum, 25U);
    EXPECT_EQ(value.sum_of_squares, 183U);
    EXPECT_EQ(timing.unit(), "us");
}

TEST(Meter, CallbacksReadWhileBoundAndTablesShowAnInstance) {
    meter::IntegerGaugeCallback size(&late_group, "size", "KiB", "");
    EXPECT_EQ(std::get<uint64_t>(size.read()), 0U);
    size.bind([] { return uint64_t{12}; });
    EXPECT_EQ(std::get<uint64_t>(size.read()), 12U);
    size.unbind();
    EXPECT_EQ(std::get<uint64_t>(size.read()), 0U);

    std::unique_ptr<meter::IntegerGauge> shown;
    const meter::Table table(
        &late_group, "proc", [] { return std::vector<std::string>{"alrm"}; },
        [&](std::string_view instance) {
            if (instance != "alrm") throw meter::ENoSuchInstance("No such instance");
            shown->set(5);
        });
    shown = std::make_unique<meter::IntegerGauge>(nullptr, "n", "", "");
    table.select("alrm");
    EXPECT_EQ(shown->value(), 5U);
    EXPECT_THROW(table.select("nobody"), meter::ENoSuchInstance);
}

}  // namespace
