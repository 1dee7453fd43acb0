// Choice of the event protocol by kernel and series.
#include <gtest/gtest.h>

#include "core/environment.h"
#include "device/setup.h"
#include "support/dev_test_util.h"

namespace {

TEST(ChooseEventType, ByKernelAndSeries) {
    struct Case {
        KernelVersionInfo kernel;
        int32_t series;
        int8_t configured;
        int8_t chosen;
    } cases[] = {
        {{2, 6, 35}, 12, 0, 1}, {{2, 6, 32}, 22, 0, 1}, {{2, 6, 36}, 12, 0, 2},
        {{2, 6, 36}, 8, 0, 1},  {{3, 0, 1}, 12, 0, 2},  {{3, 0, 1}, 0, 0, 1},
        {{5, 10, 0}, 9, 0, 2},  {{2, 6, 36}, 12, 4, 4}, {{2, 6, 30}, 12, 2, 2},
    };
    KernelVersionInfo saved = KernelVersion;
    GlobalSettings settings = DevTestSettings();
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.kernel.major << "." << c.kernel.minor << "."
                                        << c.kernel.patch << " series " << c.series);
        KernelVersion = c.kernel;
        CDeviceObject dev("/dev/hidraw99", &settings);
        dev.Series = c.series;
        dev.Param.EventType = c.configured;
        DevLogCapture log;
        ChooseEventType(&dev);
        EXPECT_EQ(c.chosen, dev.Param.EventType);
        EXPECT_EQ(c.configured != 0 ? 0 : 1, log.Count("EventType = "));
    }
    KernelVersion = saved;
}

}  // namespace
