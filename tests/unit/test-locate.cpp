#include "platform/locate.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "tests/unit/support.h"

#define TOOL "/usr/bin/flash_leds"

class locate : public testing::Test {
protected:
    void SetUp() override
    {
        fresh_agent();
        std::filesystem::remove(TOOL);
        std::filesystem::remove("/tmp/blinked");
    }
};

TEST_F(locate, the_leds_blink_once_without_arguments)
{
    write_file(TOOL, "#!/bin/sh\necho \"$# arguments\" >> /tmp/blinked\n");
    ASSERT_EQ(chmod(TOOL, 0755), 0);
    EXPECT_EQ(platform_locate(), 0);
    EXPECT_EQ(file_text("/tmp/blinked"), "0 arguments\n");
    EXPECT_EQ(logged(), std::vector<std::string>{"wifi.c:platform_locate: ** Blinking device LEDs ** "});
}

TEST_F(locate, whatever_the_tool_does_it_succeeds)
{
    write_file(TOOL, "#!/bin/sh\nexit 3\n");
    ASSERT_EQ(chmod(TOOL, 0755), 0);
    EXPECT_EQ(platform_locate(), 0);
    std::filesystem::remove(TOOL);
    EXPECT_EQ(platform_locate(), 0);
}
