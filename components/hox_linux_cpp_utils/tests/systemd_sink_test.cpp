#include "hox/linutils/log/systemd_sink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <mutex>

#include "hox/testing/journal_receiver.h"
#include "private_log_fixture.h"

namespace Hox::Log {
namespace {

using ::testing::ElementsAre;
using ::testing::Pair;

constexpr spdlog::source_loc place{"/folder/file.cpp", 17, "theFunction"};

class SystemdSink : public Fixture::PrivateLogFixture {
protected:
    void SetUp() override {
        PrivateLogFixture::SetUp();
        m_sink.set_pattern("%v");
    }

    void log(spdlog::level::level_enum level, const std::string& text,
             const spdlog::source_loc& source = place) {
        m_sink.log(spdlog::details::log_msg(source, "logger", level, text));
    }

    systemd_sink<std::mutex> m_sink;
};

TEST_F(SystemdSink, SendsTheseFieldsInThisOrder) {
    Testing::JournalReceiver journal;
    m_sink.set_pattern("[%s:%#] %v");
    log(spdlog::level::warn, "the text");
    EXPECT_THAT(
        journal.records(),
        ElementsAre(ElementsAre(Pair("MESSAGE", "[file.cpp:17] the text"), Pair("PRIORITY", "4"),
                                Pair("SYSLOG_IDENTIFIER", program_invocation_short_name),
                                Pair("CODE_FILE", "/folder/file.cpp"), Pair("CODE_LINE", "17"),
                                Pair("CODE_FUNC", "theFunction"))));
}

TEST_F(SystemdSink, MapsLevelsToPriorities) {
    struct LevelCase {
        spdlog::level::level_enum level;
        const char* priority;
    };
    const std::vector<LevelCase> cases{
        {spdlog::level::trace, "7"}, {spdlog::level::debug, "7"},    {spdlog::level::info, "6"},
        {spdlog::level::warn, "4"},  {spdlog::level::err, "3"},      {spdlog::level::critical, "2"},
        {spdlog::level::off, "6"},   {spdlog::level::n_levels, "6"},
    };
    for (const auto& [level, priority] : cases) {
        Testing::JournalReceiver journal;
        log(level, "text");
        const auto records = journal.records();
        ASSERT_EQ(records.size(), 1U) << level;
        EXPECT_THAT(records[0], ::testing::Contains(Pair("PRIORITY", priority))) << level;
    }
}

TEST_F(SystemdSink, SendsLongAndManyLinedTextsWhole) {
    Testing::JournalReceiver journal;
    const std::string aboveTheInlineBuffer(1000, 'x');
    log(spdlog::level::err, aboveTheInlineBuffer);
    log(spdlog::level::err, "first\nsecond");
    log(spdlog::level::err, "");
    log(spdlog::level::err, "100 %s %n {}");
    EXPECT_THAT(journal.messages(),
                ElementsAre(aboveTheInlineBuffer, "first\nsecond", "", "100 %s %n {}"));
}

TEST_F(SystemdSink, CopesWithARecordWithoutALocation) {
    Testing::JournalReceiver journal;
    log(spdlog::level::warn, "text", spdlog::source_loc{});
    const auto records = journal.records();
    ASSERT_EQ(records.size(), 1U);
    EXPECT_THAT(records[0],
                ::testing::IsSupersetOf({Pair("MESSAGE", "text"), Pair("CODE_FILE", "(null)"),
                                         Pair("CODE_LINE", "0"), Pair("CODE_FUNC", "(null)")}));
}

TEST_F(SystemdSink, IgnoresAJournalThatIsNotThere) {
    EXPECT_NO_THROW(log(spdlog::level::critical, "lost"));
    Testing::JournalReceiver journal;
    log(spdlog::level::critical, "heard");
    m_sink.flush();
    EXPECT_THAT(journal.messages(), ElementsAre("heard"));
}

}  // namespace
}  // namespace Hox::Log
