#include "stores/SceneState.h"
#include "support/MetaEnumCheck.h"

#include <gtest/gtest.h>

using namespace tavelo;

// Paging and the choice of screen are driven through the toolbar; here, that
// QML reads the screens by the names the meta-object knows.
TEST(SceneStateTest, ScreensCarryTheNamesQmlReads) {
    tavelo::testing::expectMetaNamesMatch<NavigationItem>(kNavigationItemNames);
    tavelo::testing::expectMetaNamesMatch<SettingsSection>(kSettingsSectionNames);
    SceneState scene(*Date::fromIsoString("2026-01-07T03:00:00Z"));
    scene.selectNavigation(NavigationItem::month);
    EXPECT_EQ(scene.property("navigation").toString(), QMetaEnum::fromType<NavigationItem>().valueToKey(int(NavigationItem::month)));
}
