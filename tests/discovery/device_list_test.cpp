// The manager's device list: lookup, append failure, and unlinking at the head, in the
// middle and at the tail, with bare records (no port, no thread) linked by hand.
#include "discovery/device_list.h"

#include <gtest/gtest.h>
#include <string.h>

#include <string>
#include <vector>

#include "config/global_settings.h"
#include "core/manager.h"
#include "core/paths.h"
#include "device/device_object.h"
#include "support/disc_log_capture.h"

namespace {

class DeviceListTest : public testing::Test {
  protected:
    void SetUp() override {
        SetDataDirForTest(data_.path().c_str());
        memset(&settings_, 0, sizeof(settings_));
        settings_.MaxDeviceNums = 4;
        settings_.NewDevIAPType = IAP_FW;
    }
    void TearDown() override {
        while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead);
    }

    // Links bare records for paths at the tail, by hand, keeping the count in step.
    void LinkByHand(const std::vector<std::string>& paths) {
        CDeviceObject** link = &manager_.DeviceListHead;
        while (*link) link = &(*link)->pNext;
        for (const std::string& path : paths) {
            *link = new CDeviceObject(path.c_str(), &settings_);
            link = &(*link)->pNext;
            manager_.DeviceCount++;
        }
    }
    std::vector<std::string> ListPaths() const {
        std::vector<std::string> paths;
        for (CDeviceObject* d = manager_.DeviceListHead; d; d = d->pNext)
            paths.push_back(d->PortPath);
        return paths;
    }
    CDeviceObject** LinkOf(const std::string& path) {
        CDeviceObject** link = &manager_.DeviceListHead;
        while (*link && path != (*link)->PortPath) link = &(*link)->pNext;
        return link;
    }

    DiscTempDir data_;
    GlobalSettings settings_;
    CManager manager_{&settings_};
};

TEST_F(DeviceListTest, IsPortObjExistedComparesWholePaths) {
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, "/dev/hidraw0"));  // empty list
    LinkByHand({"/dev/hidraw0", "/dev/ttyS1", "/dev/serio_raw2"});
    for (const char* path : {"/dev/hidraw0", "/dev/ttyS1", "/dev/serio_raw2"}) {
        EXPECT_EQ(0, IsPortObjExisted(&manager_, path)) << path;
    }
    for (const char* path : {"/dev/hidraw", "/dev/hidraw00", "/dev/ttyS10", ""}) {
        EXPECT_EQ(-1, IsPortObjExisted(&manager_, path)) << path;
    }
}

// Head, middle, tail, then the last one; the log names the removed path (a kept copy:
// the object's text is gone once it is destroyed) and the count left.
TEST_F(DeviceListTest, RemoveDeviceAtHeadMiddleAndTail) {
    DiscLogCapture log;
    const std::string long_path = "/dev/" + std::string(70, 'x');  // longer than PortPath holds
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1", "/dev/hidraw2", long_path, "/dev/hidraw4"});
    const std::string kept = "/dev/" + std::string(58, 'x');
    struct Step {
        std::string path;
        std::vector<std::string> left;
    };
    const Step steps[] = {
        {"/dev/hidraw0", {"/dev/hidraw1", "/dev/hidraw2", kept, "/dev/hidraw4"}},
        {"/dev/hidraw2", {"/dev/hidraw1", kept, "/dev/hidraw4"}},
        {"/dev/hidraw4", {"/dev/hidraw1", kept}},
        {kept, {"/dev/hidraw1"}},
        {"/dev/hidraw1", {}},
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.path);
        RemoveDevice(&manager_, LinkOf(s.path));
        EXPECT_EQ(s.left, ListPaths());
        EXPECT_EQ(static_cast<int>(s.left.size()), manager_.DeviceCount);
        EXPECT_TRUE(log.Contains("Device [" + s.path + "] was removed, existed device amount = " +
                                 std::to_string(s.left.size())));
    }
    RemoveDevice(&manager_, &manager_.DeviceListHead);  // nothing to remove: no change
    EXPECT_EQ(0, manager_.DeviceCount);
}

TEST_F(DeviceListTest, AddandInitDeviceFailureLeavesListAndCount) {
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1"});
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/hidraw7", &manager_.DeviceListHead));
    EXPECT_EQ(2, manager_.DeviceCount);
    EXPECT_EQ((std::vector<std::string>{"/dev/hidraw0", "/dev/hidraw1"}), ListPaths());
    while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead);
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/ttyS3", &manager_.DeviceListHead));
    EXPECT_EQ(nullptr, manager_.DeviceListHead);
    EXPECT_EQ(0, manager_.DeviceCount);
}

}  // namespace
