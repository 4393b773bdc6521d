#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "change_recorder.h"
#include "change_runner.h"
#include "ctl_error.h"
#include "hox/testing/temp_dir.h"
#include "known_files.h"
#include "run_tool.h"

namespace Hox::Ctl {

namespace {

/// A model with one type that this program does not know.
std::unique_ptr<KnownFiles> foreignFiles(const std::string& fieldName = "level") {
    google::protobuf::FileDescriptorProto file;
    file.set_name("own.proto");
    file.set_package("My");
    file.set_syntax("proto3");
    auto& field = *file.add_message_type()->add_field();
    file.mutable_message_type(0)->set_name("Own");
    field.set_name(fieldName);
    field.set_number(1);
    field.set_type(google::protobuf::FieldDescriptorProto::TYPE_INT32);
    field.set_label(google::protobuf::FieldDescriptorProto::LABEL_OPTIONAL);
    auto files = std::make_unique<KnownFiles>();
    files->add(file);
    return files;
}

class RecordingTest : public ::testing::Test {
protected:
    RecordingTest() {
        m_change.set_key("/a");
        m_change.mutable_current()->set_type_url("type.googleapis.com/My.Own");
        m_change.mutable_current()->set_value("\x08\x05");
    }

    Testing::TempDir m_folder;
    std::string m_path = m_folder / "recording";
    ServiceModel m_model{foreignFiles()};
    PackedValues m_values{m_model};
    Change m_change;
    Tool m_tool;
};

TEST_F(RecordingTest, HasAllThatItTakesToPrintIt) {
    ChangeRecorder recorder(m_path, 1);
    recorder.take(m_change, m_model, m_values);
    recorder.take(m_change, m_model, m_values);
    recorder.flush();
    EXPECT_EQ(m_tool.run({"replay", m_path}).out, "+ /a {\"level\":5}\n+ /a {\"level\":5}\n");
}

TEST_F(RecordingTest, KeepsTheServicesApart) {
    const ServiceModel later(foreignFiles("height"));
    ChangeRecorder recorder(m_path, 2);
    m_change.set_endpoint("a:1");
    recorder.take(m_change, m_model, m_values);
    m_change.set_endpoint("b:2");
    recorder.take(m_change, later, PackedValues(later));
    recorder.flush();
    EXPECT_EQ(m_tool.run({"replay", m_path}).out,
              "a:1 + /a {\"level\":5}\nb:2 + /a {\"height\":5}\n");
}

TEST_F(RecordingTest, IsPrintedUpToATornEnd) {
    {
        ChangeRecorder recorder(m_path, 1);
        recorder.take(m_change, m_model, m_values);
        recorder.take(m_change, m_model, m_values);
    }
    std::filesystem::resize_file(m_path, std::filesystem::file_size(m_path) - 1);
    const auto run = m_tool.run({"replay", m_path});
    EXPECT_EQ(run.out, "+ /a {\"level\":5}\n");
    EXPECT_EQ(run.err, "halvoctl: the recording ends in the middle of a change\n");
    EXPECT_EQ(run.code, ExitCode::Done);
}

TEST_F(RecordingTest, AnotherFileIsNone) {
    std::ofstream(m_path) << "text";
    EXPECT_EQ(m_tool.run({"replay", m_path}).err, "halvoctl: " + m_path + " is no recording\n");
    EXPECT_EQ(m_tool.run({"replay", m_path + "x"}).err, "halvoctl: cannot read " + m_path + "x\n");
}

TEST_F(RecordingTest, AFullDiskIsAnError) {
    EXPECT_THROW(ChangeRecorder("/dev/full", 1), CtlError);
    EXPECT_THROW(ChangeRecorder("/nonexistent/x", 1), CtlError);
}

TEST_F(RecordingTest, ACommandGetsTheChangeOnItsInput) {
    std::vector<std::string> notes;
    ChangeRunner runner("cat >>" + m_path, [&notes](const auto& text) { notes.push_back(text); });
    runner.take(m_change, m_model, m_values);
    runner.take(m_change, m_model, m_values);
    std::ostringstream text;
    text << std::ifstream(m_path).rdbuf();
    const auto line = m_values.json().line(m_change) + "\n";
    EXPECT_EQ(text.str(), line + line);
    EXPECT_TRUE(notes.empty());
}

TEST_F(RecordingTest, ACommandThatFailsOrReadsNothingIsNoted) {
    m_change.set_key("/" + std::string(1 << 20, 'x'));
    std::vector<std::string> notes;
    const auto note = [&notes](const auto& text) { notes.push_back(text); };
    ChangeRunner("exit 3", note).take(m_change, m_model, m_values);
    ChangeRunner("kill -9 $$", note).take(m_change, m_model, m_values);
    EXPECT_EQ(notes, (std::vector<std::string>{"the command of --exec has failed with status 3",
                                               "the command of --exec was ended by signal 9"}));
}

}  // namespace

}  // namespace Hox::Ctl
