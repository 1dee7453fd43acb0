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
    EXPECT_EQ(0, IsPortObjExisted(&manager_, "/dev/hidraw0"));
    EXPECT_EQ(0, IsPortObjExisted(&manager_, "/dev/ttyS1"));
    EXPECT_EQ(0, IsPortObjExisted(&manager_, "/dev/serio_raw2"));
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, "/dev/hidraw"));
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, "/dev/hidraw00"));
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, "/dev/ttyS10"));
    EXPECT_EQ(-1, IsPortObjExisted(&manager_, ""));
}

TEST_F(DeviceListTest, RemoveDeviceAtHeadMiddleAndTail) {
    DiscLogCapture log;
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1", "/dev/hidraw2", "/dev/hidraw3", "/dev/hidraw4"});
    ASSERT_EQ(5, manager_.DeviceCount);

    RemoveDevice(&manager_, LinkOf("/dev/hidraw0"));  // head
    EXPECT_EQ(
        (std::vector<std::string>{"/dev/hidraw1", "/dev/hidraw2", "/dev/hidraw3", "/dev/hidraw4"}),
        ListPaths());
    EXPECT_EQ(4, manager_.DeviceCount);
    EXPECT_TRUE(log.Contains("Device [/dev/hidraw0] was removed, existed device amount = 4"));

    RemoveDevice(&manager_, LinkOf("/dev/hidraw2"));  // middle
    EXPECT_EQ((std::vector<std::string>{"/dev/hidraw1", "/dev/hidraw3", "/dev/hidraw4"}),
              ListPaths());
    EXPECT_EQ(3, manager_.DeviceCount);
    EXPECT_TRUE(log.Contains("Device [/dev/hidraw2] was removed, existed device amount = 3"));

    RemoveDevice(&manager_, LinkOf("/dev/hidraw4"));  // tail: predecessor's pNext becomes null
    EXPECT_EQ((std::vector<std::string>{"/dev/hidraw1", "/dev/hidraw3"}), ListPaths());
    EXPECT_EQ(nullptr, manager_.DeviceListHead->pNext->pNext);
    EXPECT_EQ(2, manager_.DeviceCount);

    RemoveDevice(&manager_, LinkOf("/dev/hidraw1"));
    RemoveDevice(&manager_, LinkOf("/dev/hidraw3"));  // the last one empties the list
    EXPECT_EQ(nullptr, manager_.DeviceListHead);
    EXPECT_EQ(0, manager_.DeviceCount);
    EXPECT_TRUE(log.Contains("Device [/dev/hidraw3] was removed, existed device amount = 0"));

    RemoveDevice(&manager_, &manager_.DeviceListHead);  // nothing to remove: no change
    EXPECT_EQ(0, manager_.DeviceCount);
}

TEST_F(DeviceListTest, RemovedPathIsTheOneLogged) {
    // The object's text is gone once it is destroyed: the message uses a kept copy.
    DiscLogCapture log;
    const std::string long_path = "/dev/" + std::string(70, 'x');  // longer than PortPath holds
    LinkByHand({long_path});
    RemoveDevice(&manager_, &manager_.DeviceListHead);
    EXPECT_TRUE(log.Contains("Device [/dev/" + std::string(58, 'x') +
                             "] was removed, existed device amount = 0"));
}

TEST_F(DeviceListTest, AddandInitDeviceFailureLeavesListAndCount) {
    DiscLogCapture log;
    LinkByHand({"/dev/hidraw0", "/dev/hidraw1"});
    CDeviceObject* head = manager_.DeviceListHead;
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/hidraw7", &manager_.DeviceListHead));
    EXPECT_EQ(2, manager_.DeviceCount);
    EXPECT_EQ(head, manager_.DeviceListHead);
    EXPECT_EQ((std::vector<std::string>{"/dev/hidraw0", "/dev/hidraw1"}), ListPaths());
    // The count is raised before the object exists, and lowered again when it fails.
    EXPECT_TRUE(log.Contains("Add device [/nonexistent/hidraw7], current device amount = 3"));

    // Into an empty list: the head stays null.
    while (manager_.DeviceListHead) RemoveDevice(&manager_, &manager_.DeviceListHead);
    EXPECT_EQ(-1, AddandInitDevice(&manager_, "/nonexistent/ttyS3", &manager_.DeviceListHead));
    EXPECT_EQ(nullptr, manager_.DeviceListHead);
    EXPECT_EQ(0, manager_.DeviceCount);
}

}  // namespace
