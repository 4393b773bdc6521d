#include "key_owner.h"

#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include "package.pb.h"
#include "run_tool.h"

namespace Hox::Ctl {

namespace {

TEST(KeyOwner, HasThePartsOfTheSlice) {
    Tool tool;
    const auto run = tool.run({"conf", "owner", "/sys/conf/mb/0/nobody/in/3/freq"});
    EXPECT_EQ(run.code, ExitCode::Done) << run.err;
    EXPECT_EQ(run.out,
              "NODE TYPE  NODE ID  CAPABILITY  SERVICE\n"
              "mb         0        nobody      -\n");
    KeyOwner owner;
    ASSERT_TRUE(google::protobuf::util::JsonStringToMessage(
                    tool.run({"conf", "owner", "/sys/conf/a/b/nobody/x", "-o", "json"}).out, &owner)
                    .ok());
    EXPECT_EQ(owner.capability(), "nobody");
    EXPECT_EQ(owner.service_ids_size(), 0);
}

TEST(KeyOwner, ATextThatIsNoKeyIsRefused) {
    Tool tool;
    for (const auto& [key, text] : std::map<std::string, std::string>{
             {"sys", "Initial character of path must be '/'; path = sys. "},
             {"/sys/conf/mb/0/tuner", "Key is in no slice: /sys/conf/mb/0/tuner"},
             {"/state/a/b/c/d/e", "Key is in no slice: /state/a/b/c/d/e"},
             {"/sys/conf/mb/0/tuner/data/x",
              "Key has the reserved component data: /sys/conf/mb/0/tuner/data/x"}}) {
        const auto run = tool.run({"conf", "owner", key});
        EXPECT_EQ(run.code, ExitCode::Usage);
        EXPECT_EQ(run.err, "halvoctl: " + text + "\n");
    }
}

}  // namespace

}  // namespace Hox::Ctl
