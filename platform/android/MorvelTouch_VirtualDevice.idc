# The daemon's multi-touch device: an internal touch screen with direct (on-screen) contacts.
device.internal = 1
touch.deviceType = touchScreen
touch.orientationAware = 1
