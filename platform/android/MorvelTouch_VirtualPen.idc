# The daemon's pen device: a stylus on the internal screen (BTN_TOOL_PEN / BTN_TOOL_RUBBER).
device.internal = 1
touch.deviceType = touchScreen
touch.orientationAware = 1
