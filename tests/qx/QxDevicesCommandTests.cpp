// QxDevicesCommandTests.cpp - `qx devices` on a real loop device, run as a child process.
#include "LoopDevices.h"
#include "QxProcessTest.h"

#include <QXFoundation/QXPropertyListSerialization.h>

#include <qx/Dictionary.h>

using namespace qxtest;

namespace {

// Through each provider, chosen for qx by its environment variable.
class QxDevices : public QxProcessTest, public ::testing::WithParamInterface<std::string> {
protected:
    void SetUp() override { QX_REQUIRE_DEVICE_PROVIDER(GetParam()); }
    QxRun runQx(const std::vector<std::string>& args) const {
        return QxProcessTest::runQx(args, "/dev/null", "QX_BLOCK_DEVICE_PROVIDER=" + GetParam());
    }
    LoopDevices loops{providerNamed(GetParam())};
};

INSTANTIATE_TEST_SUITE_P(Providers, QxDevices, ::testing::Values("direct", "udisks"),
                         [](const ::testing::TestParamInfo<std::string>& info) { return info.param; });

TEST_P(QxDevices, ListInfoMountUnmountEject) {
    const std::string label = "QXC" + newUUID().substr(0, 8), uuid = newUUID();
    const std::string a = loops.attach(loops.ext4Image("a.img", label, uuid));
    ASSERT_FALSE(a.empty());

    auto run = runQx({"devices", "list"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out.rfind("DEVICE", 0), 0u) << run.out;
    const auto row = run.out.find("/dev/" + a + " ");
    ASSERT_NE(row, std::string::npos) << run.out;
    const std::string line = run.out.substr(row, run.out.find('\n', row) - row);
    for (const std::string& cell : {std::string("8388608"), std::string("ext4"), label}) EXPECT_NE(line.find(cell), std::string::npos) << line;

    run = runQx({"devices", "info", a, "--plist"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    auto info = qx::dyn_cast<qx::Dictionary>(QXPropertyListSerialization::propertyListWithData(toData(run.out), nullptr, nullptr));
    ASSERT_TRUE(info) << run.out;
    EXPECT_EQ(info->get<qx::String>("volumeName")->utf8(), label);
    EXPECT_EQ(info->get<qx::String>("bsdName")->utf8(), a);
    EXPECT_TRUE(info->get<qx::Number>("isWholeDisk")->boolValue());

    const std::string folder = dir() / "mnt";
    std::filesystem::create_directory(folder);
    run = runQx({"devices", "mount", "/dev/" + a, "--at", folder, "-o", "ro,noexec"});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_EQ(run.out, folder + "\n");
    run = runQx({"devices", "eject", a});
    expectOneLineFailure(run, a);
    run = runQx({"devices", "unmount", a});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    run = runQx({"devices", "unmount", a});
    expectOneLineFailure(run, a);
    run = runQx({"devices", "eject", a});
    ASSERT_EQ(run.exitStatus, 0) << run.describe();
    EXPECT_FALSE(loops.holds(a));

    run = runQx({"devices", "info", "loop-none"});
    expectOneLineFailure(run, "loop-none");
}

} // namespace
