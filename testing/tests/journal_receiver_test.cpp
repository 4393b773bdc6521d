#include "hox/testing/journal_receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <systemd/sd-journal.h>

#include "hox/testing/private_mounts.h"
#include "hox/testing/skip_outside_ci.h"

namespace Hox::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

class JournalReceiverTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { isPrivate = mountPrivateFolders({"/run"}); }
    void SetUp() override {
        if (!isPrivate) {
            skipOutsideCi("this machine allows no private mounts");
        }
    }

private:
    inline static bool isPrivate = false;
};

TEST_F(JournalReceiverTest, ReadsFieldsInOrder) {
    JournalReceiver journal;
    EXPECT_THAT(journal.records(), IsEmpty());
    sd_journal_send("MESSAGE=first", "EMPTY=", "EQUALS=a=b", "SYSLOG_IDENTIFIER=x", nullptr);
    sd_journal_send("SYSLOG_IDENTIFIER=x", "MESSAGE=%s", "second", nullptr);
    EXPECT_THAT(
        journal.records(),
        ElementsAre(ElementsAre(Pair("MESSAGE", "first"), Pair("EMPTY", ""), Pair("EQUALS", "a=b"),
                                Pair("SYSLOG_IDENTIFIER", "x")),
                    ElementsAre(Pair("SYSLOG_IDENTIFIER", "x"), Pair("MESSAGE", "second"))));
    EXPECT_THAT(journal.messages(), ElementsAre("first", "second"));
}

TEST_F(JournalReceiverTest, ReadsValuesWithLineFeeds) {
    JournalReceiver journal;
    const std::string lines(300, '\n');
    sd_journal_send("MESSAGE=%s", ("a" + lines + "b").c_str(), "SYSLOG_IDENTIFIER=x", nullptr);
    EXPECT_THAT(journal.messages(), ElementsAre("a" + lines + "b"));
}

}  // namespace
}  // namespace Hox::Testing
