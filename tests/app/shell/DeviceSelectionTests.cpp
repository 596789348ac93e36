#include "app/shell/DeviceSelection.h"

#include <gtest/gtest.h>

namespace kavelo {
namespace {

AudioDevice device(std::string id, bool isDefault = false) {
    AudioDevice d;
    d.id = std::move(id);
    d.name = d.id;
    d.isDefault = isDefault;
    return d;
}

TEST(DeviceSelectionTest, AChosenMicrophoneStaysWhilePresentAndTheOutputFollowsTheDefault) {
    const std::vector<AudioDevice> devices{device("usb"), device("builtin", true), device("headset")};
    EXPECT_EQ(DeviceSelection::microphone(devices, "headset"), "headset");
    // Vanished, or never chosen: the default.
    EXPECT_EQ(DeviceSelection::microphone(devices, "bluetooth"), "builtin");
    EXPECT_EQ(DeviceSelection::microphone(devices, ""), "builtin");
    // No default: the first; no devices: none.
    EXPECT_EQ(DeviceSelection::microphone({device("a"), device("b")}, "gone"), "a");
    EXPECT_EQ(DeviceSelection::microphone({}, "gone"), "");
    EXPECT_EQ(DeviceSelection::output(devices), "builtin");
    EXPECT_EQ(DeviceSelection::output({}), "");
}

} // namespace
} // namespace kavelo
