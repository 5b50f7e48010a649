#include "stores/SceneState.h"
#include "support/MetaEnumCheck.h"

#include <gtest/gtest.h>

using namespace tavelo;

namespace {

Date iso(const char* text) { return *Date::fromIsoString(text); }

CalendarEvent event(const char* id, const char* group) {
    CalendarEvent e;
    e.id = UUID::literal(id);
    e.groupID = UUID::literal(group);
    e.start = iso("2026-01-05T00:00:00Z");
    e.end = iso("2026-01-05T01:00:00Z");
    return e;
}

const char* kGroup = "00000000-0000-4000-8000-0000000000A0";
const char* kPrimary = "00000000-0000-4000-8000-000000000001";

} // namespace

// Paging by month or week is driven through the toolbar and the window's
// commands.
TEST(SceneStateTest, NavigationClosesDetailsAndNamesTheScreensForQml) {
    SceneState scene(iso("2026-01-07T03:00:00Z"));
    const std::vector<CalendarEvent> events{event(kPrimary, kGroup)};
    scene.selectEvent({UUID::literal(kPrimary), EventPopoverAnchor::Search{}}, events);
    ASSERT_TRUE(scene.selectedEventID());

    scene.selectNavigation(NavigationItem::month);
    EXPECT_EQ(scene.calendarNavigation(), NavigationItem::month);
    EXPECT_FALSE(scene.selectedEventID());
    EXPECT_FALSE(scene.selectedEventAnchor());

    // QML reads the screens by the names the meta-object knows.
    tavelo::testing::expectMetaNamesMatch<NavigationItem>(kNavigationItemNames);
    tavelo::testing::expectMetaNamesMatch<SettingsSection>(kSettingsSectionNames);
    EXPECT_EQ(scene.property("navigation").toString(), QMetaEnum::fromType<NavigationItem>().valueToKey(int(NavigationItem::month)));
}
