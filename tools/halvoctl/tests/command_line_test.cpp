#include "command_line.h"

#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <fstream>

#include "hox/testing/reserved_port.h"
#include "hox/testing/temp_dir.h"
#include "run_tool.h"
#include "state_monitoring.pb.h"

namespace Hox::Ctl {

namespace {

/// Adds the file after all that it imports.
void addFile(const google::protobuf::FileDescriptor& file,
             google::protobuf::FileDescriptorSet& set) {
    for (int index = 0; index < file.dependency_count(); ++index) {
        addFile(*file.dependency(index), set);
    }
    for (const auto& known : set.file()) {
        if (known.name() == file.name()) {
            return;
        }
    }
    file.CopyTo(set.add_file());
}

/// The proto files of the state monitor in a file; no service runs.
class OfflineTest : public ::testing::Test {
protected:
    OfflineTest() {
        google::protobuf::FileDescriptorSet set;
        addFile(*Capability::StateMonitoring::Api::StateNotification::descriptor()->file(), set);
        std::ofstream file(m_set, std::ios::binary);
        set.SerializeToOstream(&file);
    }

    ToolRun run(std::vector<std::string> words) {
        words.insert(words.end(), {"--protoset", m_set, "-e", "localhost:1"});
        return m_tool.run(words);
    }

    Testing::TempDir m_folder;
    std::string m_set = m_folder / "set";
    Tool m_tool;
};

TEST(CommandLine, AnUnknownCommandIsNamed) {
    for (const std::vector<std::string>& words :
         {std::vector<std::string>{"nothing"}, {"conf", "nothing"}}) {
        const auto run = Tool().run(words);
        EXPECT_EQ(run.code, ExitCode::Usage);
        EXPECT_EQ(run.err,
                  "halvoctl: no command \"nothing\"\nhint: halvoctl --help lists all commands\n");
    }
}

TEST(CommandLine, WrongWordsAreUsageErrors) {
    Tool tool;
    for (const std::vector<std::string>& words : {std::vector<std::string>{},
                                                  {"nothing"},
                                                  {"call"},
                                                  {"ping", "--timeout", "soon"},
                                                  {"ping", "-o", "yaml"},
                                                  {"services", "-e", "a:1", "-e", "b:1"}}) {
        const auto run = tool.run(words);
        EXPECT_EQ(run.code, ExitCode::Usage);
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err, "");
    }
}

TEST(CommandLine, HelpAndVersionAreResults) {
    Tool tool;
    EXPECT_EQ(tool.run({"--version"}).out.substr(0, 9), "halvoctl ");
    const auto help = tool.run({"call", "--help"});
    EXPECT_EQ(help.code, ExitCode::Done);
    EXPECT_NE(help.out.find("--owner"), std::string::npos);
    EXPECT_EQ(help.err, "");
}

TEST(CommandLine, NobodyAtTheEndpointIsUnreachable) {
    const Testing::ReservedPort port;
    Tool tool;
    tool.environment["HALVO_ENDPOINT"] = "127.0.0.1:" + std::to_string(port.number());
    const auto run = tool.run({"services"});
    EXPECT_EQ(run.code, ExitCode::Unreachable);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err.substr(0, 23), "halvoctl: UNAVAILABLE: ");
    EXPECT_NE(run.err.find("hint: the endpoint is 127.0.0.1:"), std::string::npos);
}

TEST_F(OfflineTest, MethodsComeFromTheSet) {
    const auto table = run({"services"});
    EXPECT_EQ(table.code, ExitCode::Done) << table.err;
    EXPECT_NE(table.out.find("StateMonitoringService/getCurrentState              READ       "
                             "/state/current\n"),
              std::string::npos)
        << table.out;
    const auto lines = run({"services", "-o", "jsonl"});
    EXPECT_NE(lines.out.find(R"("operation":"READ","address":"/state/current")"), std::string::npos)
        << lines.out;
}

TEST_F(OfflineTest, ANameIsDescribedByItsEnd) {
    const auto found = run({"describe", "StateSeverityMessage"});
    EXPECT_EQ(found.code, ExitCode::Done) << found.err;
    EXPECT_EQ(found.out,
              "message StateSeverityMessage {\n"
              "  .Hox.Capability.StateMonitoring.Api.StateSeverity stateSeverity = 1;\n}\n");
    EXPECT_EQ(run({"describe", "ConnectStatus"}).out.substr(0, 20), "enum ConnectStatus {");
    const auto nothing = run({"describe", "Nothing"});
    EXPECT_EQ(nothing.code, ExitCode::Usage);
    EXPECT_EQ(nothing.err, "halvoctl: nothing is called \"Nothing\"\n");
}

TEST_F(OfflineTest, ACallIsRefusedBeforeItIsSent) {
    EXPECT_EQ(run({"call", "noSuchMethod"}).err,
              "halvoctl: no method \"noSuchMethod\"\n"
              "hint: halvoctl services lists all methods\n");
    const auto request = run({"call", "getCurrentState", "-d", "{\"x\":1}"});
    EXPECT_EQ(request.code, ExitCode::Usage);
    EXPECT_NE(request.err.find("the request is no JSON of a "), std::string::npos) << request.err;
    const auto pattern =
        run({"call", "observeStateNotifications", "-d", "{\"key_pattern\":\"x\"}"});
    EXPECT_EQ(pattern.code, ExitCode::Usage);
    EXPECT_EQ(pattern.err,
              "halvoctl: not sent: Initial character of path must be '/'; path = x. \n");
    EXPECT_EQ(run({"call", "getCurrentState", "-d", "@/nonexistent"}).err,
              "halvoctl: cannot read /nonexistent\n");
}

TEST_F(OfflineTest, ARequestMayComeFromTheInput) {
    m_tool.in = "{\"key_pattern\":\"/a/**/b\"}";
    EXPECT_EQ(run({"call", "StateMonitoringService/observeStateNotifications", "-d", "-"}).err,
              "halvoctl: not sent: no key can match a pattern with a name after \"**\"\n");
}

TEST_F(OfflineTest, AFileThatIsNoSetIsRefused) {
    std::ofstream(m_set) << "no set";
    EXPECT_NE(run({"services"}).err.find(" is no set of proto files"), std::string::npos);
}

}  // namespace

}  // namespace Hox::Ctl
