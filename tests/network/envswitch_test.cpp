#include <cstdlib>
#include <gtest/gtest.h>

#include "envswitch.h"

namespace {

class EnvSwitchTest : public ::testing::Test
{
protected:
    void SetUp() override { clear(); }
    void TearDown() override
    {
        clear();
        g_cacheEnv = true;
    }
    static void clear()
    {
        for (const char* name : { "KLB_ZORTEST", "ZOR_ZORTEST", "QUORVEX_ZORTEST" })
            unsetenv(name);
        ++g_cacheSerial;
    }
};

TEST_F(EnvSwitchTest, TheFirstSpellingThatIsSetDecides)
{
    EnvSwitch setting("ZORTEST");
    EXPECT_FALSE(setting.isSet());
    EXPECT_FALSE(setting.isOn());
    EXPECT_TRUE(setting.text().isNull());

    setenv("QUORVEX_ZORTEST", "/tmp/q", 1);
    setenv("ZOR_ZORTEST", "off", 1);
    ++g_cacheSerial;
    EXPECT_FALSE(setting.isOn());
    EXPECT_EQ(setting.text(), QStringLiteral("off"));

    // KLB_ comes first even when its value says no.
    setenv("KLB_ZORTEST", "", 1);
    ++g_cacheSerial;
    EXPECT_TRUE(setting.isOn());
    EXPECT_TRUE(setting.text().isEmpty());
    EXPECT_FALSE(setting.text().isNull());
}

TEST_F(EnvSwitchTest, OnlyTheFiveNegativeWordsSwitchOff)
{
    for (const char* off : { "no", "NO", "Off", "disable", "DISABLED", "0" })
        EXPECT_FALSE(EnvSwitch::valueMeansOn(off)) << off;
    for (const char* on : { "", "1", "yes", "false", "00", "nope", " off" })
        EXPECT_TRUE(EnvSwitch::valueMeansOn(on)) << on;
}

TEST_F(EnvSwitchTest, TheMemoHoldsUntilTheSerialMovesOrCachingIsOff)
{
    EnvSwitch setting("ZORTEST");
    setenv("ZOR_ZORTEST", "1", 1);
    ++g_cacheSerial;
    EXPECT_TRUE(setting.isOn());

    setenv("ZOR_ZORTEST", "0", 1);
    EXPECT_TRUE(setting.isOn()); // remembered
    ++g_cacheSerial;
    EXPECT_FALSE(setting.isOn());

    g_cacheEnv = false;
    setenv("ZOR_ZORTEST", "yes", 1);
    EXPECT_TRUE(setting.isOn());
    unsetenv("ZOR_ZORTEST");
    EXPECT_FALSE(setting.isSet());
}

} // namespace
