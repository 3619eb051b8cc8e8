// The status page's chart: where a sample lands on both axes, the memory axis's unit and
// round steps, and the note shown once the last hour holds no sample.
#include <gtest/gtest.h>

#include <string>

#include "probe/cache.h"
#include "probe/statuspage.h"
#include "tests/probe/subscription_world.h"

TEST(StatusPage, ChartPlacesSamplesInTheLastHourOnARoundMemoryScale) {
    SubscriptionWorld world;
    myCache->addToCache(50, 1000, 1200 * 1024, 0, 0); // 1,200 MiB free
    const std::time_t sampled = myCache->getHistory().at(0).time;
    const auto has = [](const std::string& page, const std::string& part) {
        return page.find(part) != std::string::npos;
    };

    // Half an hour on, the sample sits half-way along the plot (x 70 to 660); idle 50 % is
    // half its height (y 200 to 14), and 1,200 MiB the top of a scale of four 300 MiB steps.
    std::string page = StatusPage::render(sampled, sampled + 1800);
    EXPECT_TRUE(has(page, "points=\"365,107 \"")) << page;
    EXPECT_TRUE(has(page, "points=\"365,14 \""));
    EXPECT_TRUE(has(page, "fill=\"#c2410c\">1200</text>"));
    EXPECT_TRUE(has(page, "free memory, MiB"));
    EXPECT_TRUE(has(page, "y1=\"14\" y2=\"204\"")) << "time ticks cross the bottom edge";

    // From 2 GiB the axis counts in GiB: 3 GiB fits under four steps of 1.
    myCache->addToCache(50, 1000, 3 * 1024 * 1024, 0, 0);
    page = StatusPage::render(sampled, sampled + 1800);
    EXPECT_TRUE(has(page, "fill=\"#c2410c\">4</text>"));
    EXPECT_TRUE(has(page, "free memory, GiB"));

    page = StatusPage::render(sampled, sampled + 3601 + 5);
    EXPECT_TRUE(has(page, "No load samples in the last hour"));
    EXPECT_FALSE(has(page, "<polyline"));
}
