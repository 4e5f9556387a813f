// The error log record: level filter, output to standard error and the
// system-log path.
#include "vesk/log.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "test_support.h"

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        saved_level_ = vesk::log::LOG_LEVEL;
        saved_output_ = vesk::log::LOG_OUTPUT;
        vesk::log::LOG_OUTPUT = 0;
    }
    void TearDown() override {
        vesk::log::LOG_LEVEL = saved_level_;
        vesk::log::LOG_OUTPUT = saved_output_;
    }

    // What one record of `level` holding `text` writes to standard error.
    static std::string emitted(int level, const std::string& text) {
        vesk::test::CerrCapture cerr;
        vesk::log::ErrorLog(__FILE__, __func__, __LINE__, level).stream() << text;
        return cerr.text();
    }

private:
    int saved_level_ = 4;
    int saved_output_ = 0;
};

TEST_F(LogTest, LevelAboveTheSettingIsDropped) {
    vesk::log::LOG_LEVEL = 6;
    EXPECT_EQ(emitted(7, "debug"), "");
    EXPECT_EQ(emitted(6, "info"), "info\n");
    vesk::log::LOG_LEVEL = 7;
    EXPECT_EQ(emitted(7, "debug"), "debug\n");
}

TEST_F(LogTest, TextIsWrittenExactlyAsGiven) {
    vesk::log::LOG_LEVEL = 7;
    EXPECT_EQ(emitted(3, ""), "\n");
    EXPECT_EQ(emitted(3, "100% %s %n done"), "100% %s %n done\n");
    {
        vesk::test::CerrCapture cerr;
        vesk::log::ErrorLog("some/file.cpp", "some_function", 42, 4).stream()
            << "value " << 17 << ": " << 2.5;
        EXPECT_EQ(cerr.text(), "value 17: 2.5\n");  // no file, function, line or level
    }
}

TEST_F(LogTest, SystemLogPathTakesTheTextAsAnArgument) {
    vesk::log::LOG_LEVEL = 7;
    vesk::log::LOG_OUTPUT = 1;
    // Nothing reaches standard error.
    EXPECT_EQ(emitted(7, "to syslog"), "");
    // "%n" used as a format would write through a bogus pointer or trip the
    // fortified check; as an argument it is harmless.
    EXPECT_EXIT(
        {
            vesk::log::ErrorLog(__FILE__, __func__, __LINE__, 7).stream() << "%s%n%s%n%x %%";
            vesk::log::ErrorLog(__FILE__, __func__, __LINE__, 7).stream() << "";
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
